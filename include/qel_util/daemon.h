#ifndef QEL_UTIL_DAEMON_H_
#define QEL_UTIL_DAEMON_H_

/// \file
/// The daemon framework: a service derives from Daemon, overrides Process and
/// calls Init, daemonize and Run from main. All state lives in one
/// process-wide DaemonImpl; Daemon objects are thin handles onto it.

#include <signal.h>

#include <atomic>
#include <map>
#include <string>

#include "qel_util/export.h"

namespace qel_util {

/// The face of the daemon framework for a service.
///
/// Every Daemon object is a handle onto the one framework state of the
/// process, so all handles see the same name, pid file and running flag.
/// The framework belongs to the main thread: call Init, daemonize and Run
/// from it, and call daemonize before any thread is started (the fork keeps
/// only the calling thread). The logging functions may be called from any
/// thread.
class QEL_UTIL_EXPORT Daemon {
 public:
  /// Constructs the handle only; the framework state is not touched.
  Daemon();
  /// Constructs the handle only; `argc` and `argv` are not looked at (call
  /// Init for that).
  Daemon(int& argc, char**& argv);
  /// Runs the framework's shutdown for the whole process, whichever handle
  /// goes: the pid file this process wrote is removed and syslog closed.
  /// Harmless when run more than once.
  virtual ~Daemon();

  /// One step of the service's work, called by Run again and again while the
  /// running flag is up. A blocking call in it returns with EINTR when a stop
  /// signal arrives. The default does nothing.
  ///
  /// Under a service manager's watchdog (WatchdogSec=, see Run) Process must
  /// return at least every quarter of the watchdog interval, e.g. by giving
  /// its poll or select a timeout of that much at the most: Run sends
  /// WATCHDOG=1 between two steps, and a step that never returns gets the
  /// service killed and restarted by the manager.
  virtual void Process();

  /// Takes the program name from argv[0] (its base name when it is an
  /// absolute path; a null argv or argv[0] keeps the name set before), sets
  /// the default pid file "/var/run/<name>.pid" and installs the nine-signal
  /// table: SIGHUP and SIGPIPE ignored; SIGINT, SIGQUIT, SIGABRT and SIGTERM
  /// lower the running flag; SIGCHLD reaps exited children; SIGSEGV and
  /// SIGBUS write the crash dump and end the process with status 1 (see
  /// DaemonImpl::CatchExitApp).
  ///
  /// When $NOTIFY_SOCKET is set, a service manager waits for this process's
  /// reports there (a path, or an abstract socket name written with a
  /// leading '@'); Init takes it over together with $WATCHDOG_USEC and
  /// $WATCHDOG_PID and removes all three from the environment, so that no
  /// child the service starts reports in its stead. A $NOTIFY_SOCKET of any
  /// other form is removed as well and names no manager. See daemonize and
  /// Run.
  /// \return Always 0.
  int Init(int& argc, char**& argv);
  /// Calls Process while the running flag is up, then logs "exit <pid>" and
  /// ends the process with exit(0) (exit handlers run, the pid file goes).
  ///
  /// Under a service manager ($NOTIFY_SOCKET at Init) it also sends, each as
  /// one datagram: "READY=1" before the first Process (when the running flag
  /// is up); "WATCHDOG=1" before the first Process and then between steps
  /// whenever a quarter of the interval of $WATCHDOG_USEC has passed, unless
  /// $WATCHDOG_PID names another process; "STOPPING=1" once the flag is down,
  /// before the "exit" line. A report that cannot be sent is dropped.
  [[noreturn]] void Run();
  /// Whether the running flag is up: raised by daemonize, lowered by a stop
  /// signal.
  bool IsRunning() const;
  /// The program name taken by Init; null before Init. Owned by the
  /// framework and valid until the next Init.
  const char* GetName() const;

