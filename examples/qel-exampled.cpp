// An example service on the daemon framework. It detaches, publishes its pid
// file, logs to syslog and then serves two kinds of peers from one poll loop:
//
//   - a System V message queue: a request of type 1 is answered with a
//     message of type 2 ("qel-exampled got '<text>'");
//   - datagrams on the abstract socket name "@qel-exampled": "ping" is
//     answered with "pong", "neighbour <IPv4>" with the neighbour check
//     ("neighbour 10.0.0.2 2"), anything else with "unknown <text>".
//
// Two requests, on either path, exist to test a service manager and are
// never answered: "hang" stops the main loop for good (a watchdog must end
// the service), "crash" faults (the crash handler writes the dump and ends
// the service with status 1).
//
// Under systemd (examples/qel-exampled.service, Type=notify) the framework
// reports readiness and feeds the watchdog; Process returns at least once a
// second, so any WatchdogSec= of 4 seconds or more holds.
//
//   qel-exampled [--foreground] [--debug] [--pidfile NAME|PATH] [--key KEY]

#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "qel_util/daemon.h"
#include "qel_util/ipc.h"
#include "qel_util/net.h"

namespace {

constexpr int kDefaultKey = 0x51E1;
constexpr long kRequestType = 1;
constexpr long kAnswerType = 2;

struct QueueMessage {
  long type;
  char text[256];
};

// Read through volatile, so the compiler cannot see the fault coming and
// the crash is a real one, in the middle of the service's own code.
int* volatile g_nowhere = nullptr;

// Carries out the requests that test a service manager (see above).
void ObeyTestRequest(const std::string& request) {
  if (request == "hang")
    for (;;) pause();  // a stop signal lowers the flag, and is ignored here
  if (request == "crash") *g_nowhere = 1;
}

std::string Answer(const std::string& request) {
  if (request == "ping") return "pong";
  const std::string neighbour = "neighbour ";
  if (request.compare(0, neighbour.size(), neighbour) == 0) {
    const std::string address = request.substr(neighbour.size());
    try {
      return request + " " +
             std::to_string(qel_util::CheckIPv4Address(address.c_str()));
    } catch (const std::runtime_error& e) {
      return request + " error " + e.what();
    }
  }
  return "unknown " + request;
}

class ExampleService : public qel_util::Daemon {
 public:
  // Queue, thread and socket are made after daemonize: it forks and closes
  // every inherited descriptor.
  void Start(int key) {
    m_queue = std::make_unique<qel_util::cMsgQHandler>(key, kRequestType);
    m_socket = std::make_unique<qel_util::UdpServer>("@qel-exampled");
    if (m_socket->Init() != 0) SysLog(LOG_ERR, "no datagram socket");
  }

  void Process() override {
    pollfd ready[2] = {{m_queue->get_fd(), POLLIN, 0},
                       {m_socket->get_fd(), POLLIN, 0}};
    // A stop signal interrupts the wait (EINTR); the main loop then sees its
    // running flag down. Returning at least once a second feeds a watchdog.
    if (poll(ready, 2, 1000) <= 0) return;
    if (ready[0].revents & POLLIN) ServeQueue();
    if (ready[1].revents & POLLIN) ServeDatagrams();
  }

 private:
  void ServeQueue() {
    QueueMessage request{};
    // Drain until rx says nothing more was taken, which re-arms the watcher.
    while (m_queue->rx(&request, sizeof request - 1, IPC_NOWAIT | MSG_NOERROR) == 0) {
      QueueMessage answer{kAnswerType, {}};
      const std::string text =
          std::string(GetName()) + " got '" + request.text + "'";
      std::strncpy(answer.text, text.c_str(), sizeof answer.text - 1);
      SysLog(LOG_INFO, "queue: %s", request.text);
      ObeyTestRequest(request.text);
      m_queue->tx(&answer, sizeof(long) + std::strlen(answer.text) + 1,
                  IPC_NOWAIT);
      request = QueueMessage{};
    }
  }

  void ServeDatagrams() {
    unsigned char buffer[512];
    int length;
    while ((length = m_socket->Read(buffer, sizeof buffer)) > 0) {
      const std::string request(reinterpret_cast<char*>(buffer), length);
      ObeyTestRequest(request);
      const std::string answer = Answer(request);
      SysLog(LOG_INFO, "datagram: %s -> %s", request.c_str(), answer.c_str());
      m_socket->Write(reinterpret_cast<const unsigned char*>(answer.data()),
                      answer.size());
    }
  }

  std::unique_ptr<qel_util::cMsgQHandler> m_queue;
  std::unique_ptr<qel_util::UdpServer> m_socket;
};

}  // namespace

int main(int argc, char** argv) {
  ExampleService service;
  int debugFlag = 0;
  int key = kDefaultKey;
  service.setDebugFlag(debugFlag);
  service.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--foreground") == 0) service.foreground(true);
    else if (std::strcmp(argv[i], "--debug") == 0) debugFlag = 1;
    else if (std::strcmp(argv[i], "--pidfile") == 0 && i + 1 < argc)
      service.pidfile(argv[++i]);
    else if (std::strcmp(argv[i], "--key") == 0 && i + 1 < argc)
      key = std::strtol(argv[++i], nullptr, 0);
  }
  service.OpenLog(service.GetName(), LOG_PID, 0);
  // Started by hand, the launching command returns 0 here once the fork is
  // made; a refused second instance exits with status 1 in the forked child,
  // where the launcher cannot see it. Start through start-stop-daemon
  // --pidfile, or check the pid file, to know whether the start took. Under
  // systemd with Type=notify there is no fork, and a refused start fails.
  service.daemonize();
  // Detached for good: the terminal (or a pipe we were started from) must
  // not be held open. Everything worth keeping goes to syslog.
  if (debugFlag == 0) service.runningOk(false);
  service.Start(key);
  qel_util::Daemon::SysLog(LOG_NOTICE, "%s started", service.GetName());
  service.Run();
}
