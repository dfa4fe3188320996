// The public face (Daemon), the framework object and its life cycle.

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/instance.h"

namespace qel_util {

// Definition order is construction order: the object first, then the static
// members, so that exit handlers destroy the signal table before the object.
DaemonImpl s_daemonImpl;

std::atomic<int> DaemonImpl::m_receivedSignal{-1};
struct sigaction DaemonImpl::m_actExitApp;
struct sigaction DaemonImpl::m_actChild;
struct sigaction DaemonImpl::m_actStopApp;
struct sigaction DaemonImpl::m_actIgnore;
std::map<int, DaemonImpl::Signal> DaemonImpl::m_signals;
std::atomic<bool> DaemonImpl::m_isRunning{false};

static_assert(std::atomic<int>::is_always_lock_free &&
                  std::atomic<bool>::is_always_lock_free,
              "signal handlers need lock-free flags");

namespace {

// Replaces an owned strdup'ed string.
void Assign(char*& field, const char* text) {
  std::free(field);
  field = text ? strdup(text) : nullptr;
}

}  // namespace

DaemonImpl::DaemonImpl()
    : m_foreground(false),
      m_pidfile(nullptr),
      m_pidfileWritten(false),
      m_debugFlag(nullptr),
      m_logOpen(false),
      m_progName(nullptr) {}

DaemonImpl::~DaemonImpl() {
  std::free(m_pidfile);
  std::free(m_progName);
}

void DaemonImpl::initialize(int&, char**&) {}

bool DaemonImpl::IsRunning() const { return m_isRunning; }

void DaemonImpl::foreground(bool on) { m_foreground = on; }

void DaemonImpl::pidfile(const char* nameOrPath) {
  if (nameOrPath == nullptr) return;
  if (nameOrPath[0] == '/') {
    Assign(m_pidfile, nameOrPath);
  } else {
    std::string path = std::string("/var/run/") + nameOrPath + ".pid";
    Assign(m_pidfile, path.c_str());
  }
}

void DaemonImpl::shutdown(int) {
  if (m_pidfileWritten && m_pidfile != nullptr) {
    // Not while a starter is between its check and its write.
    PidfileDirectoryLock lock(m_pidfile);
    if (unlink(m_pidfile) != 0)
      Daemon::debug(QEL_HERE, "Failed to remove pidfile '%s': %s", m_pidfile,
                    std::strerror(errno));
  }
  m_pidfileWritten = false;
  if (m_logOpen) {
    closelog();
    m_logOpen = false;
  }
}

void shutdown0() { s_daemonImpl.shutdown(0); }

void shutdown2(int status, void*) { s_daemonImpl.shutdown(status); }

Daemon::Daemon() {}

Daemon::Daemon(int&, char**&) {}

Daemon::~Daemon() { s_daemonImpl.shutdown(0); }

void Daemon::Process() {}

int Daemon::Init(int&, char**& argv) {
  // Without an argv[0] there is no name to take; the old one stays.
  const char* first = argv != nullptr ? argv[0] : nullptr;
  if (first != nullptr) {
    const char* name = first[0] == '/' ? std::strrchr(first, '/') + 1 : first;
    Assign(s_daemonImpl.m_progName, name);
    s_daemonImpl.pidfile(s_daemonImpl.m_progName);
  }
  TakeServiceManager();
  return s_daemonImpl.Init();
}

void Daemon::Run() {
  if (s_daemonImpl.IsRunning()) NotifyServiceManager("READY=1");
  // The flag is an atomic: read afresh before every step.
  while (s_daemonImpl.IsRunning()) {
    FeedWatchdog();
    Process();
  }
  NotifyServiceManager("STOPPING=1");
  debug(QEL_HERE, "exit %i", getpid());
  std::exit(0);
}

bool Daemon::IsRunning() const { return s_daemonImpl.IsRunning(); }

const char* Daemon::GetName() const { return s_daemonImpl.m_progName; }

void Daemon::foreground(bool on) { s_daemonImpl.foreground(on); }

void Daemon::pidfile(const char* nameOrPath) {
  s_daemonImpl.pidfile(nameOrPath);
}

void Daemon::daemonize() { s_daemonImpl.daemonize(); }

void Daemon::runningOk(bool ok) { s_daemonImpl.runningOk(ok); }

void Daemon::setDebugFlag(int& flag) { s_daemonImpl.setDebugFlag(flag); }

void Daemon::OpenLog(const char* ident, int option, int facility) {
  s_daemonImpl.OpenLog(ident, option, facility);
}

}  // namespace qel_util
