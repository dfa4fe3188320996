#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "net/interface_name.h"
#include "qel_util/net.h"
#include "qel_util/system.h"

namespace qel_util {

namespace {

constexpr size_t kLineSize = 200;

// The entry's address anywhere in the argument, not followed by a digit: a
// trailing ":port" still matches, "10.0.0.10" does not match "10.0.0.1".
bool Matches(const char* argument, const char* entryAddress) {
  const char* found = std::strstr(argument, entryAddress);
  return found != nullptr && !std::isdigit(static_cast<unsigned char>(
                                 found[std::strlen(entryAddress)]));
}

struct Neighbour {
  char hardwareAddress[kLineSize];
  char device[kLineSize];
};

// The first entry of the ARP table that matches, whatever its flags say.
bool FindNeighbour(const char* address, Neighbour& neighbour) {
  FILE* table = std::fopen("/proc/net/arp", "r");
  if (table == nullptr) return false;
  char line[kLineSize];
  bool found = false;
  while (!found && std::fgets(line, sizeof line, table) != nullptr) {
    // fgets keeps every field shorter than its buffer.
    char entryAddress[kLineSize];
    char mask[kLineSize];
    unsigned int hardwareType = 0;
    unsigned int flags = 0;
    if (std::sscanf(line, "%s 0x%x 0x%x %s %s %s\n", entryAddress,
                    &hardwareType, &flags, neighbour.hardwareAddress, mask,
                    neighbour.device) < 6)
      continue;  // the header line, or a line cut by the buffer
    found = Matches(address, entryAddress);
  }
  std::fclose(table);
  return found;
}

bool IsBridge(const char* device) {
  return std::strncmp(device, "br", 2) == 0 &&
         std::isdigit(static_cast<unsigned char>(device[2]));
}

// The port through which the bridge reaches `hardwareAddress`: in the
// forwarding database a port entry is the address, one separator, "dev ",
// the port's name and a space. Only the first mention of the address counts.
bool FindPort(const std::string& database, const char* hardwareAddress,
              std::string& port) {
  size_t at = database.find(hardwareAddress);
  if (at == std::string::npos || at + 18 > database.size() ||
      database.compare(at + 18, 4, "dev ") != 0)
    return false;
  size_t begin = at + 22;
  size_t end = database.find(' ', begin);
  if (end == std::string::npos) return false;
  port = database.substr(begin, end - begin);
  return true;
}

}  // namespace

int CheckIPv4Address(const char* address) {
  if (address == nullptr) return 0;
  Neighbour neighbour;
  if (!FindNeighbour(address, neighbour)) return 0;
  if (!IsBridge(neighbour.device)) return ClassifyInterface(neighbour.device);
  // The name goes to the shell; one the shell could read as anything but a
  // word is never run.
  if (!IsPlainInterfaceName(neighbour.device)) return 0;
  std::string port;
  if (!FindPort(system::exec(std::string("/sbin/bridge fdb show br ") +
                             neighbour.device),
                neighbour.hardwareAddress, port))
    return 0;
  return ClassifyInterface(port.c_str());
}

}  // namespace qel_util
