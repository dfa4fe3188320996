#ifndef QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

// A datagram listener bound at "/dev/log", so that a test sees exactly what
// the library (or a daemon it started) sent to syslog. Use it inside a
// sandbox, whose /dev is private.

#include <chrono>
#include <string>
#include <vector>

namespace qel_test {

struct SyslogLine {
  int priority = -1;    // facility | level, as sent
  std::string ident;    // the tag before ": " (without "[pid]")
  int pid = 0;          // from "[pid]" when LOG_PID was used, else 0
  std::string message;  // the text after "ident: " or "ident[pid]: "
  std::string raw;      // the whole datagram
};

class SyslogCapture {
 public:
  SyslogCapture();  // fails the test when "/dev/log" cannot be bound
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  // Every line received so far, waiting until `count` lines have arrived or
  // `timeout` has passed. Lines returned are not returned again.
  std::vector<SyslogLine> Take(
      size_t count = 0,
      std::chrono::milliseconds timeout = std::chrono::milliseconds(300));

 private:
  int m_fd;
};

SyslogLine ParseSyslogLine(const std::string& raw);

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
