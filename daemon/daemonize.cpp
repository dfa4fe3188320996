// Detaching from the terminal and redirecting the standard streams.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/instance.h"

namespace qel_util {
namespace {

[[noreturn]] void FailWithErrno() {
  Daemon::debug(QEL_HERE, "%s", std::strerror(errno));
  std::exit(1);
}

}  // namespace

void DaemonImpl::daemonize() {
  if (std::atexit(shutdown0) != 0) {
    Daemon::debug(QEL_HERE, "Failed to set exit handler.");
    std::exit(1);
  }
  if (!m_foreground) {
    fork();
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
  for (int fd = 0; fd < bound; ++fd) {
    if (fd == fileno(stdin) || fd == fileno(stdout) || fd == fileno(stderr))
      continue;
    while (close(fd) == -1 && errno == EINTR) {
    }
  }
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
