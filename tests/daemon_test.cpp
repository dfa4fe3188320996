// The daemon framework on real processes: each test starts the test service
// (tests/daemon_helper) inside a sandbox whose /var/run, /home and /dev/log
// are private, sends it real signals and reads the real pid file, dump file
// and syslog lines. The sandbox body is a child subreaper, so it can collect
// the exit status of the detached daemons it started.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qel_util/daemon.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "support/target.h"

namespace qel_test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

const char kPidFile[] = "/var/run/netd.pid";
const char kOutput[] = "/mnt/daemon.out";

// Starts the test service with argv[0] = `name`, stdout and stderr appended
// to kOutput; returns the launcher's pid.
pid_t Launch(const std::string& name, const std::vector<std::string>& args) {
  pid_t pid = fork();
  if (pid == 0) {
    int out = open(kOutput, O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(out, 1);
    dup2(out, 2);
    close(out);
    std::vector<char*> argv{const_cast<char*>(name.c_str())};
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    // In sanitizer builds the service's own crash handler must be the one
    // that sees SIGSEGV and SIGBUS.
    setenv("ASAN_OPTIONS", "handle_segv=0:handle_sigbus=0", 1);
    ExecTargetProgram(QEL_TEST_DAEMON, argv.data());
    _exit(127);
  }
  return pid;
}

int ExitStatusOf(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Waits for any orphaned descendant (the detached daemon) to end.
int NextOrphanStatus(pid_t* who = nullptr) {
  int status = 0;
  pid_t pid = waitpid(-1, &status, 0);
  if (who != nullptr) *who = pid;
  if (pid < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool WaitForFile(const std::string& path) {
  for (int i = 0; i < 500; ++i) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && st.st_size > 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// Starts "netd" as a real daemon, with `before` applied before daemonize and
// `after` after it, and returns its pid from the pid file.
pid_t StartDaemon(std::vector<std::string> after = {},
                  const std::vector<std::string>& before = {}) {
  std::vector<std::string> args = before;
  args.push_back("daemonize");
  args.insert(args.end(), after.begin(), after.end());
  args.push_back("run");
  pid_t launcher = Launch("/usr/sbin/netd", args);
  EXPECT_EQ(ExitStatusOf(launcher), 0);
  EXPECT_TRUE(WaitForFile(kPidFile));
  return std::atoi(ReadFile(kPidFile).c_str());
}

// Orphans go to the nearest subreaper, else to the init of their PID
// namespace. qemu-user refuses PR_SET_CHILD_SUBREAPER, so under an emulator
// the body becomes that init instead.
void SubreaperSandbox(const std::function<void()>& body) {
  SandboxOptions options;
  options.pid = !TargetEmulator().empty();
  RunInSandbox([&] {
    if (!options.pid) {
      ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }
    body();
  }, options);
}

TEST(Daemon, StartsDetachedAndEachStopSignalEndsItCleanly) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    for (int sig : {SIGTERM, SIGINT, SIGQUIT, SIGABRT}) {
      SCOPED_TRACE(strsignal(sig));
      SyslogCapture syslog;
      pid_t pid = StartDaemon({"report=/mnt/report"}, {"holdfd", "holdfd"});
      ASSERT_GT(pid, 1);
      EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
      ASSERT_TRUE(WaitForFile("/mnt/report"));
      // Session leader, umask 0, cwd "/", inherited descriptors closed.
      EXPECT_EQ(ReadFile("/mnt/report"),
                "pid=" + std::to_string(pid) + " sid=" + std::to_string(pid) +
                    " umask=000 cwd=/ fds=0,1,2,\n");
      ASSERT_EQ(kill(pid, SIGHUP), 0);  // ignored
      ASSERT_EQ(kill(pid, sig), 0);
      pid_t ended = 0;
      EXPECT_EQ(NextOrphanStatus(&ended), 0);
      EXPECT_EQ(ended, pid);
      EXPECT_NE(access(kPidFile, F_OK), 0) << "pid file left behind";
      auto lines = syslog.Take(1);
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].priority, LOG_USER | LOG_INFO);
      EXPECT_THAT(lines[0].message,
                  MatchesRegex("daemon\\.cpp [0-9]+: exit " +
                               std::to_string(pid)));
      unlink("/mnt/report");
    }
    EXPECT_THAT(ReadFile(kOutput),
                ContainsRegex("daemon\\.cpp [0-9]+: exit [0-9]+\n"));
  });
}

