#ifndef QEL_UTIL_DAEMON_INSTANCE_H_
#define QEL_UTIL_DAEMON_INSTANCE_H_

#include "qel_util/daemon.h"

namespace qel_util {

// The one framework object, constructed at library load.
extern DaemonImpl s_daemonImpl;

// Takes over $NOTIFY_SOCKET, $WATCHDOG_USEC and $WATCHDOG_PID, when the
// first is set, and removes all three from the environment, so that no child
// takes itself for the manager's main process. Main thread, before threads.
void TakeServiceManager();
// Whether a service manager waits for this process's reports.
bool UnderServiceManager();
// Sends `state` ("READY=1", ...) to the service manager; nothing without one.
// Keeps errno.
void NotifyServiceManager(const char* state);
// Sends "WATCHDOG=1" when the manager asked for it and a quarter of its
// interval has passed since the last one (at once the first time).
void FeedWatchdog();

// An exclusive flock on the directory of a pid file while it lives: the
// starters of one daemon check and write the file one at a time, and a
// daemon that ends removes it between them. It makes no file; its
// descriptor is closed with it. Without a directory to lock (null path, no
// such directory) it holds nothing and the caller goes on unguarded.
class PidfileDirectoryLock {
 public:
  explicit PidfileDirectoryLock(const char* pidfile);
  ~PidfileDirectoryLock();
  PidfileDirectoryLock(const PidfileDirectoryLock&) = delete;
  PidfileDirectoryLock& operator=(const PidfileDirectoryLock&) = delete;

 private:
  int m_fd;
};

// Opens syslog again as the last OpenLog did, LOG_NDELAY left out, after
// daemonize closed it; nothing when OpenLog was not called.
void ReopenLog();

// The base name of the source file, for the framework's own tagged lines.
constexpr const char* BaseName(const char* path) {
  const char* name = path;
  for (const char* p = path; *p != '\0'; ++p)
    if (*p == '/') name = p + 1;
  return name;
}

}  // namespace qel_util

// Enabled flag, file and line of a framework message.
#define QEL_HERE true, ::qel_util::BaseName(__FILE__), __LINE__

#endif  // QEL_UTIL_DAEMON_INSTANCE_H_
