// Threads and semaphores on the real kernel: the start handshake, the
// cancellation that ends a blocked thread, the exact failure reports of the
// scheduling constructor, and no thread left behind.

#include <dirent.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "qel_util/ipc.h"
#include "support/privilege.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

using qel_test::RunInSandbox;
using qel_test::StderrCapture;
using std::chrono::milliseconds;

int TaskCount() {
  int count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(tasks))
      if (entry->d_name[0] != '.') ++count;
    closedir(tasks);
  }
  return count;
}

// Polls `condition` for up to two seconds.
template <typename Condition>
bool Eventually(Condition condition) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(5));
  }
  return true;
}

bool Eventually(const std::atomic<bool>& flag) {
  return Eventually([&flag] { return flag.load(); });
}

// A joined thread leaves /proc a moment after pthread_join returns (long
// after it under qemu-user, which tears its host thread down afterwards).
bool TaskCountBecomes(int expected) {
  return Eventually([expected] { return TaskCount() == expected; });
}

// The threads of this process before a test's own. A first thread lets a
// runtime that starts a helper thread of its own on first use (sanitizers)
// do so now, not in the middle of the count; the count waits for that
// thread to leave /proc.
int BaselineTaskCount() {
  pid_t tid = 0;
  std::thread([&tid] { tid = gettid(); }).join();
  const std::string task = "/proc/self/task/" + std::to_string(tid);
  EXPECT_TRUE(Eventually([&task] { return access(task.c_str(), F_OK) != 0; }))
      << task;
  return TaskCount();
}

// Root keeps CAP_SYS_NICE whatever RLIMIT_RTPRIO says: drop both, as an
// unprivileged service would run.
void DropRealTimePrivilege() {
  ASSERT_TRUE(qel_test::DropCapability(CAP_SYS_NICE));
  rlimit none{0, 0};
  ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
}

// Waits on the semaphore and raises the flag once through.
struct Waiter {
  cPosixSemaphore* semaphore;
  std::atomic<bool> through{false};
  static void Run(void* self) {
    auto* waiter = static_cast<Waiter*>(self);
    waiter->semaphore->wait();
    waiter->through.store(true);
  }
};

TEST(PosixSemaphore, StartsClosedAtZeroAndAtOneForAnyNonZeroValue) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cPosixSemaphore closed(0);
    Waiter first{&closed};
    cPosixThread blocked(Waiter::Run, &first);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(first.through.load());
    EXPECT_EQ(closed.signal(), 0);
    EXPECT_TRUE(Eventually(first.through));

    // 7 counts as 1: one wait passes, the next one blocks.
    cPosixSemaphore open(7);
    EXPECT_EQ(open.wait(), 0);
    Waiter second{&open};
    cPosixThread parked(Waiter::Run, &second);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(second.through.load());
    EXPECT_EQ(open.signal(), 0);
    EXPECT_TRUE(Eventually(second.through));
  });
}

void Interrupt(int) {}

TEST(PosixSemaphore, WaitInterruptedBySignalHandlerReturnsEINTR) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    struct sigaction action {};
    action.sa_handler = Interrupt;  // no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    pthread_t self = pthread_self();
    cPosixSemaphore semaphore(0);
    {
      cPosixThread sender(
          [](void* target) {
            std::this_thread::sleep_for(milliseconds(100));
            pthread_kill(*static_cast<pthread_t*>(target), SIGUSR1);
          },
          &self);
      errno = 0;
      EXPECT_EQ(semaphore.wait(), -1);
      EXPECT_EQ(errno, EINTR);
    }
    signal(SIGUSR1, SIG_DFL);
  });
}

struct StartState {
  cPosixSemaphore ran{0};
  int cancelState = -1;
  int cancelType = -1;
  static void Run(void* self) {
    auto* state = static_cast<StartState*>(self);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state->cancelState);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &state->cancelType);
    state->ran.signal();
  }
};

