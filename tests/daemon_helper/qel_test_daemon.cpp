// Arguments, in order: pidfile=P|holdfd|daemonize|report|segv|bus (on /mnt/crash)|run

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "qel_util/daemon.h"

static int g_fault = -1;  // the protection of the page to touch

static void WriteReport() {  // to /mnt/report
  std::string fds;
  for (int fd = 0; fd < 64; ++fd)
    if (fcntl(fd, F_GETFD) != -1) fds += std::to_string(fd) + ",";
  char cwd[256] = "?";
  FILE* child = popen("exit 3", "r");  // while the SIGCHLD handler is installed
  FILE* out = std::fopen("/mnt/report", "w");
  std::fprintf(out, "pid=%d sid=%d umask=%03o cwd=%s fds=%s pclose=%d\n", getpid(), getsid(0),
               umask(0), getcwd(cwd, sizeof cwd) ? cwd : "?", fds.c_str(), pclose(child));
  std::fclose(out);
}

class TestDaemon : public qel_util::Daemon {
 public:
  void Process() override {
    if (g_fault < 0 || access("/mnt/crash", F_OK) != 0) return (void)usleep(10000);
    // An empty file mapped: no access at all is SIGSEGV, reading is SIGBUS.
    void* page = mmap(nullptr, 4096, g_fault, MAP_SHARED, fileno(std::tmpfile()), 0);
    std::printf("%d\n", *static_cast<volatile char*>(page));
  }
};

int main(int argc, char** argv) {
  TestDaemon daemon;
  daemon.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("pidfile=", 0) == 0) daemon.pidfile(argv[i] + 8);
    else if (arg == "holdfd") open("/dev/null", O_RDONLY);
    else if (arg == "daemonize") daemon.daemonize();
    else if (arg == "report") WriteReport();
    else if (arg == "segv") g_fault = PROT_NONE;
    else if (arg == "bus") g_fault = PROT_READ;
    else if (arg == "run") daemon.Run();
    else return 64;
  }
}
