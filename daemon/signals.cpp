// The nine-signal table, its handlers and the crash dump.

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "daemon/instance.h"

namespace qel_util {
namespace {

constexpr int kMaxFrames = 50;
const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// How long the syslog part of a crash dump and the exit handlers after it may
// take. They need the heap and syslog's lock, which the fault may have left
// held for ever.
constexpr unsigned kCrashExitSeconds = 2;

// The thread that is ending the process after a fault; 0 before any.
std::atomic<long> s_crashingThread{0};
static_assert(std::atomic<long>::is_always_lock_free,
              "the crash handler needs a lock-free owner");

void SetAction(struct sigaction& action, void (*handler)(int), int flags) {
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = flags;
}

// The last resort once the orderly end of a crash cannot be had: the pid
// file must not outlive the process, or every restart is refused.
[[noreturn]] void EndCrashedProcess(int) {
  if (s_daemonImpl.m_pidfileWritten && s_daemonImpl.m_pidfile != nullptr)
    unlink(s_daemonImpl.m_pidfile);
  _exit(1);
}

// Makes the first call of what the crash dump uses outside a crash: the first
// backtrace loads the unwinder and the first localtime_r reads the time zone,
// and both allocate.
void PrepareCrashDump() {
  void* frame;
  backtrace(&frame, 1);
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
}

}  // namespace

int DaemonImpl::Init() {
  if (m_signals.empty()) {
    SetAction(m_actIgnore, SIG_IGN, 0);
    SetAction(m_actStopApp, CatchStopRunning, 0);
    SetAction(m_actChild, CatchChld, SA_NOCLDSTOP | SA_RESTART);
    SetAction(m_actExitApp, CatchExitApp, 0);
    m_signals.insert({SIGHUP, {&m_actIgnore, "SIGHUP"}});
    m_signals.insert({SIGPIPE, {&m_actIgnore, "SIGPIPE"}});
    m_signals.insert({SIGINT, {&m_actStopApp, "SIGINT"}});
    m_signals.insert({SIGQUIT, {&m_actStopApp, "SIGQUIT"}});
    m_signals.insert({SIGABRT, {&m_actStopApp, "SIGABRT"}});
    m_signals.insert({SIGTERM, {&m_actStopApp, "SIGTERM"}});
    m_signals.insert({SIGCHLD, {&m_actChild, "SIGCHLD"}});
    m_signals.insert({SIGSEGV, {&m_actExitApp, "SIGSEGV"}});
    m_signals.insert({SIGBUS, {&m_actExitApp, "SIGBUS"}});
  }
  PrepareCrashDump();
  for (const auto& entry : m_signals) sigaction(entry.first, entry.second.m_act, nullptr);
  return 0;
}

void DaemonImpl::CatchStopRunning(int sig) {
  m_isRunning = false;
  m_receivedSignal = sig;
}

void DaemonImpl::CatchChld(int sig) {
  // The interrupted code may be about to read errno.
  const int savedErrno = errno;
  m_receivedSignal = sig;
  for (;;) {
    // While SIGCHLD is blocked here (always so inside this very handler),
    // exit statuses stay for pclose, system or an explicit waitpid.
    sigset_t blocked;
    if (sigprocmask(SIG_BLOCK, nullptr, &blocked) == 0 &&
        sigismember(&blocked, SIGCHLD))
      break;
    if (waitpid(-1, nullptr, WNOHANG) <= 0) break;
  }
  errno = savedErrno;
}

void DaemonImpl::CatchExitApp(int sig) {
  const long self = syscall(SYS_gettid);
  long first = 0;
  if (!s_crashingThread.compare_exchange_strong(first, self)) {
    // A fault inside the dump itself: what is left is the last resort.
    if (first == self) EndCrashedProcess(sig);
    // Another thread crashed first and is ending the process.
    for (;;) pause();
  }
  // A fault inside the dump comes back here instead of killing the process
  // with the pid file left, and the watchdog must reach this thread.
  sigset_t needed;
  sigemptyset(&needed);
  for (int number : {SIGSEGV, SIGBUS, SIGALRM}) sigaddset(&needed, number);
  struct sigaction watchdog;
  SetAction(watchdog, EndCrashedProcess, 0);
  sigaction(SIGALRM, &watchdog, nullptr);
  sigprocmask(SIG_UNBLOCK, &needed, nullptr);
  alarm(kCrashExitSeconds);
  s_daemonImpl.DumpCallStack(sig);
  // exit, not _exit: the host's exit handlers run and the pid file goes; the
  // watchdog ends what the heap or syslog's lock holds up.
  std::exit(1);
}

void DaemonImpl::DumpCallStack(int sig) {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  if (std::strlen(m_dumpFile) < 8)
    std::snprintf(m_dumpFile, sizeof m_dumpFile, "/home/root/log/%s_dump.txt",
                  m_progName != nullptr ? m_progName : "");
  const int fd = open(m_dumpFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                      0660);
  if (fd < 0) return;

  // The file record first and whole, without the heap or any lock that the
  // fault may hold; the syslog part after it may never return.
  char header[128] = "";
  auto entry = m_signals.find(sig);
  if (entry != m_signals.end()) {
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) std::memset(&local, 0, sizeof local);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, " (%s %02d %02d:%02d:%02d, pid %i)\n",
                  kMonths[local.tm_mon], local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, getpid());
    std::snprintf(header, sizeof header, "%s%s", entry->second.m_name.c_str(),
                  stamp);
    ssize_t ignored = write(fd, header, std::strlen(header));
    (void)ignored;
  }
  backtrace_symbols_fd(frames, count, fd);
  ssize_t ignored = write(fd, "------\n", 7);
  (void)ignored;
  close(fd);

  if (header[0] != '\0') Daemon::SysLog(LOG_CRIT, "%s", header);
  if (char** symbols = backtrace_symbols(frames, count)) {
    for (int i = 0; i < count; ++i) Daemon::SysLog(LOG_CRIT, "%s", symbols[i]);
    std::free(symbols);
  }
}

}  // namespace qel_util