TEST(Daemon, SecondInstanceIsRefusedWhileTheFirstRuns) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t first = StartDaemon();
    pid_t launcher = Launch("netd", {"daemonize", "run"});
    EXPECT_EQ(ExitStatusOf(launcher), 0);
    EXPECT_EQ(NextOrphanStatus(), 1);
    EXPECT_THAT(ReadFile(kOutput),
                HasSubstr(": Quitting because process " + std::to_string(first) +
                          " defined in pidfile '/var/run/netd.pid' is already "
                          "running.\n"));
    EXPECT_EQ(kill(first, 0), 0) << "the first instance must keep running";
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(first) + "\n");
    kill(first, SIGTERM);
    EXPECT_EQ(NextOrphanStatus(), 0);
  });
}

struct PidFileCase {
  const char* name;
  std::function<void()> prepare;
  int status;           // of the detached process
  const char* message;  // expected on stderr, "" for none
};

TEST(Daemon, PidFileContentsDecideWhetherTheDaemonStarts) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    const std::vector<PidFileCase> cases = {
        {"stale", [&] { WriteFile(kPidFile, std::to_string(gone) + "\n"); }, 0,
         ""},
        {"above INT_MAX", [] { WriteFile(kPidFile, "4294967295\n"); }, 0, ""},
        {"garbage", [] { WriteFile(kPidFile, "netd\n"); }, 1,
         "Failed to read pid from '/var/run/netd.pid'.\n"},
        {"zero", [] { WriteFile(kPidFile, "0\n"); }, 1,
         "Failed to read pid from '/var/run/netd.pid'.\n"},
        {"directory", [] { MakeDirs(kPidFile); }, 1,
         "Pidfile '/var/run/netd.pid' is not a regular file.\n"},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      unlink(kOutput);
      unlink(kPidFile);
      c.prepare();
      pid_t launcher = Launch("netd", {"daemonize", "report=/mnt/report", "run"});
      EXPECT_EQ(ExitStatusOf(launcher), 0);
      if (c.status == 0) {
        ASSERT_TRUE(WaitForFile("/mnt/report"));
        pid_t pid = std::atoi(ReadFile("/mnt/report").c_str() + 4);
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
        kill(pid, SIGTERM);
        unlink("/mnt/report");
      }
      EXPECT_EQ(NextOrphanStatus(), c.status);
      EXPECT_THAT(ReadFile(kOutput), HasSubstr(c.message));
      rmdir(kPidFile);
    }
  });
}

TEST(Daemon, PidFileOfAnotherUsersProcessIsAnError) {
  QEL_REQUIRE_SANDBOX();
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a process as another user";
  SubreaperSandbox([] {
    pid_t other = fork();
    if (other == 0) {
      if (setuid(65534) != 0) _exit(1);
      pause();
      _exit(0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    WriteFile(kPidFile, std::to_string(other) + "\n");
    // The check runs as the unprivileged user too, so kill(pid, 0) fails
    // with EPERM rather than succeeding for root.
    pid_t launcher = fork();
    if (launcher == 0) {
      if (setuid(1) != 0) _exit(2);
      int pid = 0;
      _exit(qel_util::Daemon::CheckPidFile(kPidFile, pid) == -1 ? 0 : 1);
    }
    EXPECT_EQ(ExitStatusOf(launcher), 0);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
  });
}

TEST(Daemon, CheckPidFileResults) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    int pid = -5;
    EXPECT_EQ(qel_util::Daemon::CheckPidFile("/var/run/none.pid", pid), 1);
    EXPECT_EQ(pid, 0);
    WriteFile("/var/run/self.pid", std::to_string(getpid()) + " trailing\n");
    EXPECT_EQ(qel_util::Daemon::CheckPidFile("/var/run/self.pid", pid), 0);
    EXPECT_EQ(pid, getpid());
    WriteFile("/var/run/max.pid", "4294967295\n");
    EXPECT_EQ(qel_util::Daemon::CheckPidFile("/var/run/max.pid", pid), 1);
    EXPECT_EQ(pid, -1);
    MakeDirs("/var/run/locked");
    WriteFile("/var/run/locked/x.pid", "1\n");
    chmod("/var/run/locked", 0);
    if (geteuid() != 0) {
      EXPECT_EQ(qel_util::Daemon::CheckPidFile("/var/run/locked/x.pid", pid), -1);
    }
  });
}

TEST(Daemon, ForegroundModeWritesNoPidFileButStillResetsTheProcess) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t pid = Launch("netd", {"fg", "holdfd", "daemonize", "report=/mnt/report", "run"});
    ASSERT_TRUE(WaitForFile("/mnt/report"));
    EXPECT_NE(access(kPidFile, F_OK), 0);
    EXPECT_EQ(ReadFile("/mnt/report"),
              "pid=" + std::to_string(pid) + " sid=" + std::to_string(getsid(0)) +
                  " umask=000 cwd=/ fds=0,1,2,\n");
    kill(pid, SIGTERM);
    EXPECT_EQ(ExitStatusOf(pid), 0);
  });
}

