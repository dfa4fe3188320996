// Pairs of daemons started at the same instant on one pid file, 1,000 rounds:
// how many rounds left both running. Each daemon is a child of this program
// (a subreaper, so the detached ones come back to it), released with its
// partner by the close of one pipe.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "qel_util/daemon.h"

namespace {

constexpr int kRounds = 1000;

// What the daemons of one round tell this program, in shared memory.
struct Round {
  std::atomic<int> running;
  std::atomic<pid_t> pids[2];
};

// Waits in Process, so that a running daemon costs no processor time.
class WaitingDaemon : public qel_util::Daemon {
 public:
  void Process() override { pause(); }
};

// In a child: waits for the release, then starts as a daemon on `pidfile`.
[[noreturn]] void StartDaemon(int release, const std::string& pidfile,
                              Round* round, int slot) {
  char buffer;
  while (read(release, &buffer, 1) < 0 && errno == EINTR) {
  }
  WaitingDaemon daemon;
  char name[] = "qel-race";
  char* args[] = {name, nullptr};
  int argc = 1;
  char** argv = args;
  daemon.Init(argc, argv);
  daemon.pidfile(pidfile.c_str());
  daemon.daemonize();  // a refused instance ends here with status 1
  round->pids[slot] = getpid();
  ++round->running;
  daemon.Run();
}

// Reaps every child of this program that has ended; counts those that ended
// with status 1 (refused instances).
int ReapEnded() {
  int refused = 0, status = 0;
  while (waitpid(-1, &status, WNOHANG) > 0)
    if (WIFEXITED(status) && WEXITSTATUS(status) == 1) ++refused;
  return refused;
}

int g_bothRan = -1;

void BM_StartRace(benchmark::State& state) {
  char directory[] = "/tmp/qel-race.XXXXXX";
  auto* round = static_cast<Round*>(mmap(nullptr, sizeof(Round), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (round == MAP_FAILED || mkdtemp(directory) == nullptr)
    return state.SkipWithError("no shared memory or no directory");
  const std::string pidfile = std::string(directory) + "/qel-race.pid";
  int bothRan = 0;
  for (auto _ : state) {
    round->running = 0;
    round->pids[0] = round->pids[1] = 0;
    int release[2];
    if (pipe(release) != 0) return state.SkipWithError("pipe");
    for (int slot = 0; slot < 2; ++slot)
      if (fork() == 0) {
        close(release[1]);
        StartDaemon(release[0], pidfile, round, slot);
      }
    close(release[0]);
    close(release[1]);
    // Every daemon either runs or was refused, within ten seconds.
    int settled = 0;
    for (int i = 0; i < 10000 && round->running + settled < 2; ++i) {
      settled += ReapEnded();
      usleep(1000);
    }
    if (round->running == 2) ++bothRan;
    for (auto& pid : round->pids)
      if (pid != 0) kill(pid, SIGTERM);
    while (wait(nullptr) > 0 || errno == EINTR) {
    }
  }
  unlink(pidfile.c_str());
  rmdir(directory);
  munmap(round, sizeof(Round));
  state.counters["both_ran"] = bothRan;
  g_bothRan = bothRan;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Detached daemons come back to this program when their launcher ends.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    std::perror("PR_SET_CHILD_SUBREAPER");
    return 1;
  }
  benchmark::RegisterBenchmark("BM_StartRace", BM_StartRace)
      ->Iterations(kRounds)
      ->Unit(benchmark::kMillisecond);
  benchmark::RunSpecifiedBenchmarks();
  if (g_bothRan >= 0)
    std::printf("start race: %d of %d rounds left two daemons running (target 0)\n",
                g_bothRan, kRounds);
  benchmark::Shutdown();
  return 0;
}
