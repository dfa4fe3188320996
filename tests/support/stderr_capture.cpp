#include "support/stderr_capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

namespace qel_test {

StderrCapture::StderrCapture() : m_saved(-1), m_file(-1) {
  std::fflush(stderr);
  m_file = memfd_create("stderr", MFD_CLOEXEC);
  m_saved = fcntl(2, F_DUPFD_CLOEXEC, 3);
  if (m_file < 0 || m_saved < 0 || dup2(m_file, 2) < 0)
    ADD_FAILURE() << "capturing stderr: " << std::strerror(errno);
}

StderrCapture::~StderrCapture() {
  std::fflush(stderr);
  if (m_saved >= 0) {
    dup2(m_saved, 2);
    close(m_saved);
  }
  if (m_file >= 0) close(m_file);
}

std::string StderrCapture::Text() {
  std::fflush(stderr);
  std::string text;
  char chunk[512];
  ssize_t n;
  for (off_t at = 0; (n = pread(m_file, chunk, sizeof chunk, at)) > 0; at += n)
    text.append(chunk, static_cast<size_t>(n));
  return text;
}

}  // namespace qel_test