TEST(PosixThread, ConstructorReturnsWithDeferredCancellationEnabled) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    StartState state;
    {
      cPosixThread thread(StartState::Run, &state);
      EXPECT_TRUE(thread.IsStarted());
      ASSERT_EQ(state.ran.wait(), 0);
    }
    EXPECT_EQ(state.cancelState, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(state.cancelType, PTHREAD_CANCEL_DEFERRED);
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(PosixThread, NullFunctionEndsAtOnceAndIsJoinedQuietly) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    const int before = BaselineTaskCount();
    {
      cPosixThread thread(nullptr, nullptr);
      EXPECT_TRUE(thread.IsStarted());
    }
    EXPECT_TRUE(TaskCountBecomes(before));
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(PosixThread, DestructorCancelsThreadBlockedInWait) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    const int before = BaselineTaskCount();
    cPosixSemaphore never(0);
    Waiter waiter{&never};
    {
      cPosixThread thread(Waiter::Run, &waiter);
      EXPECT_TRUE(TaskCountBecomes(before + 1));
    }
    EXPECT_FALSE(waiter.through.load());
    EXPECT_TRUE(TaskCountBecomes(before));
    EXPECT_EQ(err.Text(), "");
  });
}

struct Named {
  cPosixSemaphore go{0};
  cPosixSemaphore done{0};
  char name[16] = {};
  static void Run(void* self) {
    auto* named = static_cast<Named*>(self);
    named->go.wait();
    pthread_getname_np(pthread_self(), named->name, sizeof named->name);
    named->done.signal();
    named->go.wait();  // parked until cancelled
  }
};

TEST(PosixThread, SetThreadNameNamesTheStartedThread) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    Named named;
    cPosixThread thread(Named::Run, &named);
    EXPECT_EQ(thread.SetThreadName("qel-watcher"), 0);
    EXPECT_EQ(thread.SetThreadName("sixteen-chars-xx"), ERANGE);
    named.go.signal();
    named.done.wait();
    EXPECT_STREQ(named.name, "qel-watcher");
  });
}

struct Policy {
  cPosixSemaphore ran{0};
  int policy = -1;
  static void Run(void* self) {
    auto* seen = static_cast<Policy*>(self);
    sched_param parameters{};
    pthread_getschedparam(pthread_self(), &seen->policy, &parameters);
    seen->ran.signal();
  }
};

TEST(PosixThread, SchedulingIsExplicitNotInherited) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // The creator runs as a batch job; the thread asks for SCHED_OTHER and
    // must get it rather than inherit the creator's policy.
    sched_param batch{};
    ASSERT_EQ(sched_setscheduler(0, SCHED_BATCH, &batch), 0);
    StderrCapture err;
    Policy seen;
    {
      cPosixThread thread(Policy::Run, &seen, 0, SCHED_OTHER);
      EXPECT_TRUE(thread.IsStarted());
      seen.ran.wait();
    }
    EXPECT_EQ(seen.policy, SCHED_OTHER);
    EXPECT_EQ(err.Text(), "");
  });
}

void MustNotRun(void* ran) { static_cast<std::atomic<bool>*>(ran)->store(true); }

TEST(PosixThread, RealTimePolicyWithoutPrivilegeReportsCreationFailure) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    DropRealTimePrivilege();
    StderrCapture err;
    std::atomic<bool> ran{false};
    const int before = BaselineTaskCount();
    {
      cPosixThread thread(MustNotRun, &ran, 10, SCHED_FIFO);
      EXPECT_FALSE(thread.IsStarted());
      EXPECT_EQ(thread.SetThreadName("none"), ESRCH);
    }
    EXPECT_EQ(err.Text(), "thread creation failed: Operation not permitted\n");
    // The C library starts the kernel thread before it applies the policy;
    // refused, that thread ends by itself, after pthread_create returned.
    EXPECT_TRUE(TaskCountBecomes(before));
    EXPECT_FALSE(ran.load());
  });
}

TEST(PosixThread, PriorityOutsideThePolicyRangeCreatesNoThread) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    std::atomic<bool> ran{false};
    const int before = BaselineTaskCount();
    {
      cPosixThread thread(MustNotRun, &ran, 5, SCHED_OTHER);
      EXPECT_FALSE(thread.IsStarted());
    }
    EXPECT_EQ(err.Text(),
              "set scheduler parameters failed: Invalid argument\n");
    EXPECT_FALSE(ran.load());
    EXPECT_EQ(TaskCount(), before);
  });
}

}  // namespace
}  // namespace qel_util
