// qel-devsim: each option gives the library the answer it promises, as the
// build's qel-devinfo, qel-neighbour and probe see it under the simulator.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "devsim/device_files.h"
#include "support/host_tool.h"
#include "support/sandbox.h"
#include "support/target.h"

namespace qel_test {
namespace {

#ifdef QEL_DEVSIM
// Runs "qel-devsim OPTIONS -- COMMAND" from a shell where $DEVINFO,
// $NEIGHBOUR and $PROBE name the tools; gives standard output and error.
int Simulate(const std::string& options, const std::string& command,
             std::string* output) {
  return Shell("export DEVINFO=" QEL_DEVINFO " NEIGHBOUR=" QEL_NEIGHBOUR
               " PROBE=" QEL_PROBE "; " QEL_DEVSIM " " + options + " -- " +
                   command + " 2>&1",
               output);
}

class Devsim : public testing::Test {
 protected:
  void SetUp() override {
    QEL_REQUIRE_NO_EMULATOR("the simulator is a tool of the build machine");
    QEL_REQUIRE_SANDBOX();
    QEL_REQUIRE_HOST_PROGRAM("ip", "iproute2");
    QEL_REQUIRE_HOST_PROGRAM("/usr/bin/fw_setenv", "libubootenv-tool");
    QEL_REQUIRE_HOST_PROGRAM("i2ctransfer", "i2c-tools");
    char dir[] = "/tmp/qel-devsim-test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
  }
  void TearDown() override {
    if (!m_dir.empty()) Shell("rm -rf " + m_dir);
  }
  std::string m_dir;
};

struct Row {
  const char* options;
  const char* command;
  int status;
  std::vector<const char*> shown;  // each in the output
};

TEST_F(Devsim, EachOptionGivesTheLibraryItsAnswer) {
  const std::string hostCmdline = ReadFile("/proc/cmdline");
  const char kScript[] = "/usr/bin/ubi_get_volume_versions.sh";
  const int hostScript = access(kScript, F_OK);
  const Row rows[] = {
      {"", "$DEVINFO", 0,
       {"device ID:        QEL-DEVSIM-0001 (error 0)", "NOHWID flag:      no",
        "serial number:    DE51A0000001", "ASN:              QEL0000001 (key 1)",
        "firmware version: qel-devsim 1.0"}},
      {"--hwid A1B2C3 --barcode 'ASN=A123456789,BREV=R02' --serial 12ab",
       "$DEVINFO --json", 0,
       {"\"deviceId\": \"A1B2C3\"", "\"barcode\": \"ASN=A123456789,BREV=R02\"",
        "\"asn\": \"A123456789\"", "\"serialNumber\": \"0000000012AB\""}},
      {"--nohwid --barcode ''", "$DEVINFO --json", 0,
       {"\"noHwid\": true", "\"barcode\": \"\""}},
      {"--cmdline 'quiet barcode=Q123456789,R7'", "cat /proc/cmdline", 0,
       {"quiet barcode=Q123456789,R7\n"}},
      {"--cid 0123456789abcdef0123456789abcdef --fw-version 'v2 (b9)'",
       "$DEVINFO", 0, {"serial number:    456789ABCDEF", "version: v2 (b9)\n"}},
      {"--rpmb-result 7", "$DEVINFO", 1,
       {"device ID:         (error 1)",
        "syslog| warning qel-devinfo: HWID: not initialized\n"}},
      {"--i2c 3,7", "sh -c 'i2ctransfer -y 7 w1@0x50 0x10 r4; ls /dev/i2c-*'", 0,
       {"0x4a 0x4b 0x48 0x49\n/dev/i2c-3\n/dev/i2c-7\n"}},
      {"--network", "$NEIGHBOUR 192.168.10.2 192.168.10.3 192.168.10.4", 0,
       {"192.168.10.2 2\n192.168.10.3 1\n192.168.10.4 0\n"}},
      {"--neighbour 10.0.0.5=role --neighbour 10.0.0.6=other",
       "$NEIGHBOUR 10.0.0.5 10.0.0.6 192.168.10.2", 0,
       {"10.0.0.5 2\n10.0.0.6 1\n192.168.10.2 0\n"}},
      {"", "sh -c 'exit 3'", 3, {}},
      {"", "sh -c 'kill -9 $$'", 137, {}},
      {"--bogus", "true", 125, {"unknown option"}},
      {"", "/no/such/program", 127, {"not found"}},
      {"--neighbour 10.0.0=role", "true", 125, {"not an IPv4 address"}},
  };
  for (const Row& row : rows) {
    std::string out;
    EXPECT_EQ(Simulate(row.options, row.command, &out), row.status)
        << row.options << " -- " << row.command << "\n" << out;
    for (const char* text : row.shown)
      EXPECT_NE(out.find(text), std::string::npos) << row.options << "\n" << out;
  }
  EXPECT_EQ(ReadFile("/proc/cmdline"), hostCmdline);
  EXPECT_EQ(access(kScript, F_OK), hostScript);
  // A partition image of the user's; the run lasts as long as a process
  // left behind (a daemon).
  std::string out;
  ASSERT_EQ(WriteFile(m_dir + "/rpmb.img", qel_devsim::HardwareIdRecord("HWID=IMG1")), "");
  EXPECT_EQ(Simulate("--rpmb-image " + m_dir + "/rpmb.img",
                     "sh -c '(sleep 0.3; echo late) & $DEVINFO | head -1'", &out), 0);
  EXPECT_EQ(out, "device ID:        IMG1 (error 0)\nlate\n");
  // SIGTERM to the simulator alone ends every process inside.
  EXPECT_EQ(Shell(QEL_DEVSIM " -- sh -c 'sleep 60 & sleep 60' & sleep 0.5;"
                  " kill $!; wait $!"), 128 + SIGTERM);
}

// The environment outlives a run: the barcode stored in one is on the
// kernel command line of the next. Syslog goes to a file, its folder made
// as needed; /var/run and /home/root/log stay in the kept directory and
// nowhere else.
TEST_F(Devsim, KeepsEnvironmentSyslogAndRunFiles) {
  const std::string env = m_dir + "/uboot.env", log = m_dir + "/new/syslog";
  const std::string keep = "--env " + env + " --keep " + m_dir + "/kept";
  std::string out;
  ASSERT_EQ(Simulate(keep + " --barcode ASN=A123456789,BREV=R02",
                     "$PROBE setasn B987654321", &out), 0) << out;
  EXPECT_EQ(out, "1\n");
  EXPECT_EQ(Simulate(keep + " --syslog " + log + " --rpmb-result 1",
                     "sh -c 'echo 9 > /var/run/s.pid; echo d >"
                     " /home/root/log/s_dump.txt; $DEVINFO --json'", &out), 1);
  EXPECT_NE(out.find("\"barcode\": \"ASN=B987654321,BREV=R02\""),
            std::string::npos) << out;
  EXPECT_EQ(out.find("syslog|"), std::string::npos) << out;
  EXPECT_NE(ReadFile(log).find("qel-devinfo: HWID: invalid ID, err 2\n"),
            std::string::npos) << ReadFile(log);
  EXPECT_EQ(ReadFile(m_dir + "/kept/run/s.pid"), "9\n");
  EXPECT_EQ(ReadFile(m_dir + "/kept/log/s_dump.txt"), "d\n");
  EXPECT_NE(access("/var/run/s.pid", F_OK), 0);
}

// The very binary for the board, under qemu-user with the armhf emulators.
TEST_F(Devsim, RunsAnArmhfBuildWithTheSameDevice) {
  const std::string devinfo = QEL_ARMHF_BUILD "/tools/qel-devinfo";
  if (access(devinfo.c_str(), X_OK) != 0 || Shell("command -v qemu-arm") != 0)
    GTEST_SKIP() << "needs qemu-arm and the armhf build (bash scripts/armhf.sh)";
  // Found beside this build, and where --armhf-libs says.
  for (const std::string libs : {"", " --armhf-libs " QEL_ARMHF_BUILD "/tools/devsim"}) {
    std::string out;
    EXPECT_EQ(Simulate("--hwid A1B2C3 --barcode ASN=A123456789 --i2c 1" + libs,
                       devinfo + " --json", &out), 0) << out;
    for (const char* text : {"\"deviceId\": \"A1B2C3\"", "\"asn\": \"A123456789\"",
                             "\"serialNumber\": \"DE51A0000001\""})
      EXPECT_NE(out.find(text), std::string::npos) << libs << "\n" << out;
  }
}
#endif

}  // namespace
}  // namespace qel_test
