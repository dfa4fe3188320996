// The daemon tests' service. Its arguments, applied in order:
//   pidfile=P | holdfd | daemonize | report | segv | bus | run
// report writes the process's facts to /mnt/report; a fault strikes once
// /mnt/crash exists, so that the test has seen the pid file first.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qel_util/daemon.h"

namespace {

const char* g_fault = "";

void WriteReport() {
  std::string fds;
  for (int fd = 0; fd < 64; ++fd)
    if (fcntl(fd, F_GETFD) != -1) fds += std::to_string(fd) + ",";
  char cwd[256] = {};
  if (getcwd(cwd, sizeof cwd) == nullptr) std::strcpy(cwd, "?");
  mode_t mask = umask(0);
  FILE* child = popen("exit 3", "r");  // while the SIGCHLD handler is installed
  int status = child != nullptr ? pclose(child) : -1;
  if (FILE* out = std::fopen("/mnt/report", "w")) {
    std::fprintf(out, "pid=%d sid=%d umask=%03o cwd=%s fds=%s pclose=%d\n", getpid(),
                 getsid(0), mask, cwd, fds.c_str(), status);
    std::fclose(out);
  }
}

class TestDaemon : public qel_util::Daemon {
 public:
  void Process() override {
    if (*g_fault == '\0' || access("/mnt/crash", F_OK) != 0) return (void)usleep(10000);
    // An empty file mapped: no access at all is SIGSEGV, reading is SIGBUS.
    bool segv = std::strcmp(g_fault, "segv") == 0;
    void* page = mmap(nullptr, 4096, segv ? PROT_NONE : PROT_READ, MAP_SHARED,
                      fileno(std::tmpfile()), 0);
    std::printf("%d\n", *static_cast<volatile char*>(page));
  }
};

}  // namespace

int main(int argc, char** argv) {
  TestDaemon daemon;
  daemon.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("pidfile=", 0) == 0) daemon.pidfile(argv[i] + 8);
    else if (arg == "holdfd") open("/dev/null", O_RDONLY);
    else if (arg == "daemonize") daemon.daemonize();
    else if (arg == "report") WriteReport();
    else if (arg == "segv" || arg == "bus") g_fault = argv[i];
    else if (arg == "run") daemon.Run();
    else return 64;
  }
  return 0;
}
