#ifndef QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <chrono>
#include <string>
#include <vector>
#include <gtest/gtest.h>

#include "devsim/syslog_listener.h"

namespace qel_test {

using qel_devsim::ParseSyslogLine;
using qel_devsim::SyslogLine;

// qel-devsim's listener at "/dev/log"; use it in a sandbox.
class SyslogCapture {
 public:
  SyslogCapture() {
    if (!m_listener.Error().empty()) ADD_FAILURE() << m_listener.Error();
  }

  // The lines not yet taken, waiting up to `timeout` for `count` of them
  // (a slow emulator may take seconds; no wait when none is expected).
  std::vector<SyslogLine> Take(
      size_t count = 0,
      std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::vector<SyslogLine> lines;
    for (const std::string& raw : m_listener.Take(count, timeout))
      lines.push_back(ParseSyslogLine(raw));
    return lines;
  }

 private:
  qel_devsim::SyslogListener m_listener;
};

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
