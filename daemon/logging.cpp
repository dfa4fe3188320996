// Tagged lines, debug lines and syslog messages. Each call composes its text
// in a stack buffer of its own: no heap, no lock, usable from the crash
// handler and from any thread.

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "daemon/instance.h"

namespace qel_util {
namespace {

constexpr size_t kLineSize = 512;

// What OpenLog opened syslog with, for ReopenLog.
int s_logOption = 0;
int s_logFacility = LOG_DAEMON;

// One writev, so that a line and its newline are not split by another
// thread's output.
void WriteStderr(const char* text, bool newline) {
  iovec parts[2] = {{const_cast<char*>(text), std::strlen(text)},
                    {const_cast<char*>("\n"), 1}};
  ssize_t ignored = writev(STDERR_FILENO, parts, newline ? 2 : 1);
  (void)ignored;
}

}  // namespace

void Daemon::debug(bool enabled, const char* file, int line,
                   const char* format, ...) {
  if (!enabled) return;
  char text[kLineSize] = {};
  int prefix = std::snprintf(text, sizeof text, "%s %d: ", file, line);
  if (prefix < 0) prefix = 0;
  if (static_cast<size_t>(prefix) < sizeof text) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text + prefix, sizeof text - prefix, format, args);
    va_end(args);
  }
  // The finished text is never used as a format again: '%' stays '%'.
  syslog(LOG_INFO, "%s", text);
  WriteStderr(text, true);
}

void Daemon::debug(const char* format, ...) {
  if (s_daemonImpl.getDebugFlag() == 0) return;
  char text[kLineSize];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  WriteStderr(text, true);
}

void Daemon::SysLog(int priority, const char* format, ...) {
  char text[kLineSize];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslog(priority == 0 ? LOG_INFO : priority, "%s", text);
  if (s_daemonImpl.getDebugFlag() != 0) WriteStderr(text, false);
}

void DaemonImpl::setDebugFlag(int& flag) { m_debugFlag = &flag; }

int DaemonImpl::getDebugFlag() const {
  return m_debugFlag == nullptr ? 0 : *m_debugFlag;
}

void DaemonImpl::OpenLog(const char* ident, int option, int facility) {
  m_logOpen = true;
  if (ident != nullptr) {
    std::strncpy(m_logIdent, ident, sizeof m_logIdent - 1);
    m_logIdent[sizeof m_logIdent - 1] = '\0';
  } else {
    std::strcpy(m_logIdent, "?");
  }
  s_logOption = option;
  s_logFacility = facility == 0 ? LOG_DAEMON : facility;
  openlog(m_logIdent, s_logOption, s_logFacility);
}

void ReopenLog() {
  // Without LOG_NDELAY: the socket comes with the next line, after the
  // service has made its own descriptors.
  if (s_daemonImpl.m_logOpen)
    openlog(s_daemonImpl.m_logIdent, s_logOption & ~LOG_NDELAY, s_logFacility);
}

}  // namespace qel_util
