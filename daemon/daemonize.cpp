// Detaching from the terminal and redirecting the standard streams.

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/instance.h"

// close_range by number: the device's C library may predate its wrapper and
// even its number. Every architecture numbers the calls added since Linux 5.1
// alike, apart from the offsets of alpha and MIPS.
#ifndef __NR_close_range
#if defined(__alpha__)
#define __NR_close_range 546
#elif defined(__mips__)
#define __NR_close_range (__NR_Linux + 436)
#else
#define __NR_close_range 436
#endif
#endif

namespace qel_util {
namespace {

[[noreturn]] void FailWithErrno() {
  Daemon::debug(QEL_HERE, "%s", std::strerror(errno));
  std::exit(1);
}

void CloseDescriptor(int fd) {
  while (close(fd) == -1 && errno == EINTR) {
  }
}

// Closes every descriptor from 3 up to `bound` - 1 in a time that grows with
// what is open, not with `bound`: close_range (Linux 5.9), else the entries
// of /proc/self/fd, else every number.
void CloseDescriptorsBelow(int bound) {
  if (bound <= 3) return;
  // syscall reads each argument as a long.
  if (syscall(__NR_close_range, 3L, static_cast<long>(bound - 1), 0L) == 0)
    return;
  // A listing that lacks the directory's own descriptor is not this
  // process's (no procfs there); it cannot be trusted to be complete.
  bool listed = false;
  if (DIR* dir = opendir("/proc/self/fd")) {
    const int own = dirfd(dir);
    while (const dirent* entry = readdir(dir)) {
      char* end = nullptr;
      const long fd = std::strtol(entry->d_name, &end, 10);
      if (end == entry->d_name || *end != '\0') continue;
      if (fd == own)
        listed = true;
      else if (fd > 2 && fd < bound)
        CloseDescriptor(static_cast<int>(fd));
    }
    closedir(dir);
  }
  if (listed) return;
  for (int fd = 3; fd < bound; ++fd) CloseDescriptor(fd);
}

}  // namespace

void DaemonImpl::daemonize() {
  if (std::atexit(shutdown0) != 0) {
    Daemon::debug(QEL_HERE, "Failed to set exit handler.");
    std::exit(1);
  }
  if (!m_foreground) {
    // A manager that waits for READY=1 knows the process it started, which
    // must stay the service; it is a session leader already.
    if (!UnderServiceManager()) fork();
    // Check and write as one step against other starters.
    PidfileDirectoryLock lock(m_pidfile);
    checkPidfileOrShutdown();
    writePidfile();
  }
  m_isRunning = true;
  umask(0);
  if (chdir("/") != 0) FailWithErrno();
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) FailWithErrno();
  if (limit.rlim_max == 0) {
    Daemon::debug(QEL_HERE, "Max number of open file descriptors is 0!!");
    std::exit(1);
  }
  // An unlimited (or absurdly large) hard limit gives no bound to close up
  // to; such a process keeps what it inherited.
  const int bound = static_cast<int>(limit.rlim_max);
  if (bound <= 0) return;
  // Syslog's socket goes with the rest; told so, glibc cannot later take
  // over a descriptor of the service that got that number.
  closelog();
  CloseDescriptorsBelow(bound);
  ReopenLog();
}

void DaemonImpl::fork() {
  pid_t pid = ::fork();
  if (pid < 0) FailWithErrno();
  if (pid > 0) std::exit(0);
  if (setsid() < 0) FailWithErrno();
}

int DaemonImpl::openFileFor(int fd, const char* path, int flags) {
  int opened = open(path, flags, 0644);
  if (opened < 0) return -1;
  if (opened == fd) return fd;
  // Unlike a bare dup2 failure path, the temporary descriptor is never left
  // behind; the caller still sees dup2's errno.
  int moved = dup2(opened, fd);
  int error = errno;
  close(opened);
  errno = error;
  if (moved < 0) return -1;
  return fd;
}

void DaemonImpl::redirectStreamsTo(const char* path) {
  if (openFileFor(STDIN_FILENO, "/dev/null", O_RDONLY) < 0) {
    Daemon::debug(QEL_HERE, "Failed to open /dev/null for STDIN: %s",
                  std::strerror(errno));
    std::exit(1);
  }
  const int kAppend = O_WRONLY | O_CREAT | O_APPEND;
  if (openFileFor(STDOUT_FILENO, path, kAppend) < 0) {
    Daemon::debug(QEL_HERE, "Failed to open %s for STDOUT: %s", path,
                  std::strerror(errno));
    std::exit(1);
  }
  if (openFileFor(STDERR_FILENO, path, kAppend) < 0) {
    Daemon::debug(QEL_HERE, "Failed to open %s for STDERR: %s", path,
                  std::strerror(errno));
    std::exit(1);
  }
}

void DaemonImpl::runningOk(bool ok) {
  if (!ok) redirectStreamsTo("/dev/null");
}

}  // namespace qel_util
