// Arguments, in order: pidfile=P|holdfd|openlog|foreground|daemonize|report|
// udp|lockheap|exitfault|segv|bus|syslog (the fault, on /mnt/crash)|run

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel_util/daemon.h"
#include "qel_util/net.h"

static std::string g_fault;  // what Process does once /mnt/crash exists

static void WriteReport() {  // to /mnt/report
  std::string fds;
  for (int fd = 0; fd < 64; ++fd)
    if (fcntl(fd, F_GETFD) != -1) fds += std::to_string(fd) + ",";
  char cwd[256] = "?";
  // While the SIGCHLD handler is installed; the child tells what of a service
  // manager's environment it inherited.
  FILE* child = popen("echo \"$NOTIFY_SOCKET$WATCHDOG_USEC$WATCHDOG_PID\"; exit 3", "r");
  char inherited[128] = "";
  if (!std::fgets(inherited, sizeof inherited, child)) inherited[0] = '\0';
  inherited[std::strcspn(inherited, "\n")] = '\0';
  FILE* out = std::fopen("/mnt/report", "w");
  std::fprintf(out, "pid=%d sid=%d umask=%03o cwd=%s fds=%s inherited=%s pclose=%d\n", getpid(),
               getsid(0), umask(0), getcwd(cwd, sizeof cwd) ? cwd : "?", fds.c_str(), inherited,
               pclose(child));
  std::fclose(out);
}

// A service's own sockets made after daemonize, and a log line between:
// prints "udp <bytes the server received>".
static void ExchangeDatagram(qel_util::Daemon& daemon) {
  qel_util::UdpServer server("@netd");
  qel_util::UdpClient client("@netc", "@netd");
  server.Init();
  client.Init();
  daemon.SysLog(LOG_NOTICE, "serving");
  unsigned char data[4] = {'p', 'i', 'n', 'g'};
  client.Write(data, sizeof data);
  std::printf("udp %d\n", server.Read(data, sizeof data));
  std::fflush(stdout);
}

// Stops for ever inside the allocator with the main arena's lock held, the
// state a fault inside malloc leaves: malloc_stats prints to stderr under
// that lock, and this stderr is a full pipe nobody reads. (The sanitizers'
// malloc_stats takes no such lock; there the heap stays usable.)
static void* StopInsideTheAllocator(void*) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_NONBLOCK) != 0) return nullptr;
  static const char kFill[4096] = {};
  while (write(pipeFds[1], kFill, sizeof kFill) > 0) {
  }
  fcntl(pipeFds[1], F_SETFL, 0);
  stderr = fdopen(pipeFds[1], "w");
  malloc_stats();
  return nullptr;
}

// Reads the empty file /mnt/crash mapped, without the heap: with no access
// at all that is SIGSEGV, with PROT_READ (past its end) SIGBUS.
static void Fault(int protection) {
  void* page = mmap(nullptr, 4096, protection, MAP_SHARED, open("/mnt/crash", O_RDONLY), 0);
  (void)*static_cast<volatile char*>(page);
}

class TestDaemon : public qel_util::Daemon {
 public:
  void Process() override {
    if (g_fault.empty() || access("/mnt/crash", F_OK) != 0) return (void)usleep(10000);
    if (g_fault == "syslog") syslog(LOG_INFO, "%s", reinterpret_cast<const char*>(16));
    Fault(g_fault == "bus" ? PROT_READ : PROT_NONE);
  }
};

int main(int argc, char** argv) {
  TestDaemon daemon;
  daemon.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    pthread_t thread;
    if (arg.rfind("pidfile=", 0) == 0) daemon.pidfile(argv[i] + 8);
    else if (arg == "holdfd") open("/dev/null", O_RDONLY);
    else if (arg == "openlog") daemon.OpenLog("netd", LOG_NDELAY, LOG_LOCAL0);
    else if (arg == "foreground") daemon.foreground(true);
    else if (arg == "daemonize") daemon.daemonize();
    else if (arg == "report") WriteReport();
    else if (arg == "udp") ExchangeDatagram(daemon);
    else if (arg == "lockheap") pthread_create(&thread, nullptr, StopInsideTheAllocator, nullptr);
    else if (arg == "exitfault") std::atexit([] { Fault(PROT_NONE); });
    else if (arg == "segv" || arg == "bus" || arg == "syslog") g_fault = arg;
    else if (arg == "run") daemon.Run();
    else return 64;
  }
}
