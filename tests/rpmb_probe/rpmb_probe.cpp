// Usage:
//   rpmb_probe read <address> <count> <file>  ReadData into a buffer that
//       holds 1000 bytes 0xEE beforehand; prints "<result> <size>" and writes
//       the buffer to <file>
//   rpmb_probe hwid       GetHardwareID: prints "<code> [<id>]"
//   rpmb_probe deviceid   GetDeviceID: prints "<error> [<id>]"
// The library's own messages go to standard error and syslog unchanged.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qel_util/system.h"

namespace {

int Read(const char* address, const char* count, const char* path) {
  qel_util::MmcPrivate mmc;
  std::vector<unsigned char> buffer(1000, 0xEE);
  const int rc = mmc.ReadData(
      static_cast<unsigned short>(std::strtoul(address, nullptr, 0)),
      static_cast<unsigned short>(std::strtoul(count, nullptr, 0)), buffer);
  std::printf("%d %zu\n", rc, buffer.size());
  FILE* out = std::fopen(path, "wb");
  if (out == nullptr) return 2;
  std::fwrite(buffer.data(), 1, buffer.size(), out);
  return std::fclose(out) == 0 ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "read" && argc == 5) return Read(argv[2], argv[3], argv[4]);
  if (command == "hwid" && argc == 2) {
    std::string id = "left over";
    const int code = qel_util::MmcPrivateData().GetHardwareID(id);
    std::printf("%d [%s]\n", code, id.c_str());
    return 0;
  }
  if (command == "deviceid" && argc == 2) {
    int error = -1;
    const std::string id = qel_util::system::GetDeviceID(error);
    std::printf("%d [%s]\n", error, id.c_str());
    return 0;
  }
  std::fprintf(stderr, "usage: %s read ADDRESS COUNT FILE | hwid | deviceid\n",
               argv[0]);
  return 2;
}
