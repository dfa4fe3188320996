// CheckIPv4Address on any ARP table and any forwarding database: the answer
// is 0, 1 or 2, and the only command ever run is "/sbin/bridge fdb show br"
// with a plain bridge name from the table, once at most.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_sandbox.h"
#include "net/interface_name.h"
#include "qel_util/net.h"

using qel_fuzz::Check;
using qel_fuzz::Require;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qel_fuzz::EnterSandbox();
  // The tool's folder holds only a recorder that prints the database.
  char tools[PATH_MAX];
  Check(realpath("/sbin", tools) != nullptr);
  Require(qel_devsim::MountTmpfs(tools));
  Require(qel_devsim::WriteFile(
      "/sbin/bridge", "#!/bin/sh\nprintf '%s\\n' \"$*\" >> /tmp/runs\ncat /tmp/fdb\n", 0755));
  // The kernel makes /proc/net/arp afresh for each process, so nothing can
  // be laid over it; a tmpfs /proc with the table and links to the real
  // one's self, sys and this process stands in.
  Require(qel_devsim::MakeDirs("/tmp/proc"));
  Require(qel_devsim::Bind("/proc", "/tmp/proc"));
  Require(qel_devsim::MountTmpfs("/proc"));
  Require(qel_devsim::MakeDirs("/proc/net"));
  // The leak checker reads this process's entries by its number.
  for (const std::string& link : {std::string("self"), std::string("thread-self"),
                                  std::string("sys"), std::to_string(getpid())})
    Check(symlink(("/tmp/proc/" + link).c_str(), ("/proc/" + link).c_str()) == 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string address = input.ConsumeRandomLengthString(24);
  const std::string table = input.ConsumeRandomLengthString(4096);
  Require(qel_devsim::WriteFile("/proc/net/arp", table));
  Require(qel_devsim::WriteFile("/tmp/fdb", input.ConsumeRemainingBytesAsString()));
  unlink("/tmp/runs");

  const int answer = qel_util::CheckIPv4Address(address.c_str());
  Check(answer >= 0 && answer <= 2);
  const std::string runs = qel_devsim::ReadFile("/tmp/runs");
  if (runs.empty()) return 0;
  const std::string prefix = "fdb show br ";
  Check(runs.compare(0, prefix.size(), prefix) == 0 && runs.back() == '\n');
  const std::string bridge = runs.substr(prefix.size(), runs.size() - prefix.size() - 1);
  Check(bridge.compare(0, 2, "br") == 0 && bridge.size() > 2 && std::isdigit(
            static_cast<unsigned char>(bridge[2])));
  Check(qel_util::IsPlainInterfaceName(bridge.c_str()));
  Check(table.find(bridge) != std::string::npos);
  return 0;
}
