#ifndef QEL_DEVSIM_SYSLOG_LISTENER_H_
#define QEL_DEVSIM_SYSLOG_LISTENER_H_

#include <chrono>
#include <string>
#include <vector>

namespace qel_devsim {

struct SyslogLine {
  int priority = -1;    // facility | level
  std::string ident;    // without "[pid]"
  int pid = 0;          // from "[pid]", else 0
  std::string message;  // after "ident: " or "ident[pid]: "
  std::string raw;      // the whole datagram
};

// "<PRI>Mmm dd hh:mm:ss ident[pid]: message"; priority -1 when not so (PRI
// is 0 to 191). A "[...]" that holds no pid is dropped from the ident.
SyslogLine ParseSyslogLine(const std::string& raw);

// A syslog daemon's socket bound at "/dev/log" (of a private /dev).
class SyslogListener {
 public:
  SyslogListener();
  ~SyslogListener();
  SyslogListener(const SyslogListener&) = delete;
  SyslogListener& operator=(const SyslogListener&) = delete;

  const std::string& Error() const { return m_error; }  // "" when bound
  int Fd() const { return m_fd; }

  // The datagrams not yet taken, waiting up to `timeout` for `count` of them.
  std::vector<std::string> Take(size_t count, std::chrono::milliseconds timeout);

 private:
  int m_fd;
  std::string m_error;
};

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_SYSLOG_LISTENER_H_
