#include "support/syslog_capture.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

namespace qel_test {

SyslogCapture::SyslogCapture()
    : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  if (m_fd < 0 ||
      bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    ADD_FAILURE() << "binding /dev/log: " << std::strerror(errno);
}

SyslogCapture::~SyslogCapture() {
  if (m_fd >= 0) close(m_fd);
  unlink("/dev/log");
}

std::vector<SyslogLine> SyslogCapture::Take(size_t count,
                                            std::chrono::milliseconds timeout) {
  std::vector<SyslogLine> lines;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    // Collect what is there already, then wait only while more is expected.
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    int wait = lines.size() >= count ? 0 : std::max<int>(0, left.count());
    pollfd ready{m_fd, POLLIN, 0};
    if (poll(&ready, 1, wait) <= 0) {
      if (lines.size() >= count || left.count() <= 0) return lines;
      continue;
    }
    char datagram[8192];
    ssize_t n = recv(m_fd, datagram, sizeof datagram, MSG_DONTWAIT);
    if (n >= 0) lines.push_back(ParseSyslogLine(std::string(datagram, n)));
  }
}

SyslogLine ParseSyslogLine(const std::string& raw) {
  // "<PRI>Mmm dd hh:mm:ss ident[pid]: message"
  SyslogLine line;
  line.raw = raw;
  size_t close = raw.find('>');
  if (raw.empty() || raw[0] != '<' || close == std::string::npos) return line;
  line.priority = std::atoi(raw.c_str() + 1);
  size_t tag = close + 1 + 16;
  size_t colon = raw.find(": ", tag);
  if (tag > raw.size() || colon == std::string::npos) return line;
  line.ident = raw.substr(tag, colon - tag);
  size_t bracket = line.ident.find('[');
  if (bracket != std::string::npos) {
    line.pid = std::atoi(line.ident.c_str() + bracket + 1);
    line.ident.resize(bracket);
  }
  line.message = raw.substr(colon + 2);
  return line;
}

}  // namespace qel_test
