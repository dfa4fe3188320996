// The neighbour check against the kernel's own ARP table and the real bridge
// tool, in a private network namespace.

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "qel_util/net.h"
#include "support/host_tool.h"
#include "support/sandbox.h"

namespace qel_util {
namespace {

using qel_test::ReadFile;
using qel_test::Shell;

// Bridge br0 reaches 02:00:00:00:00:11 through ap0 and ...:12 through eth1;
// ...:13 is not in its forwarding database.
const char kNetwork[] = R"(exec 2>&1; set -e
ip link add br0 type bridge
for dev in ap0 client1 mesh0 eth1 eth0 br-lan apx meshX client2; do
  ip link add "$dev" type veth peer name "p-$dev"
  ip link set "p-$dev" up; ip link set "$dev" up
done
ip link set ap0 master br0; ip link set eth1 master br0; ip link set br0 up
n() { ip neigh add "$1" lladdr "02:00:00:00:00:$2" dev "$3" nud permanent; }
n 10.0.0.1 01 eth0; n 10.0.1.1 02 ap0; n 10.0.2.1 03 client1; n 10.0.3.1 04 mesh0
n 10.0.4.1 05 apx; n 10.0.5.1 06 meshX; n 10.0.6.1 07 br-lan; n 0.0.0.9 09 client2
n 10.1.0.1 11 br0; n 10.1.0.2 12 br0; n 10.1.0.3 13 br0
ip neigh add 10.0.7.2 dev client2 nud incomplete
bridge fdb add 02:00:00:00:00:11 dev ap0 master static
bridge fdb add 02:00:00:00:00:12 dev eth1 master static
)";

void WithNetwork(void (*body)()) {
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_HOST_PROGRAM("ip", "iproute2");
  QEL_REQUIRE_HOST_PROGRAM("bridge", "iproute2");
  qel_test::RunInSandbox([body] {
    std::string output;
    ASSERT_EQ(Shell(kNetwork, &output), 0) << output;
    body();
  }, {true});
}

TEST(CheckIPv4Address, ClassesTheDeviceOfTheFirstMatchingEntry) {
  WithNetwork([] {
    ASSERT_NE(
        ReadFile("/proc/net/arp").find("10.0.7.2         0x1         0x0"),
        std::string::npos);  // incomplete
    EXPECT_EQ(CheckIPv4Address(nullptr), 0);
    // clang-format off
    const std::pair<const char*, int> cases[] = {
        {"", 0}, {"10.9.9.9", 0},
        {"10.0.0.1", 1}, {"10.0.1.1", 2},  // eth0, ap0
        {"10.0.2.1", 2}, {"10.0.3.1", 2},  // client1, mesh0
        {"10.0.4.1", 1}, {"10.0.5.1", 1},  // apx, meshX
        {"10.0.6.1", 1},                   // br-lan: no digit after "br"
        {"10.1.0.1", 2}, {"10.1.0.2", 1},  // br0, through ap0 and eth1
        {"10.1.0.3", 0},                   // br0, no port
        {"10.0.7.2", 2},                   // client2, incomplete
        {"10.0.0.10", 0},                  // 10.0.0.1 runs on in a digit
        {"10.0.0.1:8080", 1}, {"10.1.0.1:53", 2},
        {"10.0.0.9", 2},  // its tail is 0.0.0.9, on client2
    };  // clang-format on
    for (const auto& c : cases)
      EXPECT_EQ(CheckIPv4Address(c.first), c.second) << c.first;
  });
}

TEST(CheckIPv4Address, MissingBridgeToolGivesNoAnswerBehindABridge) {
  WithNetwork([] {
    char tool[PATH_MAX];
    ASSERT_NE(realpath("/sbin/bridge", tool), nullptr);
    ASSERT_EQ(qel_test::MountTmpfs(std::string(tool, strrchr(tool, '/'))), "");
    EXPECT_EQ(CheckIPv4Address("10.1.0.1"), 0);
    EXPECT_EQ(CheckIPv4Address("10.0.0.1"), 1);
  });
}

// The kernel takes ";" and ">" in an interface name; a shell would run "br0"
// and then create the file "pwned".
TEST(CheckIPv4Address, ABridgeNameRunsNothingUnlessPlain) {
  WithNetwork([] {
    ASSERT_EQ(Shell("ip link add 'br0;>pwned' type bridge && ip neigh add "
                    "10.4.0.1 lladdr 02:00:00:00:04:01 dev 'br0;>pwned'"),
              0);
    ASSERT_EQ(qel_test::MountScript("/sbin/bridge",
                                      "echo \"$*\" >> /mnt/bridge-runs\n"), "");
    ASSERT_EQ(chdir("/mnt"), 0);
    EXPECT_EQ(CheckIPv4Address("10.4.0.1"), 0);
    EXPECT_EQ(CheckIPv4Address("10.1.0.1"), 0);  // a plain name runs the tool
    EXPECT_EQ(ReadFile("/mnt/bridge-runs"), "fdb show br br0\n");
    EXPECT_NE(access("/mnt/pwned", F_OK), 0);
  });
}

}  // namespace
}  // namespace qel_util
