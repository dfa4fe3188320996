#include <dirent.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>
#include <atomic>
#include <string>
#include <thread>
#include <gtest/gtest.h>
#include "qel_util/ipc.h"
#include "support/privilege.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

int TaskCount() {
  int count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(tasks)) count += entry->d_name[0] != '.';
    closedir(tasks);
  }
  return count;
}

// Lets a sanitizer start its helper thread before the count; waits out the probe.
int BaselineTaskCount() {
  pid_t tid = 0;
  std::thread([&tid] { tid = gettid(); }).join();
  const std::string task = "/proc/self/task/" + std::to_string(tid);
  EXPECT_TRUE(qel_test::Eventually([&task] { return access(task.c_str(), F_OK) != 0; }));
  return TaskCount();
}

struct Started {
  cPosixSemaphore ran{0}, never{0};
  int cancelState = -1, cancelType = -1;
  static void Run(void* self) {
    auto* state = static_cast<Started*>(self);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state->cancelState);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &state->cancelType);
    state->ran.signal();
    state->never.wait();
  }
};

TEST(PosixThread, StartsCancellableAndItsDestructorEndsABlockedThread) {
  QEL_REQUIRE_SANDBOX();
  qel_test::RunInSandbox([] {
    qel_test::StderrCapture err;
    const int before = BaselineTaskCount();
    Started state;
    {
      cPosixThread thread(Started::Run, &state);
      EXPECT_TRUE(thread.IsStarted());
      ASSERT_EQ(state.ran.wait(), 0);
    }
    EXPECT_EQ(state.cancelState, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(state.cancelType, PTHREAD_CANCEL_DEFERRED);
    EXPECT_TRUE(qel_test::Eventually([before] { return TaskCount() == before; }));
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(PosixThread, SchedulingFailuresAreReportedAndLeaveNoThread) {
  QEL_REQUIRE_SANDBOX();
  struct Case { int priority, policy; const char* report; };
  for (const Case& c :
       {Case{10, SCHED_FIFO, "thread creation failed: Operation not permitted\n"},
        Case{5, SCHED_OTHER, "set scheduler parameters failed: Invalid argument\n"}}) {
    qel_test::RunInSandbox([&c] {
      // Root keeps CAP_SYS_NICE whatever RLIMIT_RTPRIO says: drop both.
      ASSERT_TRUE(qel_test::DropCapability(CAP_SYS_NICE));
      rlimit none{0, 0};
      ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
      qel_test::StderrCapture err;
      std::atomic<bool> ran{false};
      const int before = BaselineTaskCount();
      {
        cPosixThread thread([](void* r) { *static_cast<std::atomic<bool>*>(r) = true; },
                            &ran, c.priority, c.policy);
        EXPECT_FALSE(thread.IsStarted());
        EXPECT_EQ(thread.SetThreadName("none"), ESRCH);
      }
      EXPECT_EQ(err.Text(), c.report);
      // A refused policy ends the kernel thread after pthread_create returned.
      EXPECT_TRUE(qel_test::Eventually([before] { return TaskCount() == before; }));
      EXPECT_FALSE(ran.load());
    });
  }
}

}  // namespace
}  // namespace qel_util
