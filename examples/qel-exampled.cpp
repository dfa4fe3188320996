// An example service on the daemon framework: it detaches, publishes its pid
// file, logs to syslog and waits for work until a stop signal ends it.
//
//   qel-exampled [--foreground] [--debug] [--pidfile NAME|PATH]

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

#include "qel_util/daemon.h"

namespace {

class ExampleService : public qel_util::Daemon {
 public:
  void Process() override {
    // Waiting here is interrupted (EINTR) by the stop signals, which is how
    // the main loop gets to see its running flag cleared.
    if (poll(nullptr, 0, 1000) == 0) debug("still running as pid %d", getpid());
  }
};

}  // namespace

int main(int argc, char** argv) {
  ExampleService service;
  int debugFlag = 0;
  service.setDebugFlag(debugFlag);
  service.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--foreground") == 0) service.foreground(true);
    else if (std::strcmp(argv[i], "--debug") == 0) debugFlag = 1;
    else if (std::strcmp(argv[i], "--pidfile") == 0 && i + 1 < argc)
      service.pidfile(argv[++i]);
  }
  service.OpenLog(service.GetName(), LOG_PID, 0);
  service.daemonize();
  // Detached for good: the terminal (or a pipe we were started from) must
  // not be held open. Everything worth keeping goes to syslog.
  if (debugFlag == 0) service.runningOk(false);
  qel_util::Daemon::SysLog(LOG_NOTICE, "%s started", service.GetName());
  service.Run();
}
