// One datagram there and back out of the queue: the library's client Write
// and server Read against bare sendto/recvfrom on the same kind of sockets
// (AF_UNIX datagram, full-length abstract names, MSG_DONTWAIT), with the
// throughput ratio printed at the end.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "qel_util/net.h"

namespace {

// Names carry the pid so that runs side by side do not collide.
std::string UniqueName(const char* role) {
  return std::string("@qel-bench-") + role + "-" + std::to_string(getpid());
}

void BM_Library(benchmark::State& state) {
  qel_util::UdpServer server(UniqueName("server"));
  qel_util::UdpClient client(UniqueName("client"), UniqueName("server"));
  if (server.Init() != 0 || client.Init() != 0) {
    state.SkipWithError("cannot bind");
    return;
  }
  std::vector<unsigned char> message(static_cast<size_t>(state.range(0)), 'm');
  std::vector<unsigned char> buffer(message.size());
  const unsigned int length = static_cast<unsigned int>(message.size());
  for (auto _ : state) {
    if (client.Write(message.data(), length) != static_cast<int>(length) ||
        server.Read(buffer.data(), length) != static_cast<int>(length)) {
      state.SkipWithError("datagram lost");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// What the library builds, done by hand: a zero byte, the name after its
// marker, zeros to the end of the path.
sockaddr_un FullAddress(const std::string& name) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data() + 1, name.size() - 1);
  return address;
}

int BoundSocket(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address),
                      sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

void BM_Raw(benchmark::State& state) {
  sockaddr_un serverAddress = FullAddress(UniqueName("raw-server"));
  const int server = BoundSocket(serverAddress);
  const int client = BoundSocket(FullAddress(UniqueName("raw-client")));
  if (server >= 0 && client >= 0) {
    std::vector<unsigned char> message(static_cast<size_t>(state.range(0)),
                                       'm');
    std::vector<unsigned char> buffer(message.size());
    const ssize_t length = static_cast<ssize_t>(message.size());
    sockaddr_un from;
    for (auto _ : state) {
      socklen_t fromLength = sizeof from;
      if (sendto(client, message.data(), message.size(), MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&serverAddress),
                 sizeof serverAddress) != length ||
          recvfrom(server, buffer.data(), buffer.size(), MSG_DONTWAIT,
                   reinterpret_cast<sockaddr*>(&from), &fromLength) !=
              length) {
        state.SkipWithError("datagram lost");
        break;
      }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
  } else {
    state.SkipWithError("cannot bind");
  }
  if (server >= 0) close(server);
  if (client >= 0) close(client);
}

// Keeps the CPU time of every run by name for the closing comparison: on a
// shared machine the wall time mostly measures the neighbours.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(1) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred && (run.run_type == Run::RT_Iteration ||
                                  run.aggregate_name == "median"))
        m_times[run.benchmark_name()] = run.GetAdjustedCPUTime();
  }

  void PrintRatios() const {
    for (const auto& entry : m_times) {
      const std::string& name = entry.first;
      if (name.rfind("BM_Library", 0) != 0) continue;
      const std::string raw = "BM_Raw" + name.substr(10);
      const auto found = m_times.find(raw);
      if (found == m_times.end()) continue;
      std::printf("%s / %s throughput ratio (CPU time): %.3f\n", name.c_str(),
                  raw.c_str(), found->second / entry.second);
    }
  }

 private:
  std::map<std::string, double> m_times;
};

}  // namespace

int main(int argc, char** argv) {
  // Each size runs both sides one after the other, repeated, so that both
  // see the same load; the ratio is taken between the medians.
  for (const int size : {16, 256, 4096})
    for (const auto& side : {std::make_pair("BM_Library", BM_Library),
                             std::make_pair("BM_Raw", BM_Raw)})
      benchmark::RegisterBenchmark(side.first, side.second)
          ->Arg(size)
          ->Repetitions(5)
          ->ReportAggregatesOnly(true);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
