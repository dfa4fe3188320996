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
// $NEIGHBOUR and $PROBE name the tools and $DIR the test's folder; gives
// standard output and error.
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
    setenv("DIR", dir, 1);
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

template <size_t N>
void ExpectRows(const Row (&rows)[N]) {
  for (const Row& row : rows) {
    std::string out;
    EXPECT_EQ(Simulate(row.options, row.command, &out), row.status)
        << row.options << " -- " << row.command << "\n" << out;
    for (const char* text : row.shown)
      EXPECT_NE(out.find(text), std::string::npos) << row.options << "\n" << out;
  }
}

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
      // Every private file system has a bound.
      {"", "sh -c 'for d in /dev /dev/shm /var/run /home/root/log; do"
           " echo $d $(($(stat -f -c %b*%S $d) >> 20))M; done'", 0,
       {"/dev 64M\n/dev/shm 64M\n/var/run 16M\n/home/root/log 64M\n"}},
      {"--hwid $(printf %0246d 7)", "$DEVINFO", 0, {"0000007 (error 0)"}},
  };
  ExpectRows(rows);
  EXPECT_EQ(ReadFile("/proc/cmdline"), hostCmdline);
  EXPECT_EQ(access(kScript, F_OK), hostScript);
  // A partition image of the user's; the run lasts as long as a process
  // left behind (a daemon), which here starts once the program is done.
  std::string out;
  ASSERT_EQ(WriteFile(m_dir + "/rpmb.img", qel_devsim::HardwareIdRecord("HWID=IMG1")), "");
  EXPECT_EQ(Simulate("--rpmb-image " + m_dir + "/rpmb.img",
                     "sh -c '$DEVINFO | head -1; (sleep 0.3; echo late) &'", &out), 0);
  EXPECT_EQ(out, "device ID:        IMG1 (error 0)\nlate\n");
  // SIGTERM to the simulator alone ends every process inside.
  EXPECT_EQ(Shell(QEL_DEVSIM " -- sh -c 'sleep 60 & sleep 60' & sleep 0.5;"
                  " kill $!; wait $!"), 128 + SIGTERM);
}

// What the user names must be what it seems: refused with a clear word
// before anything is made, a host file or device never written nor changed.
TEST_F(Devsim, RefusesMisleadingInputsAndLeavesNothingBehind) {
  ASSERT_EQ(Shell("cd $DIR && mkfifo fifo && mkdir d k1 k2 k3 elsewhere &&"
                  " ln -s ../elsewhere k1/run && mkdir k2/log && chmod g+w k2/log &&"
                  " : > other.env && chmod 0600 other.env &&"
                  " { test $(id -u) != 0 || chown 65534 other.env; }"), 0);
  const std::string nodes =
      "stat -c '%n %a %s' /dev/null /dev/zero; stat -c '%a %u' $DIR/other.env";
  std::string before, after;
  ASSERT_EQ(Shell(nodes, &before), 0);
  const Row rows[] = {
      {"--env /dev/null", "true", 125, {"/dev/null: not a regular file"}},
      {"--env /dev/zero", "true", 125, {"/dev/zero: not a regular file"}},
      {"--env $DIR/d", "true", 125, {"/d: not a regular file"}},
      {"--env '$DIR/a b'", "true", 125, {"a path with white space"}},
      {"--rpmb-image $DIR/fifo", "true", 125, {"/fifo: not a regular file"}},
      {"--rpmb-image $DIR/d", "true", 125, {"/d: not a regular file"}},
      {"--rpmb-image /dev/zero", "true", 125, {"/dev/zero: not a regular file"}},
      {"--hwid $(printf %0247d 7)", "true", 125, {"--hwid wants at most 246 bytes"}},
      {"--i2c 07", "true", 125, {"--i2c wants bus numbers"}},
      {"--i2c 1,", "true", 125, {"--i2c wants bus numbers"}},
      {"--i2c ,1", "true", 125, {"--i2c wants bus numbers"}},
      {"--i2c 1000000000", "true", 125, {"--i2c wants bus numbers"}},
      {"--keep $DIR/k1", "sh -c 'echo 1 > /var/run/x.pid'", 125,
       {"k1/run: not a folder"}},
      {"--keep $DIR/k2", "true", 125, {"k2/log: not owned by this user alone"}},
      {"--keep $DIR/k3/new --syslog $DIR/new/log --env $DIR/d", "true", 125,
       {"/d: not a regular file"}},
      // The user's own environment file keeps its owner and mode.
      {"--env $DIR/other.env", "$PROBE setasn B987654321", 0, {"1\n"}},
  };
  ExpectRows(rows);
  ASSERT_EQ(Shell(nodes, &after), 0);
  EXPECT_EQ(after, before);
  EXPECT_EQ(Shell("cd $DIR && ls elsewhere k3 && ! test -e new", &after), 0);
  EXPECT_EQ(after, "elsewhere:\n\nk3:\n");
}

// Stopping: a stop signal that comes while the device is being set up is
// never lost; a second one ends a program that ignores SIGTERM; killing the
// tool outright leaves no process of the run behind.
TEST_F(Devsim, StopsWhateverTheMomentOrTheProgram) {
  // Waits (bounded) for $DIR/ready, or for the run to end by itself.
  const std::string start = QEL_DEVSIM " -- sh -c '";
  const std::string ready =
      "' & pid=$!; for i in $(seq 1200); do test -e $DIR/ready && break;"
      " kill -0 $pid || break; sleep 0.05; done; ";
  const std::string reap =
      "; for i in $(seq 1200); do kill -0 $pid 2>/dev/null || break; sleep 0.05;"
      " done; kill -9 $pid 2>/dev/null; wait $pid";
  for (const char* delay : {"0", "0.001", "0.01", "0.03", "0.1", "0.2", "0.3"}) {
    EXPECT_EQ(Shell(start + "sleep 60' & pid=$!; sleep " + delay + "; kill $pid" + reap),
              128 + SIGTERM) << delay;
  }
  EXPECT_EQ(Shell(start + "trap \"\" TERM INT HUP; touch $DIR/ready; while :; do sleep 1; done" +
                  ready + "kill -TERM $pid; kill -INT $pid" + reap),
            128 + SIGKILL);
  // The program, its daemon and the tool's own helpers all end.
  unlink((m_dir + "/ready").c_str());
  const std::string token = "orphan-check-" + m_dir.substr(m_dir.rfind('.') + 1);
  EXPECT_EQ(Shell(QEL_DEVSIM " --fw-version " + token + " -- sh -c '"
                  "sleep 3600 & touch $DIR/ready; exec sleep 3601' " + token +
                  ready.substr(1) + "kill -9 $pid" + reap), 128 + SIGKILL);
  // Bracketed, the patterns do not find the shell that runs pgrep.
  const std::string left = "pgrep -f '[" + token.substr(0, 1) + "]" + token.substr(1) +
                           "|sleep 360[01]'";
  EXPECT_TRUE(Eventually([&] { return Shell(left + " >/dev/null") == 1; }))
      << Shell("ps -o pid,args -p \"$(" + left + ")\"");
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
