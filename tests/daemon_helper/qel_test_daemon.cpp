// A service built on the framework whose behaviour the daemon tests choose
// with its arguments, applied in order:
//   fg | pidfile=P | log=IDENT | debug | holdfd | quiet | redirect=P
//   daemonize | report=P | popen=P | segv | bus | abort | dump=N | run
// The faults segv, bus and abort strike once the file /mnt/crash exists.
// report=P writes the detached process's facts to P once daemonize is done.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel_util/daemon.h"

namespace {

int g_debug = 0;
const char* g_fault = nullptr;
const char* g_popenReport = nullptr;

void WriteReport(const char* path) {
  std::string fds;
  for (int fd = 0; fd < 64; ++fd)
    if (fcntl(fd, F_GETFD) != -1) fds += std::to_string(fd) + ",";
  char cwd[256] = {};
  if (getcwd(cwd, sizeof cwd) == nullptr) std::strcpy(cwd, "?");
  mode_t mask = umask(0);
  FILE* out = std::fopen(path, "w");
  if (out == nullptr) return;
  std::fprintf(out, "pid=%d sid=%d umask=%03o cwd=%s fds=%s\n", getpid(),
               getsid(0), mask, cwd, fds.c_str());
  std::fclose(out);
}

// A real segmentation fault, on a page no one may touch.
void SegmentationFault() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}

// A real bus error: touching a mapping beyond the end of its file.
void BusError() {
  FILE* file = std::tmpfile();
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fileno(file), 0);
  std::printf("%d\n", *static_cast<volatile char*>(page));
}

class TestDaemon : public qel_util::Daemon {
 public:
  void Process() override {
    // Faults wait for the test's go-ahead, so that it has seen the pid file.
    if (g_fault != nullptr && access("/mnt/crash", F_OK) != 0) {
      usleep(10000);
      return;
    }
    if (g_fault != nullptr) {
      if (std::strcmp(g_fault, "segv") == 0) SegmentationFault();
      if (std::strcmp(g_fault, "bus") == 0) BusError();
      if (std::strcmp(g_fault, "abort") == 0) std::abort();
    }
    if (g_popenReport != nullptr) {
      FILE* child = popen("exit 3", "r");
      int status = child != nullptr ? pclose(child) : -1;
      FILE* out = std::fopen(g_popenReport, "w");
      std::fprintf(out, "%d\n", status);
      std::fclose(out);
      g_popenReport = nullptr;
    }
    pause();
  }
};

}  // namespace

int main(int argc, char** argv) {
  TestDaemon daemon;
  daemon.Init(argc, argv);
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value = arg.substr(arg.find('=') + 1);
    if (arg == "fg") daemon.foreground(true);
    else if (arg.rfind("pidfile=", 0) == 0) daemon.pidfile(argv[i] + 8);
    else if (arg.rfind("log=", 0) == 0) daemon.OpenLog(argv[i] + 4, LOG_PID, 0);
    else if (arg == "debug") { g_debug = 1; daemon.setDebugFlag(g_debug); }
    else if (arg == "holdfd") open("/dev/null", O_RDONLY);
    else if (arg == "quiet") daemon.runningOk(false);
    else if (arg == "daemonize") daemon.daemonize();
    else if (arg.rfind("report=", 0) == 0) WriteReport(argv[i] + 7);
    else if (arg.rfind("popen=", 0) == 0) g_popenReport = argv[i] + 6;
    else if (arg == "segv" || arg == "bus" || arg == "abort") g_fault = argv[i];
    else if (arg.rfind("dump=", 0) == 0)
      qel_util::DaemonImpl::CatchExitApp(std::atoi(value.c_str()));
    else if (arg == "run") daemon.Run();
    else return 64;
  }
  return 0;
}
