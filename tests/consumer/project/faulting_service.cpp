// A service whose own code faults for real, three calls below Process: a
// write through a null pointer, not a signal sent from outside, so that the
// crash dump must unwind through the faulting instruction itself. Each
// function keeps its frame (no inlining, work after every call).

#include <qel_util/qel_util.h>

namespace {

int* volatile g_nowhere = nullptr;

// A build with the sanitizers must fault here too, not stop at their report.
__attribute__((noinline, no_sanitize("null", "address"))) int FaultInnermost(int value) {
  *g_nowhere = value;
  return value;
}

__attribute__((noinline)) int FaultMiddle(int value) {
  const int result = FaultInnermost(value + 1);
  asm volatile("" ::: "memory");
  return result + 1;
}

__attribute__((noinline)) int FaultOutermost(int value) {
  const int result = FaultMiddle(value + 1);
  asm volatile("" ::: "memory");
  return result + 1;
}

class FaultingService : public qel_util::Daemon {
 public:
  void Process() override {
    m_result = FaultOutermost(m_result);
    asm volatile("" ::: "memory");
  }

 private:
  int m_result = 0;
};

}  // namespace

int main(int argc, char** argv) {
  FaultingService service;
  service.Init(argc, argv);
  service.foreground(true);
  service.daemonize();
  service.Run();
}
