#ifndef QEL_UTIL_DAEMON_INSTANCE_H_
#define QEL_UTIL_DAEMON_INSTANCE_H_

#include "qel_util/daemon.h"

namespace qel_util {

// The one framework object, constructed at library load.
extern DaemonImpl s_daemonImpl;

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
