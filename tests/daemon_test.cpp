// The test service (tests/daemon_helper) as a real daemon, reaped by a subreaper.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mount.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <thread>
#include <utility>

#include <gmock/gmock.h>

#include "qel_util/daemon.h"
#include "support/host_tool.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "support/target.h"

namespace qel_test {
namespace {

using namespace ::testing;

const char kPidFile[] = "/var/run/netd.pid";
const char kOutput[] = "/mnt/daemon.out";

// Starts the service as "/usr/sbin/netd", stdout and stderr appended to
// kOutput, after `prepare` ran in the new process.
pid_t Launch(const std::vector<std::string>& args,
             const std::function<void()>& prepare = [] {}) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  std::freopen(kOutput, "a", stdout);
  dup2(1, 2);
  std::vector<char*> argv{const_cast<char*>("/usr/sbin/netd")};
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  // In sanitizer builds the service's own handler must see SIGSEGV and SIGBUS.
  setenv("ASAN_OPTIONS", "handle_segv=0:handle_sigbus=0", 1);
  prepare();
  ExecTargetProgram(QEL_TEST_DAEMON, argv.data());
  _exit(127);
}

// The file's contents once it has any, "" after five seconds.
std::string WaitFor(const std::string& path) {
  Eventually([&path] { return !ReadFile(path).empty(); });
  return ReadFile(path);
}

// qemu-user refuses PR_SET_CHILD_SUBREAPER; under an emulator the body is the
// init of a PID namespace instead, which adopts orphans just the same.
void SubreaperSandbox(const std::function<void()>& body) {
  RunInSandbox([&] {
    ASSERT_TRUE(!TargetEmulator().empty() || prctl(PR_SET_CHILD_SUBREAPER, 1) == 0);
    body();
  }, {false, !TargetEmulator().empty()});
}

TEST(Daemon, PidFileContentsDecideWhetherTheDaemonStarts) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    pid_t gone = Launch({});  // exits at once: a stale pid
    EXPECT_EQ(Reap(gone), 0);
    const std::string self = std::to_string(getpid());  // a running process
    const std::string unreadable = "Failed to read pid from '/var/run/netd.pid'.\n";
    const struct { std::string content; int status; std::string message; } cases[] = {
        {self + "\n", 1, ": Quitting because process " + self +
             " defined in pidfile '/var/run/netd.pid' is already running.\n"},
        {std::to_string(gone) + "\n", 0, ""}, {"4294967295\n", 0, ""},
        {"4294967297\n", 0, ""}, {"123456789012345678901234567890\n", 0, ""},  // no pid_t
        {"netd\n", 1, unreadable}, {"0\n", 1, unreadable},
        {"", 1, "Pidfile '/var/run/netd.pid' is not a regular file.\n"},  // a directory
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.content);
      unlink(kOutput);
      c.content.empty() ? MakeDirs(kPidFile) : WriteFile(kPidFile, c.content);
      EXPECT_EQ(Reap(Launch({"daemonize", "report", "run"})), 0);
      pid_t pid = c.status == 0 ? std::atoi(WaitFor("/mnt/report").c_str() + 4) : -1;
      EXPECT_EQ(ReadFile(kPidFile), pid > 0 ? std::to_string(pid) + "\n" : c.content);
      if (pid > 0) kill(pid, SIGTERM);
      unlink("/mnt/report");
      EXPECT_EQ(Reap(), c.status);
      EXPECT_THAT(ReadFile(kOutput), HasSubstr(c.message));
      c.content.empty() ? rmdir(kPidFile) : unlink(kPidFile);
    }
  });
}

