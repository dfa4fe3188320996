// qel-crashdump on the dumps of a service that faulted for real (a write
// through a null pointer three calls below Process): this build's (amd64)
// and the armhf build's under qemu-user, read against a copy of the board's
// files; with and without debug information; and after the program was
// rebuilt.

#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/sandbox.h"
#include "support/target.h"

namespace qel_test {
namespace {

#ifndef QEL_CRASHDUMP
TEST(CrashDump, NeedsTheTool) {
  GTEST_SKIP() << "needs qel-crashdump, built where elfutils' libdw is found "
                  "(Debian package libdw-dev; scripts/install-deps.sh installs it)";
}
#else
// The line of the faulting service's source that holds `text`.
int SourceLine(const std::string& text) {
  std::ifstream source(QEL_FAULTING_SOURCE);
  int number = 1;
  for (std::string line; std::getline(source, line); ++number)
    if (line.find(text) != std::string::npos) return number;
  return 0;
}

// `text` holds each of `parts` in this order.
testing::AssertionResult InOrder(const std::string& text, const std::vector<std::string>& parts) {
  size_t at = 0;
  for (const std::string& part : parts) {
    at = text.find(part, at);
    if (at == std::string::npos) return testing::AssertionFailure() << "no \"" << part << "\" (in order) in:\n" << text;
    at += part.size();
  }
  return testing::AssertionSuccess();
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

class CrashDump : public testing::Test {
 protected:
  void SetUp() override {
    QEL_REQUIRE_NO_EMULATOR("qel-crashdump is a tool of the build machine");
#ifdef __clang__
    // The programs under test are built by the same compiler.
    GTEST_SKIP() << "elfutils 0.188 reads clang's DWARF 5 only in part: the "
                    "service's own functions go unnamed";
#endif
    QEL_REQUIRE_SANDBOX();
    char dir[] = "/tmp/qel-crashdump-test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
  }
  void TearDown() override {
    if (!m_dir.empty()) Shell("rm -rf " + m_dir);
  }

  // Runs `command`, a faulting service named `name`, where its dump folder
  // exists; its dump, saved as `m_dir`/dump.txt.
  std::string FaultAndDump(const std::string& command, const std::string& name) {
    const std::string saved = m_dir + "/dump.txt";
    RunInSandbox([&] {
      ASSERT_EQ(MakeDirs("/home/root/log"), "");
      EXPECT_EQ(Shell(command + " >/dev/null 2>&1"), 1) << command;
      ASSERT_EQ(WriteFile(saved, ReadFile("/home/root/log/" + name + "_dump.txt")), "");
    });
    return ReadFile(saved);
  }

  // qel-crashdump's output for `arguments`, run in `m_dir`, with its exit
  // status expected.
  std::string Crashdump(const std::string& arguments, int status = 0) {
    std::string out;
    EXPECT_EQ(Shell("cd " + m_dir + " && " QEL_CRASHDUMP " " + arguments + " 2>&1", &out), status)
        << out;
    return out;
  }

  // The frames of the service's own code and of the library's main loop,
  // told in order, for the program `program`.
  static std::vector<std::string> OwnFrames(const std::string& program) {
    const std::string at = std::string(" at ") + QEL_FAULTING_SOURCE + ":";
    const std::string in = " (" + program + ")";
    return {"  qel_util::DaemonImpl::DumpCallStack(int) at ",
            "(anonymous namespace)::FaultInnermost(int)" + at +
                std::to_string(SourceLine("*g_nowhere = value;")) + in,
            "(anonymous namespace)::FaultMiddle(int)" + at +
                std::to_string(SourceLine("FaultInnermost(value + 1);")) + in,
            "(anonymous namespace)::FaultOutermost(int)" + at +
                std::to_string(SourceLine("FaultMiddle(value + 1);")) + in,
            "(anonymous namespace)::FaultingService::Process()" + at +
                std::to_string(SourceLine("FaultOutermost(m_result);")) + in,
            "qel_util::Daemon::Run() at ",
            "main" + at + std::to_string(SourceLine("service.Run();")) + in};
  }

  std::string m_dir;
};

// The dump file, and the same record as syslog carried it: every frame of
// the service's own code with its source line, none dropped, and the
// library's sources named where the debug information places them.
TEST_F(CrashDump, TellsEveryFrameOfANativeFault) {
  ASSERT_EQ(Shell("cp " QEL_FAULTING_SERVICE " " + m_dir + "/svc"), 0);
  const std::string dump = FaultAndDump(m_dir + "/svc", "svc");
  const size_t frames = Count(dump, ")[0x");
  ASSERT_GE(frames, 8u) << dump;
  const std::string out = Crashdump(m_dir + "/dump.txt");
  EXPECT_TRUE(InOrder(out, OwnFrames("svc")));
  EXPECT_EQ(Count(out, "\n#"), frames) << out;
  EXPECT_EQ(out.find("././"), std::string::npos) << out;

  // syslog gets the frames as backtrace_symbols words them: a blank before
  // the address.
  std::string syslog;
  for (size_t at = 0, end; (end = dump.find('\n', at)) != std::string::npos; at = end + 1) {
    std::string line = dump.substr(at, end - at);
    if (line == "------") continue;
    const size_t address = line.rfind(")[0x");
    if (address != std::string::npos) line.insert(address + 1, " ");
    syslog += "<26>Nov 25 01:06:38 svc[812]: " + line + "\n";
  }
  ASSERT_EQ(WriteFile(m_dir + "/syslog", "<30>Nov 25 01:06:37 other[3]: started\n" + syslog), "");
  EXPECT_TRUE(InOrder(Crashdump(m_dir + "/syslog"), OwnFrames("svc")));
  EXPECT_NE(Crashdump(m_dir + "/dump.txt --bad", 2).find("usage:"), std::string::npos);
  EXPECT_NE(Crashdump(m_dir + "/svc", 1).find("holds no crash dump frames"), std::string::npos);
}

// Stripped of its debug information (build-id kept), the program's frames
// stand as they are with the reason; the debug file is found by build-id in
// --debug-dir, and in /usr/lib/debug under --sysroot.
TEST_F(CrashDump, FindsDebugInformationByBuildId) {
  const std::string svc = m_dir + "/svc";
  ASSERT_EQ(Shell("cp " QEL_FAULTING_SERVICE " " + svc + " && objcopy --only-keep-debug " + svc +
                  " " + m_dir + "/svc.debug && strip -g " + svc),
            0);
  std::string id;
  ASSERT_EQ(Shell("readelf -n " + svc + " | sed -n 's/.*Build ID: //p'", &id), 0);
  id = id.substr(0, id.find('\n'));
  ASSERT_GT(id.size(), 2u);
  const std::string debugFile = "/.build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug";
  FaultAndDump(svc, "svc");

  const std::string bare = Crashdump(m_dir + "/dump.txt");
  EXPECT_TRUE(InOrder(bare, {"  qel_util::DaemonImpl::DumpCallStack(int) at ",
                             svc + "(+0x", "] -- no debug information for build-id " + id,
                             "  qel_util::Daemon::Run() at "}));
  EXPECT_EQ(bare.find("FaultInnermost"), std::string::npos) << bare;

  ASSERT_EQ(Shell("mkdir -p $(dirname " + m_dir + "/debug" + debugFile + ") && cp " + m_dir +
                  "/svc.debug " + m_dir + "/debug" + debugFile),
            0);
  // Relative folders too, as given on a command line.
  EXPECT_TRUE(InOrder(Crashdump("--debug-dir debug dump.txt"), OwnFrames("svc")));

  // The board's files, as unpacked packages give them: the program at its
  // path and its -dbgsym package's file in /usr/lib/debug.
  const std::string root = m_dir + "/root";
  ASSERT_EQ(Shell("mkdir -p " + root + m_dir + " $(dirname " + root + "/usr/lib/debug" +
                  debugFile + ") && cp -p " + svc + " " + root + svc + " && cp " + m_dir +
                  "/svc.debug " + root + "/usr/lib/debug" + debugFile),
            0);
  EXPECT_TRUE(InOrder(Crashdump("--sysroot " + root + " " + m_dir + "/dump.txt"),
                      {"(anonymous namespace)::FaultInnermost(int) at ", " (svc)"}));
  // A frame whose binary is not in the root is kept, with the reason.
  EXPECT_TRUE(InOrder(Crashdump("--sysroot " + root + " " + m_dir + "/dump.txt"),
                      {"libqel_util.so.1(_ZN8qel_util10DaemonImpl13DumpCallStackEi+0x",
                       "No such file or directory", "FaultInnermost"}));
}

// The program was rebuilt since the dump: its frames are never put on the
// new program's lines, whether its file is newer than the dump or (copied
// with its time kept) older.
TEST_F(CrashDump, NeverTellsFramesOfARebuiltProgram) {
  const std::string svc = m_dir + "/svc";
  ASSERT_EQ(Shell("cp " QEL_FAULTING_SERVICE " " + svc), 0);
  const std::string dump = FaultAndDump(svc, "svc");
  const size_t own = Count(dump, svc + "(+0x");
  ASSERT_GE(own, 5u) << dump;
  ASSERT_EQ(Shell("cp " QEL_FAULTING_SERVICE_REBUILT " " + svc), 0);
  std::string out = Crashdump(m_dir + "/dump.txt");
  EXPECT_EQ(Count(out, "-- it was changed after the dump was written"), own) << out;
  EXPECT_TRUE(InOrder(out, {"  qel_util::DaemonImpl::DumpCallStack(int) at ",
                            "qel_util::Daemon::Run() at "}));

  ASSERT_EQ(Shell("touch -d '2001-01-01' " + svc), 0);
  out = Crashdump(m_dir + "/dump.txt");
  EXPECT_EQ(Count(out, ": not the binary that crashed"), own) << out;
  EXPECT_EQ(Count(out, "(svc)"), 0u) << out;
}

// The board's dump, taken under qemu-user, read on this machine against a
// copy of the board's files; stripped, its program's frames stand as they
// are until its debug information is at hand.
TEST_F(CrashDump, TellsAnArmhfDumpAgainstTheBoardsFiles) {
  const std::string armhf = QEL_ARMHF_BUILD "/tests/crashdump_faulting_service";
  if (access(armhf.c_str(), X_OK) != 0 || Shell("command -v qemu-arm >/dev/null") != 0)
    GTEST_SKIP() << "needs qemu-arm and the armhf build (bash scripts/armhf.sh)";
  const std::string svc = m_dir + "/svc";
  ASSERT_EQ(Shell("cp " + armhf + " " + svc), 0);
  const std::string dump = FaultAndDump(QEL_QEMU_ARM_RUN " " + svc, "svc");
  ASSERT_TRUE(InOrder(dump, {"libqel_util.so.1(_ZN8qel_util10DaemonImpl13DumpCallStackEi+0x",
                             svc + "(+0x", "libqel_util.so.1(_ZN8qel_util6Daemon3RunEv+0x"}));

  // The root holds every file the dump names, at its path.
  const std::string root = m_dir + "/root";
  ASSERT_EQ(Shell("set -e; for f in $(sed -n 's/^\\(\\/[^(]*\\)(.*/\\1/p' " + m_dir +
                  "/dump.txt | sort -u); do mkdir -p " + root +
                  "$(dirname $f); cp -pL $f " + root + "$f; done"),
            0);
  EXPECT_TRUE(InOrder(Crashdump("--sysroot " + root + " " + m_dir + "/dump.txt"),
                      OwnFrames("svc")));

  ASSERT_EQ(Shell("arm-linux-gnueabihf-strip -g " + root + svc + " && touch -r " + svc + " " +
                  root + svc),
            0);
  const std::string stripped = Crashdump("--sysroot " + root + " " + m_dir + "/dump.txt");
  EXPECT_TRUE(InOrder(stripped, {"  qel_util::DaemonImpl::DumpCallStack(int) at ",
                                 svc + "(+0x", "] -- no debug information for build-id ",
                                 "qel_util::Daemon::Run() at "}));
  EXPECT_EQ(stripped.find("FaultInnermost"), std::string::npos) << stripped;
}
#endif

}  // namespace
}  // namespace qel_test
