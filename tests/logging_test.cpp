// Tagged lines, debug lines and syslog messages, seen on a private /dev/log
// and on a captured standard error.

#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "qel_util/daemon.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"
#include "support/syslog_capture.h"

namespace qel_test {
namespace {

using qel_util::Daemon;

TEST(Logging, LinesReachSyslogAndStderrAsWritten) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    StderrCapture err;
    Daemon daemon;
    const std::string cut = ("l.cpp 1: " + std::string(600, 'y')).substr(0, 511);
    Daemon::debug(false, "daemon.cpp", 75, "never %d", 1);
    Daemon::debug(true, "x.cpp", 9, "path %s", "/tmp/100%d%s");
    Daemon::debug(true, "l.cpp", 1, "%s", std::string(600, 'y').c_str());
    Daemon::debug("no flag registered yet");
    int flag = 0;
    daemon.setDebugFlag(flag);
    Daemon::debug("flag %d", flag);
    Daemon::SysLog(0, "quiet %s", "50%");
    flag = 1;  // seen by the next call, without any other call
    Daemon::debug("flag %d", flag);
    Daemon::SysLog(LOG_WARNING, "loud");
    daemon.OpenLog(nullptr, 0, 0);
    Daemon::SysLog(LOG_ERR, "one");
    daemon.OpenLog(std::string(70, 'i').c_str(), LOG_PID, LOG_LOCAL3);
    Daemon::SysLog(LOG_ERR, "two");
    const struct { int priority; std::string message; } expected[] = {
        {LOG_USER | LOG_INFO, "x.cpp 9: path /tmp/100%d%s"}, {LOG_USER | LOG_INFO, cut},
        {LOG_USER | LOG_INFO, "quiet 50%"},  {LOG_USER | LOG_WARNING, "loud"},
        {LOG_DAEMON | LOG_ERR, "one"},       {LOG_LOCAL3 | LOG_ERR, "two"}};
    auto lines = syslog.Take(6);
    ASSERT_EQ(lines.size(), 6u);
    for (size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ(std::make_pair(lines[i].priority, lines[i].message),
                std::make_pair(expected[i].priority, expected[i].message));
    EXPECT_EQ(lines[4].ident + " " + lines[5].ident, "? " + std::string(64, 'i'));
    EXPECT_EQ(lines[5].pid, getpid());
    // SysLog's copy on stderr has no newline of its own.
    EXPECT_EQ(err.Text(), "x.cpp 9: path /tmp/100%d%s\n" + cut + "\nflag 1\nloudonetwo");
    closelog();
  });
}

}  // namespace
}  // namespace qel_test