TEST(Daemon, RunsDetachedUntilAStopSignalOrAFault) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    const std::string dump = "/home/root/log/netd_dump.txt";
    std::string before;
    // `also` before the fault: "lockheap", another thread holds the
    // allocator's lock for ever; "exitfault", an exit handler faults again.
    const struct { int sig; std::string fault, name, also; } cases[] = {
        {SIGTERM, "", "", ""}, {SIGINT, "", "", ""}, {SIGQUIT, "", "", ""},
        {SIGABRT, "", "", ""}, {0, "segv", "", ""},  // no dump directory yet
        {0, "segv", "SIGSEGV", ""}, {0, "bus", "SIGBUS", ""},
        {0, "segv", "SIGSEGV", "lockheap"}, {0, "syslog", "SIGSEGV", ""},  // inside syslog
        {0, "segv", "SIGSEGV", "exitfault"}};
    for (const auto& c : cases) {
      SCOPED_TRACE(c.sig != 0 ? strsignal(c.sig) : c.fault + c.name + " " + c.also);
      // Syslog may then get nothing.
      const bool stuck = c.also == "lockheap" || c.fault == "syslog";
      std::vector<std::string> args{"holdfd", "holdfd", "daemonize", "report", "run"};
      for (const auto& arg : {c.also, c.fault})
        if (!arg.empty()) args.insert(args.end() - 1, arg);
      if (!c.name.empty()) MakeDirs("/home/root/log");
      SyslogCapture syslog;
      EXPECT_EQ(Reap(Launch(args)), 0);
      pid_t pid = std::atoi(WaitFor(kPidFile).c_str());
      const std::string id = std::to_string(pid);
      EXPECT_EQ(ReadFile(kPidFile), id + "\n");
      // pclose keeps the status of "exit 3" while the SIGCHLD handler is installed.
      EXPECT_EQ(WaitFor("/mnt/report"),
                "pid=" + id + " sid=" + id + " umask=000 cwd=/ fds=0,1,2, inherited= pclose=768\n");
      ASSERT_EQ(kill(pid, SIGHUP), 0);  // ignored
      if (c.sig != 0) kill(pid, c.sig);
      else WriteFile("/mnt/crash", "");
      EXPECT_EQ(Reap(pid), c.sig != 0 ? 0 : 1);
      EXPECT_NE(access(kPidFile, F_OK), 0) << "pid file left behind";
      unlink("/mnt/report");
      unlink("/mnt/crash");
      auto lines = syslog.Take(c.sig != 0 ? 1 : c.name.empty() || stuck ? 0 : 3);
      if (c.sig != 0) {
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_USER | LOG_INFO);
        EXPECT_THAT(lines[0].message, MatchesRegex("daemon\\.cpp [0-9]+: exit " + id));
        EXPECT_THAT(ReadFile(kOutput), HasSubstr(lines[0].message + "\n"));
        continue;
      }
      const std::string text = ReadFile(dump);
      if (c.name.empty()) {
        EXPECT_TRUE(lines.empty() && access(dump.c_str(), F_OK) != 0) << "no file, no syslog";
        continue;
      }
      ASSERT_EQ(text.compare(0, before.size(), before), 0) << "not appended";
      // On armhf the unwinder stops at the C library's assembly, where the
      // fault inside syslog strikes.
      const std::string ownFrame =
          c.fault == "syslog" ? "" : "/usr/sbin/netd\\(.*\\[0x[0-9a-f]+\\]\n(.*\n)*";
      EXPECT_THAT(text.substr(before.size()),
                  MatchesRegex(c.name + " \\([A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:"
                               "[0-9]{2}, pid " + id + "\\)\n(.*\n)+" + ownFrame + "------\n"));
      struct stat st = {};
      EXPECT_EQ(stat(dump.c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0660u);
      before = text;
      if (stuck) continue;
      ASSERT_GE(lines.size(), 3u);
      for (const auto& line : lines) EXPECT_EQ(line.priority, LOG_USER | LOG_CRIT);
      EXPECT_THAT(lines[0].message, MatchesRegex(c.name + " \\(.*, pid " + id + "\\)\n"));
    }
  });
}

// In a launched process: close_range fails with ENOSYS, as on kernels before
// 5.9, and when `hideProc` an empty file system hides its /proc/self/fd (not
// all of /proc: the sanitizers read their options there).
void DenyCloseRange(bool hideProc) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  sock_fprog program{sizeof filter / sizeof filter[0], filter};
  bool ok = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
  const std::string fds = "/proc/" + std::to_string(getpid()) + "/fd";  // kept by exec
  if (hideProc)
    ok = ok && unshare(CLONE_NEWNS) == 0 && mount("tmpfs", fds.c_str(), "tmpfs", 0, nullptr) == 0;
  if (!ok) _exit(126);
}

TEST(Daemon, DaemonizeLeavesTheStandardStreamsOnlyAndSyslogItsOwnSocket) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    // The ways to find what is open: close_range, /proc/self/fd, every number.
    for (int way = 0; way < 3; ++way) {
      SCOPED_TRACE(way);
      if (way > 0 && !TargetEmulator().empty())
        GTEST_SKIP() << "the fallbacks need seccomp on the emulator's own calls";
      SyslogCapture syslog;
      unlink(kOutput);
      // Syslog's socket is the first descriptor daemonize closes; the server
      // made after it gets that number.
      EXPECT_EQ(Reap(Launch({"openlog", "holdfd", "foreground", "daemonize", "report", "udp"},
                            [way] { if (way > 0) DenyCloseRange(way == 2); })), 0);
      EXPECT_THAT(ReadFile("/mnt/report"), HasSubstr(" fds=0,1,2, "));
      EXPECT_THAT(ReadFile(kOutput), HasSubstr("udp 4\n"));
      auto lines = syslog.Take(1);
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].priority, LOG_LOCAL0 | LOG_NOTICE);
      EXPECT_EQ(lines[0].ident + ": " + lines[0].message, "netd: serving");
      unlink("/mnt/report");
    }
  });
}

