// The simulator's syslog line parser on any datagram: a line it accepts has
// a priority syslog can give (0 to 191) and its parts are pieces of the
// datagram in order; one it refuses keeps priority -1 and nothing else.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "devsim/syslog_listener.h"

using qel_devsim::ParseSyslogLine;
using qel_devsim::SyslogLine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  auto check = [](bool ok) { if (!ok) std::abort(); };
  const auto npos = std::string::npos;
  const SyslogLine line = ParseSyslogLine(raw);
  check(line.raw == raw);
  if (line.priority == -1) {
    check(line.ident.empty() && line.pid == 0 && line.message.empty());
    return 0;
  }
  check(line.priority >= 0 && line.priority <= 191 && raw[0] == '<');
  const size_t tag = raw.find('>') + 17;  // behind the time stamp
  check(raw.compare(tag, line.ident.size(), line.ident) == 0);
  check(line.pid >= 0 && line.ident.find('[') == npos);
  if (line.pid) check(raw[tag + line.ident.size()] == '[');
  check(raw.size() >= line.message.size() + 2 &&
        raw.compare(raw.size() - line.message.size() - 2, npos,
                    ": " + line.message) == 0);
  return 0;
}
