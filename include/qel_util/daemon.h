#ifndef QEL_UTIL_DAEMON_H_
#define QEL_UTIL_DAEMON_H_

// The daemon framework: a service derives from Daemon, overrides Process and
// calls Init, daemonize and Run from main. All state lives in one
// process-wide DaemonImpl; Daemon objects are thin handles onto it.

#include <signal.h>

#include <atomic>
#include <map>
#include <string>

#include "qel_util/export.h"

namespace qel_util {

class QEL_UTIL_EXPORT Daemon {
 public:
  // Construct the handle only; the framework state is not touched.
  Daemon();
  Daemon(int& argc, char**& argv);
  // Runs the framework's shutdown (pid file removed, syslog closed); safe to
  // run more than once.
  virtual ~Daemon();

  // One step of the service's work, called by Run while the running flag is
  // up. A blocking call in it returns with EINTR when a stop signal arrives.
  virtual void Process();

  // Program name from argv[0] (basename only for absolute paths), default pid
  // file "/var/run/<name>.pid", nine-signal table installed. Always 0.
  int Init(int& argc, char**& argv);
  // Calls Process while running, then logs "exit <pid>" and exit(0).
  [[noreturn]] void Run();
  bool IsRunning() const;
  // Null before Init; owned by the framework.
  const char* GetName() const;

  // true: daemonize neither forks nor touches the pid file.
  void foreground(bool on);
  // Absolute path used as is, otherwise "/var/run/<name>.pid"; null ignored.
  void pidfile(const char* nameOrPath);
  // Detach (fork, setsid), check and write the pid file, raise the running
  // flag, umask 0, chdir "/", close inherited descriptors above 2.
  // Ends the process with status 1 on any failure it reports.
  void daemonize();
  // false sends the standard streams to "/dev/null".
  void runningOk(bool ok);

  // Registers the host's debug flag; the int must outlive every log call.
  void setDebugFlag(int& flag);
  // openlog with the ident (cut to 64 characters, "?" for null), the option
  // bits and the facility (LOG_DAEMON for 0). Closed again at shutdown.
  void OpenLog(const char* ident, int option, int facility);

  // Tagged line "<file> <line>: <message>" to syslog (LOG_INFO) and stderr
  // when enabled. Text is cut at 511 characters. Thread-safe, no heap.
  static void debug(bool enabled, const char* file, int line,
                    const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  // Line on stderr only, while the registered debug flag is non-zero.
  static void debug(const char* format, ...)
      __attribute__((format(printf, 1, 2)));
  // syslog at the priority (LOG_INFO for 0); copied to stderr, without an
  // added newline, while the debug flag is non-zero.
  static void SysLog(int priority, const char* format, ...)
      __attribute__((format(printf, 2, 3)));

  // 1: no live process named by the file (missing, stale, pid above INT_MAX);
  // 0: the process in `pid` exists; -1: error, already reported.
  static int CheckPidFile(const char* path, int& pid);
};

// The single framework object's class. Public so that hosts and tests can see
// the state the framework documents; services normally use Daemon only.
class QEL_UTIL_EXPORT DaemonImpl {
 public:
  struct Signal {
    struct sigaction* m_act;  // one of the four static actions, not owned
    std::string m_name;
  };

  DaemonImpl();
  ~DaemonImpl();
  DaemonImpl(const DaemonImpl&) = delete;
  DaemonImpl& operator=(const DaemonImpl&) = delete;

  // Builds the signal table once, installs it on every call. Returns 0.
  int Init();
  void initialize(int& argc, char**& argv);  // does nothing
  bool IsRunning() const;
  // Removes a pid file this process wrote, closes syslog. Idempotent.
  void shutdown(int unused);
  void foreground(bool on);
  void pidfile(const char* nameOrPath);

  // Signal handlers; public so that a host can call CatchChld directly.
  static void CatchStopRunning(int sig);
  static void CatchChld(int sig);
  static void CatchExitApp(int sig);
  // Appends a record to "/home/root/log/<name>_dump.txt" and logs it at
  // LOG_CRIT. Nothing happens when the file cannot be opened.
  void DumpCallStack(int sig);

  void checkPidfileOrShutdown();
  void writePidfile();

  void daemonize();
  // Forks; the parent exits 0, the child becomes a session leader.
  void fork();
  void runningOk(bool ok);
  // stdin from "/dev/null", stdout and stderr appended to `path`; exit(1) on
  // failure.
  void redirectStreamsTo(const char* path);
  // Opens `path` with `flags` (mode 0644) onto descriptor `fd`; returns fd or
  // -1.
  int openFileFor(int fd, const char* path, int flags);

  void setDebugFlag(int& flag);
  int getDebugFlag() const;
  void OpenLog(const char* ident, int option, int facility);

  bool m_foreground;
  char* m_pidfile;  // strdup'ed, owned
  bool m_pidfileWritten;
  int* m_debugFlag;  // not owned
  char m_logIdent[65];
  bool m_logOpen;
  char* m_progName;  // strdup'ed, owned
  char m_dumpFile[96];

  // Written by signal handlers and read by the main loop: lock-free atomics
  // are async-signal-safe and never cached across Process calls.
  static std::atomic<int> m_receivedSignal;
  static struct sigaction m_actExitApp;
  static struct sigaction m_actChild;
  static struct sigaction m_actStopApp;
  static struct sigaction m_actIgnore;
  static std::map<int, Signal> m_signals;
  static std::atomic<bool> m_isRunning;
};

// Exit handlers: shutdown(0) on the framework object. daemonize registers
// shutdown0 with atexit; shutdown2 is shaped for on_exit.
QEL_UTIL_EXPORT void shutdown0();
QEL_UTIL_EXPORT void shutdown2(int status, void* unused);

}  // namespace qel_util

#endif  // QEL_UTIL_DAEMON_H_