TEST(Daemon, CatchChldCalledDirectlyReapsEveryExitedChild) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    for (int i = 0; i < 3; ++i)
      if (fork() == 0) _exit(i);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // all zombies
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    qel_util::DaemonImpl::CatchChld(SIGCHLD);
    EXPECT_GT(waitpid(-1, nullptr, WNOHANG), 0) << "reaped while blocked";
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    qel_util::DaemonImpl::CatchChld(SIGCHLD);
    EXPECT_EQ(qel_util::DaemonImpl::m_receivedSignal, SIGCHLD);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  });
}

// The service manager's end of $NOTIFY_SOCKET, bound by the test: a path, or
// an abstract name written with a leading '@'. Each report comes with the
// sender's pid.
class ManagerSocket {
 public:
  explicit ManagerSocket(const std::string& name)
      : m_name(name), m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const int on = 1;
    EXPECT_EQ(setsockopt(m_fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
    EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address),
                   offsetof(sockaddr_un, sun_path) + name.size()), 0) << name;
  }
  ~ManagerSocket() {
    close(m_fd);
    if (m_name[0] == '/') unlink(m_name.c_str());
  }
  ManagerSocket(const ManagerSocket&) = delete;
  ManagerSocket& operator=(const ManagerSocket&) = delete;

  // The next report and its sender, {"", 0} when none came within
  // `timeoutMs` (0: only one already there).
  std::pair<std::string, pid_t> Next(int timeoutMs = 10000) {
    pollfd ready{m_fd, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) != 1) return {"", 0};
    char text[256] = {};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    iovec part{text, sizeof text - 1};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(m_fd, &message, 0) < 0) return {"", 0};
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    ucred sender{};
    if (header != nullptr && header->cmsg_type == SCM_CREDENTIALS)
      std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
    return {text, sender.pid};
  }

 private:
  const std::string m_name;
  const int m_fd;
};

TEST(Daemon, ReportsToTheServiceManagerThatStartedIt) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    const std::string self = std::to_string(getpid());
    const std::string abstract = "@qel-test-notify-" + self;
    // `watchdogPid`: "" unset, "self" the daemon's own pid, else as given.
    const struct { std::string socket, watchdogPid; bool watchdog, refused; } cases[] = {
        {"/run/notify", "", true, false}, {abstract, "self", true, false},
        {abstract, "1", false, false}, {"/run/notify", "", false, true}};
    const std::chrono::seconds interval(2);
    for (const auto& c : cases) {
      SCOPED_TRACE(c.socket + " " + c.watchdogPid + (c.refused ? " refused" : ""));
      ManagerSocket manager(c.socket);
      unlink(kOutput);
      if (c.refused) WriteFile(kPidFile, self + "\n");
      const pid_t pid = Launch({"daemonize", "report", "run"}, [&c, interval] {
        setenv("NOTIFY_SOCKET", c.socket.c_str(), 1);
        setenv("WATCHDOG_USEC", std::to_string(interval.count() * 1000000).c_str(), 1);
        if (!c.watchdogPid.empty())
          setenv("WATCHDOG_PID", (c.watchdogPid == "self" ? std::to_string(getpid())
                                                          : c.watchdogPid).c_str(), 1);
      });
      if (c.refused) {
        // The very process started fails, and never says it is ready.
        EXPECT_EQ(Reap(pid), 1);
        EXPECT_EQ(manager.Next(0).first, "");
        EXPECT_EQ(ReadFile(kPidFile), self + "\n");
        EXPECT_THAT(ReadFile(kOutput), HasSubstr("Quitting because process " + self));
        unlink(kPidFile);
        continue;
      }
      EXPECT_EQ(manager.Next(), std::make_pair(std::string("READY=1"), pid));
      // No fork: the pid file names the process the manager started.
      EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
      EXPECT_THAT(WaitFor("/mnt/report"),
                  StartsWith("pid=" + std::to_string(pid) + " sid=" + std::to_string(getsid(0))));
      EXPECT_THAT(ReadFile("/mnt/report"), HasSubstr(" fds=0,1,2, inherited= pclose=768\n"));
      unlink("/mnt/report");
      // The first right after READY=1, then at least every half interval; the
      // manager would kill after a whole one.
      auto last = std::chrono::steady_clock::now();
      for (int i = 0; c.watchdog && i < 3; ++i) {
        EXPECT_EQ(manager.Next(), std::make_pair(std::string("WATCHDOG=1"), pid));
        const auto now = std::chrono::steady_clock::now();
        EXPECT_LT(now - last, interval);
        last = now;
      }
      kill(pid, SIGTERM);
      auto report = manager.Next();
      while (c.watchdog && report.first == "WATCHDOG=1") report = manager.Next();
      EXPECT_EQ(report, std::make_pair(std::string("STOPPING=1"), pid));
      EXPECT_EQ(Reap(pid), 0);
      EXPECT_NE(access(kPidFile, F_OK), 0) << "pid file left behind";
    }
  });
}