TEST(Daemon, RunWithoutDaemonizeExitsAtOnce) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t pid = Launch("netd", {"run"});
    EXPECT_EQ(ExitStatusOf(pid), 0);
    EXPECT_THAT(ReadFile(kOutput),
                MatchesRegex("daemon\\.cpp [0-9]+: exit " + std::to_string(pid) +
                             "\n"));
  });
}

// The crash record: header, frames, separator.
void ExpectDumpRecord(const std::string& record, const char* name, pid_t pid) {
  EXPECT_THAT(record, ContainsRegex(std::string("^") + name +
                                    " \\((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|"
                                    "Oct|Nov|Dec) [0-9]{2} [0-9]{2}:[0-9]{2}:"
                                    "[0-9]{2}, pid " +
                                    std::to_string(pid) + "\\)\n"));
  EXPECT_THAT(record, ContainsRegex("\n/usr/sbin/netd\\(.*\\[0x[0-9a-f]+\\]\n"));
  EXPECT_THAT(record, ContainsRegex("\n------\n$"));
}

TEST(Daemon, FatalSignalsAppendACallStackDump) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    MakeDirs("/home/root/log");
    const std::string dump = "/home/root/log/netd_dump.txt";
    std::string before;
    for (const char* fault : {"segv", "bus"}) {
      SCOPED_TRACE(fault);
      SyslogCapture syslog;
      pid_t pid = StartDaemon({fault});
      WriteFile("/mnt/crash", "");
      pid_t ended = 0;
      EXPECT_EQ(NextOrphanStatus(&ended), 1);
      EXPECT_EQ(ended, pid);
      EXPECT_NE(access(kPidFile, F_OK), 0) << "pid file left behind";
      const std::string text = ReadFile(dump);
      ASSERT_EQ(text.compare(0, before.size(), before), 0) << "not appended";
      const char* name = std::string(fault) == "segv" ? "SIGSEGV" : "SIGBUS";
      ExpectDumpRecord(text.substr(before.size()), name, pid);
      struct stat st;
      ASSERT_EQ(stat(dump.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0660u);
      auto lines = syslog.Take(3);
      ASSERT_GE(lines.size(), 3u);
      for (const auto& line : lines) EXPECT_EQ(line.priority, LOG_USER | LOG_CRIT);
      EXPECT_EQ(lines[0].message + "", text.substr(before.size(), lines[0].message.size()));
      EXPECT_THAT(lines[0].message, HasSubstr(std::string(name) + " ("));
      before = text;
      unlink("/mnt/crash");
    }
  });
}

TEST(Daemon, DumpWithoutDirectoryOrOutsideTheTable) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    SyslogCapture syslog;
    StartDaemon({"segv"});
    WriteFile("/mnt/crash", "");
    EXPECT_EQ(NextOrphanStatus(), 1);
    EXPECT_NE(access("/home/root/log/netd_dump.txt", F_OK), 0);
    EXPECT_TRUE(syslog.Take(0, std::chrono::milliseconds(100)).empty());
    EXPECT_NE(access(kPidFile, F_OK), 0);

    // Signal 10 is not in the table: frames and separator, no header.
    MakeDirs("/home/root/log");
    pid_t direct = Launch("netd", {"dump=10"});
    EXPECT_EQ(ExitStatusOf(direct), 1);
    std::string record = ReadFile("/home/root/log/netd_dump.txt");
    EXPECT_THAT(record, MatchesRegex("[^(]*\\(.*\n------\n"));
    EXPECT_THAT(record, Not(HasSubstr(", pid ")));
    for (const auto& line : syslog.Take()) EXPECT_THAT(line.message, Not(HasSubstr(", pid ")));
  });
}

TEST(Daemon, PopenKeepsTheChildStatusWhileSigchldIsHandled) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t pid = StartDaemon({"popen=/mnt/popen"});
    ASSERT_TRUE(WaitForFile("/mnt/popen"));
    EXPECT_EQ(ReadFile("/mnt/popen"), std::to_string(3 << 8) + "\n");
    kill(pid, SIGTERM);
    EXPECT_EQ(NextOrphanStatus(), 0);
  });
}

TEST(Daemon, CatchChldCalledDirectlyReapsEveryExitedChild) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    for (int i = 0; i < 3; ++i)
      if (fork() == 0) _exit(i);
    // Let all three become zombies before reaping.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGCHLD);
    sigprocmask(SIG_BLOCK, &block, nullptr);
    qel_util::DaemonImpl::CatchChld(SIGCHLD);
    EXPECT_GT(waitpid(-1, nullptr, WNOHANG), 0) << "reaped while blocked";
    sigprocmask(SIG_UNBLOCK, &block, nullptr);
    qel_util::DaemonImpl::CatchChld(SIGCHLD);
    EXPECT_EQ(qel_util::DaemonImpl::m_receivedSignal, SIGCHLD);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  });
}

