// Readiness, watchdog and stop reports to a service manager that started the
// process with $NOTIFY_SOCKET: one datagram per report on a Unix socket,
// "READY=1", "WATCHDOG=1" or "STOPPING=1", the manager's own protocol written
// with the C library alone.

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "daemon/instance.h"

namespace qel_util {
namespace {

// Set by TakeServiceManager in the main thread before any other thread runs,
// read by the main loop only.
sockaddr_un s_manager;
socklen_t s_managerLength = 0;  // 0: no manager to report to
int64_t s_watchdogNs = 0;       // the manager's watchdog interval; 0: none
int64_t s_lastWatchdogNs = 0;   // when WATCHDOG=1 last went out

int64_t MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The socket named by `name`: a path, or an abstract name written with a
// leading '@'. Anything else, or a name too long, names no manager.
socklen_t ManagerAddress(const char* name, sockaddr_un& address) {
  const size_t length = std::strlen(name);
  if ((name[0] != '/' && name[0] != '@') || length < 2 ||
      length >= sizeof address.sun_path)
    return 0;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name, length);
  if (name[0] == '@') {
    address.sun_path[0] = '\0';
    return offsetof(sockaddr_un, sun_path) + length;
  }
  return offsetof(sockaddr_un, sun_path) + length + 1;
}

// The watchdog interval in nanoseconds that $WATCHDOG_USEC asks of this
// process; 0 when none, or when $WATCHDOG_PID names another process.
int64_t WatchdogInterval() {
  const char* pid = std::getenv("WATCHDOG_PID");
  if (pid != nullptr && std::strtol(pid, nullptr, 10) != getpid()) return 0;
  const char* usec = std::getenv("WATCHDOG_USEC");
  if (usec == nullptr) return 0;
  char* end = nullptr;
  const unsigned long long interval = std::strtoull(usec, &end, 10);
  if (end == usec || *end != '\0' || interval == 0 ||
      interval > INT64_MAX / 1000)
    return 0;
  return static_cast<int64_t>(interval) * 1000;
}

}  // namespace

void TakeServiceManager() {
  const char* name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr) return;
  s_managerLength = ManagerAddress(name, s_manager);
  s_watchdogNs = s_managerLength != 0 ? WatchdogInterval() : 0;
  // Whatever this process starts is not the manager's main process.
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  unsetenv("WATCHDOG_PID");
}

bool UnderServiceManager() { return s_managerLength != 0; }

void NotifyServiceManager(const char* state) {
  if (s_managerLength == 0) return;
  const int savedErrno = errno;
  // A socket for each report: between reports the service keeps only the
  // descriptors it opened itself.
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd >= 0) {
    sendto(fd, state, std::strlen(state), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&s_manager), s_managerLength);
    close(fd);
  }
  errno = savedErrno;
}

void FeedWatchdog() {
  if (s_watchdogNs == 0) return;
  // A report every quarter interval at the least, so that a Process that
  // returns within a quarter keeps the gaps under half.
  const int64_t now = MonotonicNs();
  if (s_lastWatchdogNs != 0 && now - s_lastWatchdogNs < s_watchdogNs / 4)
    return;
  s_lastWatchdogNs = now;
  NotifyServiceManager("WATCHDOG=1");
}

}  // namespace qel_util