// Whether a process waits for the flock on `path` (a directory).
bool WaitsForLockOn(const char* path) {
  struct stat st = {};
  stat(path, &st);
  char id[64];
  std::snprintf(id, sizeof id, " %02x:%02x:%llu ", major(st.st_dev), minor(st.st_dev),
                static_cast<unsigned long long>(st.st_ino));
  const std::string locks = ReadFile("/proc/locks");
  for (size_t at = locks.find("-> FLOCK"); at != std::string::npos;
       at = locks.find("-> FLOCK", at + 1))
    if (locks.substr(at, locks.find('\n', at) - at).find(id) != std::string::npos) return true;
  return false;
}

TEST(Daemon, ChecksAndWritesThePidFileAsOneStep) {
  QEL_REQUIRE_SANDBOX();
  SubreaperSandbox([] {
    // Another starter holds the pid file's directory: the daemon waits, and
    // then finds what that starter wrote.
    const std::string self = std::to_string(getpid());
    int directory = open("/var/run", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    unlink(kOutput);
    EXPECT_EQ(Reap(Launch({"daemonize", "report", "run"})), 0);
    const bool waited = Eventually([] { return WaitsForLockOn("/var/run"); });
    EXPECT_TRUE(waited) << "the daemon went past the check without the lock";
    if (!waited) kill(std::atoi(WaitFor("/mnt/report").c_str() + 4), SIGTERM);
    WriteFile(kPidFile, self + "\n");
    close(directory);
    EXPECT_EQ(Reap(), 1);
    EXPECT_THAT(ReadFile(kOutput), HasSubstr("Quitting because process " + self +
                                             " defined in pidfile '/var/run/netd.pid'"));
    // An ending daemon removes its file only between two starters.
    unlink(kPidFile);
    EXPECT_EQ(Reap(Launch({"daemonize", "run"})), 0);
    const pid_t pid = std::atoi(WaitFor(kPidFile).c_str());
    directory = open("/var/run", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    kill(pid, SIGTERM);
    EXPECT_TRUE(Eventually([] { return WaitsForLockOn("/var/run"); }));
    EXPECT_EQ(access(kPidFile, F_OK), 0);
    close(directory);
    EXPECT_EQ(Reap(pid), 0);
    EXPECT_NE(access(kPidFile, F_OK), 0) << "pid file left behind";
  });
}

TEST(Daemon, StartStopDaemonManagesItThroughThePidFile) {
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_NO_EMULATOR("start-stop-daemon knows the program by /proc/<pid>/exe");
  QEL_REQUIRE_HOST_PROGRAM("start-stop-daemon", "dpkg");
  SubreaperSandbox([] {
    const std::string ssd = std::string("start-stop-daemon --pidfile ") + kPidFile;
    const std::string start =
        ssd + " --start --exec " QEL_TEST_DAEMON " -- pidfile=netd daemonize run >/dev/null";
    EXPECT_EQ(Shell(start), 0);
    pid_t pid = std::atoi(WaitFor(kPidFile).c_str());
    EXPECT_EQ(Shell(start), 1) << "a second start finds it running";
    // Reap the daemon as it ends: as a zombie it would still look alive.
    std::thread reaper([&] { EXPECT_EQ(Reap(pid), 0); });
    EXPECT_EQ(Shell(ssd + " --stop --retry 5"), 0);
    reaper.join();
    EXPECT_NE(Shell(ssd + " --status"), 0) << "pid file left behind";
  });
}

}  // namespace
}  // namespace qel_test
