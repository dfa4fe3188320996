// Tagged lines, debug lines and syslog messages, seen on a private /dev/log
// and on a captured standard error.

#include <syslog.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "qel_util/daemon.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"
#include "support/syslog_capture.h"

namespace qel_test {
namespace {

using qel_util::Daemon;

TEST(Logging, TaggedLineGoesToSyslogAndStderrUnchanged) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    StderrCapture err;
    Daemon::debug(false, "daemon.cpp", 75, "never %d", 1);
    Daemon::debug(true, "daemon.cpp", 75, "exit %i", 1234);
    Daemon::debug(true, "x.cpp", 9, "path %s", "/tmp/100%d%s");
    const std::string longText(600, 'y');
    Daemon::debug(true, "long.cpp", 1, "%s", longText.c_str());
    auto lines = syslog.Take(3);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_INFO);
    EXPECT_EQ(lines[0].message, "daemon.cpp 75: exit 1234");
    EXPECT_EQ(lines[1].message, "x.cpp 9: path /tmp/100%d%s");
    const std::string cut = ("long.cpp 1: " + longText).substr(0, 511);
    EXPECT_EQ(lines[2].message, cut);
    EXPECT_EQ(err.Text(), "daemon.cpp 75: exit 1234\nx.cpp 9: path /tmp/100%d%s\n" +
                              cut + "\n");
    closelog();
  });
}

TEST(Logging, DebugLineAndSysLogFollowTheHostsFlag) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    StderrCapture err;
    Daemon daemon;
    Daemon::debug("before %s", "registration");
    int flag = 0;
    daemon.setDebugFlag(flag);
    Daemon::debug("flag %d", flag);
    Daemon::SysLog(0, "quiet %s", "50%");
    flag = 1;  // seen by the next call, without any other call
    Daemon::debug("flag %d", flag);
    Daemon::SysLog(LOG_WARNING, "loud %s", "50%");
    auto lines = syslog.Take(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_INFO);
    EXPECT_EQ(lines[0].message, "quiet 50%");
    EXPECT_EQ(lines[1].priority, LOG_USER | LOG_WARNING);
    EXPECT_EQ(lines[1].message, "loud 50%");
    EXPECT_EQ(err.Text(), "flag 1\nloud 50%");  // SysLog adds no newline
    closelog();
  });
}

TEST(Logging, OpenLogIdentAndFacility) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    Daemon daemon;
    daemon.OpenLog(nullptr, 0, 0);
    Daemon::SysLog(LOG_ERR, "one");
    const std::string ident70(70, 'i');
    daemon.OpenLog(ident70.c_str(), LOG_PID, LOG_LOCAL3);
    Daemon::SysLog(LOG_ERR, "two");
    auto lines = syslog.Take(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].ident, "?");
    EXPECT_EQ(lines[0].priority, LOG_DAEMON | LOG_ERR);
    EXPECT_EQ(lines[1].ident, ident70.substr(0, 64));
    EXPECT_EQ(lines[1].pid, getpid());
    EXPECT_EQ(lines[1].priority, LOG_LOCAL3 | LOG_ERR);
    // The framework closes syslog at shutdown; a later message reconnects
    // with syslog's default ident (the facility is syslog's to keep).
    daemon.~Daemon();
    new (&daemon) Daemon;
    Daemon::SysLog(LOG_ERR, "three");
    lines = syslog.Take(1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].ident, "logging_test");
    closelog();
  });
}

}  // namespace
}  // namespace qel_test
