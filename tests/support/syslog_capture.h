#ifndef QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>
#include <gtest/gtest.h>

namespace qel_test {

struct SyslogLine {
  int priority = -1;    // facility | level
  std::string ident;    // without "[pid]"
  int pid = 0;          // from "[pid]", else 0
  std::string message;  // after "ident: " or "ident[pid]: "
  std::string raw;      // the whole datagram
};

// "<PRI>Mmm dd hh:mm:ss ident[pid]: message"
inline SyslogLine ParseSyslogLine(const std::string& raw) {
  SyslogLine line;
  line.raw = raw;
  const size_t tag = raw.find('>') + 1 + 16;  // after the time stamp
  const size_t colon = raw.find(": ", tag);
  if (raw.compare(0, 1, "<") != 0 || tag > raw.size() ||
      colon == std::string::npos)
    return line;
  line.priority = std::atoi(raw.c_str() + 1);
  line.ident = raw.substr(tag, colon - tag);
  const size_t bracket = line.ident.find('[');
  if (bracket != std::string::npos) {
    line.pid = std::atoi(line.ident.c_str() + bracket + 1);
    line.ident.resize(bracket);
  }
  line.message = raw.substr(colon + 2);
  return line;
}

// A listener bound at "/dev/log"; use it in a sandbox.
class SyslogCapture {
 public:
  SyslogCapture() : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, "/dev/log"};
    unlink(address.sun_path);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      ADD_FAILURE() << "binding /dev/log: " << std::strerror(errno);
  }
  ~SyslogCapture() {
    if (m_fd >= 0) close(m_fd);
    unlink("/dev/log");
  }
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  // The lines not yet taken, waiting up to `timeout` for `count` of them.
  std::vector<SyslogLine> Take(
      size_t count = 0,
      std::chrono::milliseconds timeout = std::chrono::milliseconds(300)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<SyslogLine> lines;
    for (pollfd ready{m_fd, POLLIN, 0};;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now()).count();
      // Collect what is there already; wait only while more is expected.
      const int wait = lines.size() >= count ? 0 : std::max<int>(0, left);
      char datagram[8192];
      if (poll(&ready, 1, wait) <= 0) {
        if (wait == 0) return lines;
      } else if (ssize_t n = recv(m_fd, datagram, sizeof datagram, MSG_DONTWAIT); n >= 0) {
        lines.push_back(ParseSyslogLine(std::string(datagram, n)));
      }
    }
  }

 private:
  int m_fd;
};

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
