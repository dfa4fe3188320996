// The neighbour check against the kernel's own ARP table and the real bridge
// tool, in a private network namespace: bridge br0 with the ports ap0,
// client1, mesh0 and eth1, and stand-alone devices eth0, br-lan, apx, meshX
// and client2.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "net/interface_name.h"
#include "qel_util/net.h"
#include "support/sandbox.h"

namespace qel_util {
namespace {

using qel_test::RunInSandbox;
using qel_test::SandboxOptions;
using qel_test::Shell;

// Permanent entries are complete (flags 0x6); "nud incomplete" ones show the
// flags 0x0 and the hardware address 00:00:00:00:00:00. Behind br0 the
// addresses 02:00:00:00:01:0<n> are in the forwarding database through ap0,
// client1, mesh0 and eth1 for n = 1 to 4; n = 5 is not in it.
const char kNetwork[] = R"(set -e
veth() { ip link add "$1" type veth peer name "$2"; ip link set "$2" up; ip link set "$1" up; }
neigh() { ip neigh add "$1" lladdr "$2" dev "$3" nud permanent; }
ip link add br0 type bridge
ip link set br0 up
for port in ap0 client1 mesh0 eth1; do
  veth "$port" "p-$port"
  ip link set "$port" master br0
done
for dev in eth0 br-lan apx meshX client2; do veth "$dev" "p-$dev"; done
ip addr add 10.1.0.254/24 dev br0
ip addr add 10.0.0.254/24 dev eth0
neigh 10.0.0.1 02:00:00:00:00:01 eth0
ip neigh add 10.0.0.2 dev eth0 nud incomplete
ip neigh add 10.2.0.2 dev client2 nud incomplete
neigh 10.2.0.1 02:00:00:00:00:21 ap0
neigh 10.2.0.3 02:00:00:00:00:23 client1
neigh 10.2.0.4 02:00:00:00:00:24 mesh0
neigh 10.3.0.1 02:00:00:00:00:31 br-lan
neigh 10.3.0.2 02:00:00:00:00:32 apx
neigh 10.3.0.3 02:00:00:00:00:33 meshX
for n in 1 2 3 4 5; do neigh 10.1.0.$n 02:00:00:00:01:0$n br0; done
bridge fdb add 02:00:00:00:01:01 dev ap0 master static
bridge fdb add 02:00:00:00:01:02 dev client1 master static
bridge fdb add 02:00:00:00:01:03 dev mesh0 master static
bridge fdb add 02:00:00:00:01:04 dev eth1 master static
)";

SandboxOptions Network() {
  SandboxOptions options;
  options.network = true;
  return options;
}

// Runs `body` in a fresh namespace holding the network above.
void WithNetwork(const std::function<void()>& body) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox(
      [&body] {
        std::string output;
        ASSERT_EQ(Shell(std::string(kNetwork) + "exec 2>&1", &output), 0)
            << output;
        body();
      },
      Network());
}

TEST(ClassifyInterface, RolePrefixFollowedByADigit) {
  EXPECT_EQ(ClassifyInterface(nullptr), 0);
  for (const char* role : {"ap0", "client1", "mesh0", "ap12", "mesh9x"})
    EXPECT_EQ(ClassifyInterface(role), 2) << role;
  for (const char* other : {"eth0", "apx", "meshX", "client", "ap", "", "br0",
                            "wlan0", "xap0", "Ap0", "clientap0"})
    EXPECT_EQ(ClassifyInterface(other), 1) << other;
}

TEST(IsPlainInterfaceName, OnlyWordsTheShellTakesLiterally) {
  for (const char* plain : {"br0", "br-lan", "br0.5", "a:b_c-D",
                            "br012345678901"
                            "2"})
    EXPECT_TRUE(IsPlainInterfaceName(plain)) << plain;
  for (const char* unsafe :
       {"br0;x", "br0$x", "br0`x`", "br0 x", "br0|x", "br0'x", "br0\"x",
        "br0\nx", "br0&", "br0>x", "br0(x)", "br0\\x", "br0*", "br0~"})
    EXPECT_FALSE(IsPlainInterfaceName(unsafe)) << unsafe;
  EXPECT_FALSE(IsPlainInterfaceName(nullptr));
  EXPECT_FALSE(IsPlainInterfaceName(""));
  EXPECT_FALSE(
      IsPlainInterfaceName("br0123456789012"
                           "3"))  // 16 characters: longer than any
      << "interface name";
}

TEST(CheckIPv4Address, NoAddressGivesNoAnswer) {
  WithNetwork([] {
    EXPECT_EQ(CheckIPv4Address(nullptr), 0);
    EXPECT_EQ(CheckIPv4Address(""), 0);
    EXPECT_EQ(CheckIPv4Address("10.9.9.9"), 0);  // no such entry
  });
}

TEST(CheckIPv4Address, ClassesTheDeviceThatHoldsTheEntry) {
  WithNetwork([] {
    EXPECT_EQ(CheckIPv4Address("10.0.0.1"), 1);  // eth0
    EXPECT_EQ(CheckIPv4Address("10.2.0.1"), 2);  // ap0
    EXPECT_EQ(CheckIPv4Address("10.2.0.3"), 2);  // client1
    EXPECT_EQ(CheckIPv4Address("10.2.0.4"), 2);  // mesh0
    EXPECT_EQ(CheckIPv4Address("10.3.0.1"), 1);  // br-lan: not a bridge name
    EXPECT_EQ(CheckIPv4Address("10.3.0.2"), 1);  // apx
    EXPECT_EQ(CheckIPv4Address("10.3.0.3"), 1);  // meshX
  });
}

