#ifndef QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_
#define QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <gtest/gtest.h>

#include "devsim/sandbox.h"

namespace qel_test {

// Sends descriptor 2 to an in-memory file while it lives, so a test sees the
// exact text written to standard error from any thread.
class StderrCapture {
 public:
  StderrCapture()
      : m_saved((std::fflush(stderr), fcntl(2, F_DUPFD_CLOEXEC, 3))),
        m_file(memfd_create("stderr", MFD_CLOEXEC)) {
    if (m_file < 0 || m_saved < 0 || dup2(m_file, 2) < 0)
      ADD_FAILURE() << "capturing stderr: " << std::strerror(errno);
  }
  ~StderrCapture() {
    std::fflush(stderr);
    if (m_saved >= 0) dup2(m_saved, 2), close(m_saved);
    if (m_file >= 0) close(m_file);
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  std::string Text() {  // everything written since the capture began
    std::fflush(stderr);
    return qel_devsim::ReadFile("/proc/self/fd/" + std::to_string(m_file));
  }

 private:
  int m_saved;
  int m_file;
};

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_
