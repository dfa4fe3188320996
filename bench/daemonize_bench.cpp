// daemonize (foreground: no fork of its own, no pid file) at a hard descriptor
// limit of 1,024 and at the highest the machine allows, side by side, with the
// ratio of the medians printed at the end. Each run is a fresh child, so that
// every daemonize finds the same descriptors open.

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <vector>

#include <benchmark/benchmark.h>

#include "qel_util/daemon.h"

namespace {

// The highest hard limit this process may set: the kernel's ceiling as root,
// else the one it has.
rlim_t MachineLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlim_t ceiling = 0;
  std::ifstream("/proc/sys/fs/nr_open") >> ceiling;
  rlimit raised{limit.rlim_cur, ceiling};
  if (ceiling > limit.rlim_max && setrlimit(RLIMIT_NOFILE, &raised) == 0) {
    setrlimit(RLIMIT_NOFILE, &limit);
    return ceiling;
  }
  return limit.rlim_max;
}

// Every time measured, by hard limit, for the closing comparison.
std::map<int64_t, std::vector<double>> g_seconds;

void BM_Daemonize(benchmark::State& state) {
  // The child's own measurement, in nanoseconds (-1: it could not run).
  auto* nanoseconds = static_cast<long long*>(mmap(nullptr, sizeof(long long),
      PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (nanoseconds == MAP_FAILED) return state.SkipWithError("mmap");
  for (auto _ : state) {
    *nanoseconds = -1;
    const pid_t child = fork();
    if (child == 0) {
      const rlim_t hard = static_cast<rlim_t>(state.range(0));
      rlimit limit{hard, hard};
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(1);
      qel_util::Daemon daemon;
      daemon.foreground(true);
      const auto start = std::chrono::steady_clock::now();
      daemon.daemonize();
      *nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::steady_clock::now() - start).count();
      _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || *nanoseconds < 0) {
      state.SkipWithError("the child did not run");
      break;
    }
    state.SetIterationTime(*nanoseconds / 1e9);
    g_seconds[state.range(0)].push_back(*nanoseconds / 1e9);
  }
  munmap(nanoseconds, sizeof(long long));
}

// The median of every time measured at `limit`, over all repetitions.
double MedianSeconds(int64_t limit) {
  std::vector<double>& times = g_seconds[limit];
  if (times.empty()) return 0;
  auto middle = times.begin() + times.size() / 2;
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const int64_t machine = static_cast<int64_t>(MachineLimit());
  benchmark::RegisterBenchmark("BM_Daemonize", BM_Daemonize)
      ->Arg(1024)
      ->Arg(machine)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Repetitions(5)
      ->ReportAggregatesOnly(true);
  benchmark::RunSpecifiedBenchmarks();
  if (MedianSeconds(1024) > 0 && MedianSeconds(machine) > 0)
    std::printf("median time at a hard limit of %lld / at 1024: %.3f "
                "(target <= 1.5)\n", static_cast<long long>(machine),
                MedianSeconds(machine) / MedianSeconds(1024));
  benchmark::Shutdown();
  return 0;
}
