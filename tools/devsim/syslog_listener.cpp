#include "syslog_listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qel_devsim {

namespace {

// The decimal number of at most `digits` digits that fills [begin, end) of
// `text`, or -1.
int Number(const std::string& text, size_t begin, size_t end, size_t digits) {
  if (end <= begin || end - begin > digits || end > text.size()) return -1;
  int value = 0;
  for (size_t i = begin; i < end; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

SyslogLine ParseSyslogLine(const std::string& raw) {
  SyslogLine line;
  line.raw = raw;
  // The largest priority is local7.debug, 23 * 8 + 7.
  const size_t close = raw.find('>');
  const int priority = raw.compare(0, 1, "<") == 0 && close != std::string::npos
                           ? Number(raw, 1, close, 3) : -1;
  const size_t tag = close + 1 + 16;  // after the time stamp
  const size_t colon = raw.find(": ", tag);
  if (priority < 0 || priority > 191 || tag > raw.size() || colon == std::string::npos)
    return line;
  line.priority = priority;
  line.ident = raw.substr(tag, colon - tag);
  const size_t bracket = line.ident.find('[');
  if (bracket != std::string::npos) {
    const int pid = Number(line.ident, bracket + 1, line.ident.size() - 1, 9);
    if (line.ident.back() == ']' && pid > 0) line.pid = pid;
    line.ident.resize(bracket);
  }
  line.message = raw.substr(colon + 2);
  return line;
}

SyslogListener::SyslogListener()
    : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{AF_UNIX, "/dev/log"};
  unlink(address.sun_path);
  if (m_fd < 0 ||
      bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    m_error = std::string("binding /dev/log: ") + std::strerror(errno);
}

SyslogListener::~SyslogListener() {
  if (m_fd >= 0) close(m_fd);
  unlink("/dev/log");
}

std::vector<std::string> SyslogListener::Take(size_t count,
                                              std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::vector<std::string> lines;
  for (pollfd ready{m_fd, POLLIN, 0};;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now()).count();
    // Collect what is there already; wait only while more is expected.
    const int wait = lines.size() >= count ? 0 : std::max<int>(0, left);
    char datagram[8192];
    if (poll(&ready, 1, wait) <= 0) {
      if (wait == 0) return lines;
    } else if (ssize_t n = recv(m_fd, datagram, sizeof datagram, MSG_DONTWAIT); n >= 0) {
      lines.emplace_back(datagram, n);
    }
  }
}

}  // namespace qel_devsim