  /// true: daemonize neither forks nor checks nor writes the pid file.
  void foreground(bool on);
  /// Sets the pid file: an absolute path is used as it is, anything else
  /// becomes "/var/run/<nameOrPath>.pid". Null is ignored. The text is
  /// copied.
  void pidfile(const char* nameOrPath);
  /// Makes the process a daemon: registers the exit handler that removes the
  /// pid file, forks (the parent exits 0) and starts a new session, refuses
  /// to go on while the pid file names a live process, writes the pid file,
  /// raises the running flag, sets umask 0 and the directory "/", and closes
  /// every inherited descriptor above 2 and below the hard descriptor limit
  /// (none when that limit is unlimited): with close_range, else the entries
  /// of /proc/self/fd, else number by number, so that with either of the
  /// first two the time does not grow with the limit. Syslog is closed first
  /// and, when OpenLog opened it, opened again with the same ident, facility
  /// and options less LOG_NDELAY: logging goes on and its socket never takes
  /// over a descriptor of the service. A connection opened with openlog
  /// directly keeps its options and facility but loses its ident.
  ///
  /// The check and the write of the pid file are one step against other
  /// starters: both happen under an exclusive flock on the pid file's
  /// directory (taken also by the removal at exit), so of two instances
  /// started at the same instant one is refused. The lock makes no file and
  /// its descriptor is closed before daemonize returns; without a directory
  /// to open the check and write go on unguarded.
  ///
  /// Under a service manager ($NOTIFY_SOCKET at Init) the process that the
  /// manager started stays the service, since the manager knows it as the
  /// main process: no fork and no new session (the manager made one), but
  /// the pid file is checked and written as usual, so a second instance
  /// ends with status 1 before it could report readiness.
  ///
  /// Ends the process with status 1 (after a tagged line) when the exit
  /// handler cannot be registered, fork, setsid, chdir or getrlimit fail,
  /// the pid file cannot be checked or names a live process. A pid file that
  /// cannot be written is reported and the daemon goes on without one.
  void daemonize();
  /// false sends the standard streams to "/dev/null" (ends the process with
  /// status 1 when that fails); true leaves them as they are.
  void runningOk(bool ok);

  /// Registers the host's debug flag; the int must outlive every log call.
  /// While it is non-zero, debug(format) and SysLog also write to stderr.
  void setDebugFlag(int& flag);
  /// openlog with the ident (cut to 64 characters and copied, "?" for null),
  /// the option bits and the facility (LOG_DAEMON for 0). daemonize reopens
  /// it with the same settings; closed again at shutdown.
  void OpenLog(const char* ident, int option, int facility);

  /// Writes the tagged line "<file> <line>: <message>" to syslog (LOG_INFO)
  /// and to stderr when `enabled`. Text is cut at 511 characters.
  /// Thread-safe; uses no heap of its own.
  static void debug(bool enabled, const char* file, int line,
                    const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  /// Writes a line to stderr only, while the registered debug flag is
  /// non-zero. Cut at 511 characters; thread-safe.
  static void debug(const char* format, ...)
      __attribute__((format(printf, 1, 2)));
  /// Sends the message to syslog at `priority` (LOG_INFO for 0); while the
  /// debug flag is non-zero it is copied to stderr as it is, without an
  /// added newline. Cut at 511 characters; thread-safe.
  static void SysLog(int priority, const char* format, ...)
      __attribute__((format(printf, 2, 3)));

  /// Looks at the pid file `path`; `pid` receives the number it holds (0 when
  /// none was read).
  /// \return 1 when no live process is named (no file, a stale pid, or a
  /// number above 2147483647, which `pid` receives as a negative number; one
  /// beyond 32 bits is read as 4294967295, i.e. -1); 0 when the process in
  /// `pid` exists; -1 on any other error (not a regular file, unreadable, no
  /// number, a process that cannot be probed), already reported with a
  /// tagged line.
  static int CheckPidFile(const char* path, int& pid);
};

/// The single framework object's class. Public so that hosts and tests can
/// see the state the framework documents; services normally use Daemon only.
/// Belongs to the main thread, like Daemon.
class QEL_UTIL_EXPORT DaemonImpl {
 public:
  /// One entry of the signal table.
  struct Signal {
    struct sigaction* m_act;  ///< One of the four static actions, not owned.
    std::string m_name;       ///< The signal's name, e.g. "SIGSEGV".
  };

  /// Empty state: no name, no pid file, background mode.
  DaemonImpl();
  /// Frees the name and the pid-file path; removes nothing.
  ~DaemonImpl();
  DaemonImpl(const DaemonImpl&) = delete;             ///< Not copyable.
  DaemonImpl& operator=(const DaemonImpl&) = delete;  ///< Not copyable.

  /// Builds the signal table once and installs it on every call. Also makes
  /// the first calls of backtrace (which loads the unwinder) and localtime_r
  /// (which reads the time zone), both of which allocate, so that the crash
  /// dump's file record needs no heap. Returns 0.
  int Init();
  /// Does nothing; kept for hosts that call it.
  void initialize(int& argc, char**& argv);
  /// Whether the running flag is up.
  bool IsRunning() const;
  /// Removes a pid file this process wrote and closes syslog if OpenLog
  /// opened it. Idempotent; `unused` is ignored.
  void shutdown(int unused);
  /// As Daemon::foreground.
  void foreground(bool on);
  /// As Daemon::pidfile.
  void pidfile(const char* nameOrPath);