TEST(CheckIPv4Address, BehindABridgeClassesThePortFromItsDatabase) {
  WithNetwork([] {
    EXPECT_EQ(CheckIPv4Address("10.1.0.1"), 2);  // via ap0
    EXPECT_EQ(CheckIPv4Address("10.1.0.2"), 2);  // via client1
    EXPECT_EQ(CheckIPv4Address("10.1.0.3"), 2);  // via mesh0
    EXPECT_EQ(CheckIPv4Address("10.1.0.4"), 1);  // via eth1
    EXPECT_EQ(CheckIPv4Address("10.1.0.5"), 0);  // not in the database
  });
}

TEST(CheckIPv4Address, IncompleteEntriesMatchLikeAnyOther) {
  WithNetwork([] {
    std::string table = qel_test::ReadFile("/proc/net/arp");
    ASSERT_NE(table.find("10.0.0.2         0x1         0x0         "
                         "00:00:00:00:00:00"),
              std::string::npos)
        << table;
    EXPECT_EQ(CheckIPv4Address("10.0.0.2"), 1);  // eth0
    EXPECT_EQ(CheckIPv4Address("10.2.0.2"), 2);  // client2
  });
}

TEST(CheckIPv4Address, TheAddressMayNotRunOnInADigit) {
  WithNetwork([] {
    EXPECT_EQ(CheckIPv4Address("10.0.0.10"), 0);
    EXPECT_EQ(CheckIPv4Address("10.0.0.1:8080"), 1);
    EXPECT_EQ(CheckIPv4Address("10.1.0.1:53"), 2);
    EXPECT_EQ(CheckIPv4Address("10.0.0.1x"), 1);
    // Nothing in front of the address is looked at.
    EXPECT_EQ(CheckIPv4Address("110.0.0.1"), 1);
    EXPECT_EQ(CheckIPv4Address("host 10.3.0.2"), 1);
  });
}

TEST(CheckIPv4Address, AnEntryMatchingTheTailOfTheAddressCounts) {
  WithNetwork([] {
    ASSERT_EQ(Shell("ip neigh add 0.0.0.1 lladdr 02:00:00:00:00:02 dev client2"
                    " nud permanent"),
              0);
    EXPECT_EQ(CheckIPv4Address("20.0.0.1"), 2);  // only 0.0.0.1 on client2
    // "10.0.0.1" holds both 10.0.0.1 (eth0) and 0.0.0.1 (client2): the line
    // that comes first in the table decides.
    std::string table = qel_test::ReadFile("/proc/net/arp");
    size_t eth0 = table.find("\n10.0.0.1 ");
    size_t client2 = table.find("\n0.0.0.1 ");
    ASSERT_NE(eth0, std::string::npos) << table;
    ASSERT_NE(client2, std::string::npos) << table;
    int first = eth0 < client2 ? 1 : 2;
    EXPECT_EQ(CheckIPv4Address("10.0.0.1"), first) << table;
    EXPECT_EQ(CheckIPv4Address("110.0.0.1"), first) << table;
  });
}

TEST(CheckIPv4Address, MissingBridgeToolGivesNoAnswer) {
  WithNetwork([] {
    char tool[PATH_MAX];
    ASSERT_NE(realpath("/sbin/bridge", tool), nullptr);
    std::string directory(tool, std::strrchr(tool, '/'));
    ASSERT_TRUE(qel_test::MountTmpfs(directory));
    struct stat st;
    ASSERT_NE(stat("/sbin/bridge", &st), 0);
    EXPECT_EQ(CheckIPv4Address("10.1.0.1"), 0);
    EXPECT_EQ(CheckIPv4Address("10.0.0.1"), 1);  // no bridge, no tool needed
  });
}

// The kernel takes ";" and ">" in an interface name; the shell would run
// "br0" and then create the file "pwned" in the working directory.
TEST(CheckIPv4Address, ABridgeNameNeverReachesTheShellUnlessPlain) {
  WithNetwork([] {
    ASSERT_EQ(Shell("ip link add 'br0;>pwned' type bridge &&"
                    " ip link set 'br0;>pwned' up &&"
                    " ip neigh add 10.4.0.1 lladdr 02:00:00:00:04:01"
                    " dev 'br0;>pwned' nud permanent"),
              0);
    ASSERT_TRUE(qel_test::MountScript(
        "/sbin/bridge", "echo \"$*\" >> /mnt/bridge-runs\nexit 0\n"));
    ASSERT_EQ(chdir("/mnt"), 0);
    EXPECT_EQ(CheckIPv4Address("10.4.0.1"), 0);
    struct stat st;
    EXPECT_NE(stat("/mnt/pwned", &st), 0) << "the shell ran the name";
    EXPECT_EQ(qel_test::ReadFile("/mnt/bridge-runs"), "");
    // The guard is what stops it: the same command line does inject.
    ASSERT_EQ(Shell("/sbin/bridge fdb show br br0;>pwned"), 0);
    EXPECT_EQ(stat("/mnt/pwned", &st), 0);
    // A plain bridge name still runs the tool.
    EXPECT_EQ(CheckIPv4Address("10.1.0.1"), 0);
    EXPECT_EQ(qel_test::ReadFile("/mnt/bridge-runs"),
              "fdb show br br0\nfdb show br br0\n");
  });
}

}  // namespace
}  // namespace qel_util