TEST(Daemon, StartStopDaemonManagesItThroughThePidFile) {
  QEL_REQUIRE_SANDBOX();
  if (Shell("command -v start-stop-daemon >/dev/null") != 0)
    GTEST_SKIP() << "start-stop-daemon is not installed";
  QEL_REQUIRE_NO_EMULATOR(
      "start-stop-daemon starts the armhf program itself and knows it by "
      "/proc/<pid>/exe, which is the emulator's");
  SubreaperSandbox([] {
    const std::string start = std::string("start-stop-daemon --start --pidfile ") +
                              kPidFile + " --exec " QEL_TEST_DAEMON
                              " -- pidfile=/var/run/netd.pid daemonize run >>/mnt/ssd.out 2>&1";
    EXPECT_EQ(Shell(start), 0);
    ASSERT_TRUE(WaitForFile(kPidFile));
    const std::string pid = ReadFile(kPidFile);
    // A second start finds it running through the pid file.
    EXPECT_EQ(Shell(start), 1);
    // Reap the daemon as it ends: as a zombie it would still look alive.
    int status = -1;
    std::thread reaper([&] { status = ExitStatusOf(std::atoi(pid.c_str())); });
    EXPECT_EQ(Shell(std::string("start-stop-daemon --stop --retry 5 --pidfile ") +
                    kPidFile),
              0);
    reaper.join();
    EXPECT_EQ(status, 0);
    EXPECT_NE(access(kPidFile, F_OK), 0);
    EXPECT_NE(Shell(std::string("start-stop-daemon --status --pidfile ") + kPidFile),
              0);
  });
}

}  // namespace
}  // namespace qel_test

namespace qel_test {
namespace {

TEST(Daemon, NameAndPidFilePathFromTheCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    qel_util::Daemon daemon;
    EXPECT_EQ(daemon.GetName(), nullptr);
    int argc = 1;
    for (const char* arg0 : {"/usr/sbin/netd", "netd", "./netd"}) {
      char* argv0 = const_cast<char*>(arg0);
      char** argv = &argv0;
      EXPECT_EQ(daemon.Init(argc, argv), 0);
      EXPECT_STREQ(daemon.GetName(), arg0[0] == '/' ? "netd" : arg0);
    }
    EXPECT_EQ(qel_util::DaemonImpl::m_signals.size(), 9u);
    EXPECT_EQ(qel_util::DaemonImpl::m_signals.begin()->second.m_name, "SIGHUP");
    EXPECT_EQ(qel_util::DaemonImpl::m_signals.rbegin()->second.m_name, "SIGCHLD");
  });
}

TEST(Daemon, PidFileNamesAndPaths) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    for (const char* given : {"/run/x.lock", "mydaemon"}) {
      const std::string path =
          given[0] == '/' ? given : std::string("/var/run/") + given + ".pid";
      pid_t launcher = Launch("./netd", {std::string("pidfile=") + given,
                                         "daemonize", "run"});
      EXPECT_EQ(ExitStatusOf(launcher), 0);
      ASSERT_TRUE(WaitForFile(path)) << path;
      kill(std::atoi(ReadFile(path).c_str()), SIGTERM);
      EXPECT_EQ(NextOrphanStatus(), 0);
      EXPECT_NE(access(path.c_str(), F_OK), 0);
    }
    // "./netd" keeps its slashes: /var/run/./netd.pid.
    pid_t pid = StartDaemon();
    (void)pid;
    pid_t launcher = Launch("./netd", {"daemonize", "run"});
    EXPECT_EQ(ExitStatusOf(launcher), 0);
    EXPECT_EQ(NextOrphanStatus(), 1) << "/var/run/./netd.pid is the same file";
    kill(std::atoi(ReadFile(kPidFile).c_str()), SIGTERM);
    EXPECT_EQ(NextOrphanStatus(), 0);
  });
}

TEST(Daemon, RunningOkFalseSilencesStderrButNotSyslog) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    SyslogCapture syslog;
    pid_t pid = StartDaemon({"quiet"});
    kill(pid, SIGTERM);
    EXPECT_EQ(NextOrphanStatus(), 0);
    EXPECT_EQ(ReadFile(kOutput), "");
    auto lines = syslog.Take(1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0].message, HasSubstr(": exit " + std::to_string(pid)));
  });
}

TEST(Daemon, AbortInsideTheServiceStillEndsIt) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    StartDaemon({"abort"});
    WriteFile("/mnt/crash", "");
    EXPECT_EQ(NextOrphanStatus(), 128 + SIGABRT);
  });
}

}  // namespace
}  // namespace qel_test
