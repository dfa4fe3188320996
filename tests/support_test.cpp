// The test harness itself: namespaces, fixtures and syslog capture must work
// before any module test can rely on them.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "support/sandbox.h"
#include "support/syslog_capture.h"

namespace qel_test {
namespace {

TEST(Sandbox, ReplacesFixedPathsWithoutTouchingTheHost) {
  QEL_REQUIRE_SANDBOX();
  const std::string hostCmdline = ReadFile("/proc/cmdline");
  RunInSandbox([] {
    ASSERT_TRUE(MountFile("/proc/cmdline", "barcode=ASN=X\n"));
    EXPECT_EQ(ReadFile("/proc/cmdline"), "barcode=ASN=X\n");
    ASSERT_TRUE(MountFile("/sys/block/mmcblk0boot0/force_ro", "1\n"));
    EXPECT_EQ(ReadFile("/sys/block/mmcblk0boot0/force_ro"), "1\n");
    ASSERT_TRUE(MountScript("/usr/bin/qel-fixture-tool", "echo fixture\n"));
    std::string out;
    EXPECT_EQ(Shell("/usr/bin/qel-fixture-tool", &out), 0);
    EXPECT_EQ(out, "fixture\n");
    EXPECT_TRUE(MakeDirs("/home/root/log"));
    EXPECT_TRUE(WriteFile("/var/run/x.pid", "1\n"));
  });
  EXPECT_EQ(ReadFile("/proc/cmdline"), hostCmdline);
  struct stat st;
  EXPECT_NE(stat("/usr/bin/qel-fixture-tool", &st), 0);
  EXPECT_NE(stat("/var/run/x.pid", &st), 0);
}

TEST(Sandbox, PidAndNetworkNamespaces) {
  QEL_REQUIRE_SANDBOX();
  SandboxOptions options;
  options.pid = true;
  options.network = true;
  RunInSandbox([] {
    EXPECT_EQ(getpid(), 1);
    std::string out;
    EXPECT_EQ(Shell("ip -o link show | wc -l", &out), 0);
    EXPECT_EQ(out, "1\n");  // only lo
  }, options);
}

TEST(SyslogCapture, SeesPriorityIdentAndText) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture capture;
    openlog("probe", LOG_PID, LOG_DAEMON);
    syslog(LOG_CRIT, "%s", "50% done");
    closelog();
    auto lines = capture.Take(1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_DAEMON | LOG_CRIT);
    EXPECT_EQ(lines[0].ident, "probe");
    EXPECT_EQ(lines[0].pid, getpid());
    EXPECT_EQ(lines[0].message, "50% done");
  });
}

TEST(Sandbox, ReportsAFailingBody) {
  QEL_REQUIRE_SANDBOX();
  EXPECT_NONFATAL_FAILURE(RunInSandbox([] { exit(3); }), "failed");
}

}  // namespace
}  // namespace qel_test
