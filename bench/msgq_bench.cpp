// What the pollable queue costs over bare System V calls: a message round
// trip between two threads (tx -> get_fd readable -> rx, against msgsnd and a
// blocking msgrcv), and draining a burst of 10,000 messages with rx against a
// plain msgrcv loop. A summary of the ratios follows the table.

#include <poll.h>
#include <sys/msg.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <string>
#include <thread>

#include "qel_util/ipc.h"

namespace {

using qel_util::cMsgQHandler;

constexpr long kRequest = 1;
constexpr long kReply = 2;
constexpr long kQuit = 3;
constexpr int kBurst = 10000;

// A queue of this run's own, removed at the end.
const int kKey = 0x51B00000 | (getpid() & 0xFFFF);

struct Message {
  long type;
  char text[32];
};

// Room in the queue for the whole burst: 32 bytes of text each if the limit
// can be raised, else 1 byte each fits the default limit.
size_t TextSize() {
  static const size_t size = [] {
    msqid_ds state{};
    int id = msgget(kKey, IPC_CREAT | 0600);
    if (id < 0 || msgctl(id, IPC_STAT, &state) != 0) return size_t{1};
    state.msg_qbytes = kBurst * sizeof(Message::text);
    return msgctl(id, IPC_SET, &state) == 0 ? sizeof(Message::text)
                                            : size_t{1};
  }();
  return size;
}

unsigned short Length() {
  return static_cast<unsigned short>(sizeof(long) + TextSize());
}

void WaitReadable(int fd) {
  pollfd watch{fd, POLLIN, 0};
  while (poll(&watch, 1, -1) < 0 && errno == EINTR) {
  }
}

// Answers each request with a reply until told to quit, the way a service's
// event loop would.
void HandlerEcho() {
  cMsgQHandler handler(kKey, kRequest);
  Message message{};
  for (;;) {
    WaitReadable(handler.get_fd());
    while (handler.rx(&message, Length(), IPC_NOWAIT) == 0) {
      if (message.text[0] == 'q') return;
      message.type = kReply;
      handler.tx(&message, Length(), 0);
    }
  }
}

void RawEcho(int id) {
  Message message{};
  for (;;) {
    if (msgrcv(id, &message, TextSize(), kRequest, 0) < 0) continue;
    if (message.text[0] == 'q') return;
    message.type = kReply;
    msgsnd(id, &message, TextSize(), 0);
  }
}

void Quit(int id) {
  Message quit{};
  quit.type = kRequest;
  quit.text[0] = 'q';
  msgsnd(id, &quit, TextSize(), 0);
}

// Wall-clock time (the threads wait on each other), median of five runs.
void Measured(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
}

void BM_RoundTripHandler(benchmark::State& state) {
  cMsgQHandler handler(kKey, kReply);
  std::thread echo(HandlerEcho);
  Message message{};
  for (auto _ : state) {
    message.type = kRequest;
    message.text[0] = 'p';
    handler.tx(&message, Length(), 0);
    int replies = 0;
    while (replies == 0) {
      WaitReadable(handler.get_fd());
      while (handler.rx(&message, Length(), IPC_NOWAIT) == 0) ++replies;
    }
  }
  Quit(msgget(kKey, 0));
  echo.join();
}
BENCHMARK(BM_RoundTripHandler)->Apply(Measured);

void BM_RoundTripRaw(benchmark::State& state) {
  int id = msgget(kKey, IPC_CREAT | 0600);
  std::thread echo(RawEcho, id);
  Message message{};
  for (auto _ : state) {
    message.type = kRequest;
    message.text[0] = 'p';
    msgsnd(id, &message, TextSize(), 0);
    msgrcv(id, &message, TextSize(), kReply, 0);
  }
  Quit(id);
  echo.join();
}
BENCHMARK(BM_RoundTripRaw)->Apply(Measured);

void Fill(int id) {
  Message message{};
  message.type = kRequest;
  message.text[0] = 'm';
  for (int i = 0; i < kBurst; ++i) msgsnd(id, &message, TextSize(), 0);
}

void BM_BurstDrainHandler(benchmark::State& state) {
  cMsgQHandler handler(kKey, kRequest);
  int id = msgget(kKey, 0);
  Message message{};
  for (auto _ : state) {
    state.PauseTiming();
    Fill(id);
    WaitReadable(handler.get_fd());
    state.ResumeTiming();
    int drained = 0;
    while (handler.rx(&message, Length(), IPC_NOWAIT) == 0) ++drained;
    if (drained != kBurst) state.SkipWithError("burst not drained whole");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_BurstDrainHandler)->Apply(Measured);

void BM_BurstDrainRaw(benchmark::State& state) {
  int id = msgget(kKey, IPC_CREAT | 0600);
  Message message{};
  for (auto _ : state) {
    state.PauseTiming();
    Fill(id);
    state.ResumeTiming();
    int drained = 0;
    while (msgrcv(id, &message, TextSize(), kRequest, IPC_NOWAIT) > 0)
      ++drained;
    if (drained != kBurst) state.SkipWithError("burst not drained whole");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_BurstDrainRaw)->Apply(Measured);

// Keeps each benchmark's time per iteration for the summary: the median of
// the repetitions, as wake-up latencies on a shared machine are noisy.
class Summary : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate &&
                          run.aggregate_name == "median";
      if (median || run.run_type == Run::RT_Iteration)
        m_seconds[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
  }
  double Of(const std::string& name) const {
    auto found = m_seconds.find(name);
    return found == m_seconds.end() ? 0 : found->second;
  }

 private:
  std::map<std::string, double> m_seconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("text size per message: %zu bytes\n", TextSize());
  Summary summary;
  benchmark::RunSpecifiedBenchmarks(&summary);
  const double handlerTrip = summary.Of("BM_RoundTripHandler");
  const double rawTrip = summary.Of("BM_RoundTripRaw");
  const double handlerDrain = summary.Of("BM_BurstDrainHandler");
  const double rawDrain = summary.Of("BM_BurstDrainRaw");
  if (handlerTrip > 0 && rawTrip > 0)
    std::printf("round trip, handler / raw time: %.2f (target <= 2.5)\n",
                handlerTrip / rawTrip);
  if (handlerDrain > 0 && rawDrain > 0)
    std::printf("burst drain, handler / raw rate: %.2f (target >= 0.9)\n",
                rawDrain / handlerDrain);
  msgctl(msgget(kKey, 0), IPC_RMID, nullptr);
  benchmark::Shutdown();
  return 0;
}
