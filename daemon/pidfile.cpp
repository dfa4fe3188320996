// Guarding and publishing the pid file.

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/instance.h"

namespace qel_util {
namespace {

// The leading unsigned number of `text` as a pid; 0 for none. A number that
// does not fit in 32 bits reads as the largest one, and any number above
// INT_MAX comes out negative: on every platform as a 32-bit "%u" reads it,
// so it can never name a live process.
int ParsePid(const char* text) {
  char* end = nullptr;
  errno = 0;
  unsigned long long number = std::strtoull(text, &end, 10);
  if (end == text) return 0;
  if (errno == ERANGE || number > UINT_MAX) number = UINT_MAX;
  return static_cast<int>(static_cast<unsigned int>(number));
}

}  // namespace

PidfileDirectoryLock::PidfileDirectoryLock(const char* pidfile) : m_fd(-1) {
  if (pidfile == nullptr) return;
  // The directory part of the path, on the stack: shutdown takes this lock
  // too, also on the way out of a crash, where the heap may be unusable.
  char directory[PATH_MAX] = ".";
  if (const char* slash = std::strrchr(pidfile, '/')) {
    const size_t length = slash == pidfile ? 1 : slash - pidfile;
    if (length >= sizeof directory) return;
    std::memcpy(directory, pidfile, length);
    directory[length] = '\0';
  }
  m_fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_fd < 0) return;
  // A stop signal only lowers the running flag: wait on.
  while (flock(m_fd, LOCK_EX) == -1 && errno == EINTR) {
  }
}

PidfileDirectoryLock::~PidfileDirectoryLock() {
  if (m_fd >= 0) close(m_fd);
}

int Daemon::CheckPidFile(const char* path, int& pid) {
  pid = 0;
  struct stat st;
  if (stat(path, &st) != 0) {
    if (errno == ENOENT) return 1;
    debug(QEL_HERE, "Failed to stat pidfile '%s': %s.", path,
          std::strerror(errno));
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    debug(QEL_HERE, "Pidfile '%s' is not a regular file.", path);
    return -1;
  }
  if (FILE* file = std::fopen(path, "r")) {
    char text[32];
    if (std::fscanf(file, "%31s", text) == 1) pid = ParsePid(text);
    std::fclose(file);
  } else {
    debug(QEL_HERE, "Failed to open pidfile '%s': %s.", path,
          std::strerror(errno));
  }
  if (pid == 0) {
    debug(QEL_HERE, "Failed to read pid from '%s'.", path);
    return -1;
  }
  // Above INT_MAX no process can have it: nothing alive is named.
  if (pid < 0) return 1;
  if (kill(pid, 0) == 0) return 0;
  if (errno == ESRCH) return 1;
  debug(QEL_HERE, "Failed to test for process %u defined in pidfile '%s': %s",
        static_cast<unsigned int>(pid), path, std::strerror(errno));
  return -1;
}

void DaemonImpl::checkPidfileOrShutdown() {
  if (m_pidfile == nullptr) return;
  int pid = 0;
  int result = Daemon::CheckPidFile(m_pidfile, pid);
  if (result < 0) std::exit(1);
  if (result == 0) {
    Daemon::debug(QEL_HERE,
                  "Quitting because process %u defined in pidfile '%s' is "
                  "already running.",
                  static_cast<unsigned int>(pid), m_pidfile);
    std::exit(1);
  }
}

void DaemonImpl::writePidfile() {
  if (m_pidfile == nullptr) return;
  if (FILE* file = std::fopen(m_pidfile, "w")) {
    int written = std::fprintf(file, "%u\n", static_cast<unsigned int>(getpid()));
    int closed = std::fclose(file);
    if (written >= 0 && closed == 0) {
      m_pidfileWritten = true;
      return;
    }
  }
  if (!m_pidfileWritten)
    Daemon::debug(QEL_HERE, "Failed to write pidfile '%s': %s.", m_pidfile,
                  std::strerror(errno));
}

}  // namespace qel_util
