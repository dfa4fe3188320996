// The harness itself: module tests rely on private fixed paths and on the
// syslog capture, so both are checked first.

#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/sandbox.h"
#include "support/syslog_capture.h"

namespace qel_test {
namespace {

TEST(Sandbox, FixturesAndSyslogStayPrivate) {
  QEL_REQUIRE_SANDBOX();
  const std::string hostCmdline = ReadFile("/proc/cmdline");
  RunInSandbox([] {
    ASSERT_TRUE(MountFile("/proc/cmdline", "barcode=ASN=X\n"));
    EXPECT_EQ(ReadFile("/proc/cmdline"), "barcode=ASN=X\n");
    EXPECT_TRUE(WriteFile("/var/run/x.pid", "1\n"));
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
  EXPECT_EQ(ReadFile("/proc/cmdline"), hostCmdline);
  EXPECT_NE(access("/var/run/x.pid", F_OK), 0);
}

}  // namespace
}  // namespace qel_test