  /// Handler of SIGINT, SIGQUIT, SIGABRT and SIGTERM: lowers the running
  /// flag and records the signal.
  static void CatchStopRunning(int sig);
  /// Handler of SIGCHLD: records the signal and reaps every exited child,
  /// unless SIGCHLD is blocked in the calling thread (then statuses stay for
  /// pclose, system or waitpid). Keeps errno. Public so that a host can call
  /// it directly.
  static void CatchChld(int sig);
  /// Handler of SIGSEGV and SIGBUS: writes the crash dump, then ends the
  /// process with exit(1), whose exit handlers remove the pid file. Holds
  /// also when the fault struck inside the allocator or syslog, or left
  /// their locks held: the dump's file record is complete before anything
  /// needs the heap or syslog, and the syslog part and exit(1) run under a
  /// two-second alarm (SIGALRM is taken over and unblocked in the crashing
  /// thread). When it fires, or another fault strikes inside the dump, the
  /// pid file is removed and the process ends with _exit(1): no exit
  /// handlers, no flush of the standard streams. A second thread that
  /// crashes meanwhile waits for the first to end the process.
  static void CatchExitApp(int sig);
  /// Appends a record (signal name, time and pid, the call stack, "------")
  /// to "/home/root/log/<name>_dump.txt" (mode 0660), using no heap once Init
  /// ran, then sends the same lines to syslog at LOG_CRIT, which takes the
  /// heap and syslog's lock. Nothing is written when the file cannot be
  /// opened.
  void DumpCallStack(int sig);

  /// Ends the process with status 1 when the pid file names a live process
  /// or cannot be checked; returns otherwise (also without a pid file).
  void checkPidfileOrShutdown();
  /// Writes this process's pid to the pid file; a failure is reported and
  /// leaves the daemon without a pid file.
  void writePidfile();

  /// As Daemon::daemonize.
  void daemonize();
  /// Forks; the parent exits 0, the child becomes a session leader. Ends the
  /// process with status 1 when fork or setsid fails.
  void fork();
  /// As Daemon::runningOk.
  void runningOk(bool ok);
  /// stdin from "/dev/null", stdout and stderr appended to `path`; ends the
  /// process with status 1 on failure.
  void redirectStreamsTo(const char* path);
  /// Opens `path` with `flags` (mode 0644) onto descriptor `fd`.
  /// \return `fd`, or -1 with errno; the temporary descriptor is closed also
  /// when dup2 fails.
  int openFileFor(int fd, const char* path, int flags);

  /// As Daemon::setDebugFlag.
  void setDebugFlag(int& flag);
  /// The registered debug flag's value; 0 while none is registered.
  int getDebugFlag() const;
  /// As Daemon::OpenLog.
  void OpenLog(const char* ident, int option, int facility);

  bool m_foreground;     ///< Set by foreground().
  char* m_pidfile;       ///< Pid-file path, strdup'ed and owned; may be null.
  bool m_pidfileWritten; ///< Whether this process wrote the pid file.
  int* m_debugFlag;      ///< The host's debug flag, not owned; may be null.
  char m_logIdent[65];   ///< Copy of the syslog ident.
  bool m_logOpen;        ///< Whether OpenLog was called since shutdown.
  char* m_progName;      ///< Program name, strdup'ed and owned; may be null.
  char m_dumpFile[96];   ///< Path of the crash-dump file once made.

  /// The last signal caught (-1 before any). Written by signal handlers and
  /// read by the main loop: lock-free atomics are async-signal-safe and never
  /// cached across Process calls.
  static std::atomic<int> m_receivedSignal;
  static struct sigaction m_actExitApp;  ///< Action of SIGSEGV and SIGBUS.
  static struct sigaction m_actChild;    ///< Action of SIGCHLD.
  static struct sigaction m_actStopApp;  ///< Action of the stop signals.
  static struct sigaction m_actIgnore;   ///< Action of SIGHUP and SIGPIPE.
  /// The signal table, filled by the first Init.
  static std::map<int, Signal> m_signals;
  /// The running flag; written by signal handlers like m_receivedSignal.
  static std::atomic<bool> m_isRunning;
};

/// Exit handler: shutdown(0) on the framework object. daemonize registers it
/// with atexit.
QEL_UTIL_EXPORT void shutdown0();
/// Exit handler shaped for on_exit: shutdown(status) on the framework object.
QEL_UTIL_EXPORT void shutdown2(int status, void* unused);

}  // namespace qel_util

#endif  // QEL_UTIL_DAEMON_H_
