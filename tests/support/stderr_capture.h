#ifndef QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_
#define QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_

// Sends descriptor 2 to a private in-memory file for the capture's lifetime,
// so that a test can assert the exact text the library wrote with perror or
// fprintf(stderr, ...), from any thread.

#include <string>

namespace qel_test {

class StderrCapture {
 public:
  StderrCapture();   // fails the test when the redirection cannot be made
  ~StderrCapture();  // puts the original standard error back
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything written to standard error since the capture began.
  std::string Text();

 private:
  int m_saved;
  int m_file;
};

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_STDERR_CAPTURE_H_
