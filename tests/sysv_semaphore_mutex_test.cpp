#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>
#include <string>
#include <gtest/gtest.h>
#include "qel_util/ipc.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

constexpr int kKey = 0x5E4A;

TEST(SysVSemaphoreMutex, ExcludesOtherProcesses) {
  QEL_REQUIRE_SANDBOX();
  qel_test::RunInSandbox([] {
    struct Shared { int inside, overlaps, total; };
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* shared = new (memory) Shared{0, 0, 0};
    std::fflush(nullptr);
    pid_t children[3];
    for (pid_t& child : children) {
      if ((child = fork()) != 0) continue;
      cSysVSemaphoreMutex mutex(kKey);
      for (int round = 0; round < 40; ++round) {
        if (!mutex.Lock()) _exit(1);
        if (shared->inside != 0) ++shared->overlaps;
        shared->inside = 1;
        usleep(200);
        shared->total = shared->total + 1;
        shared->inside = 0;
        if (!mutex.Unlock()) _exit(2);
      }
      _exit(0);
    }
    for (pid_t child : children) EXPECT_EQ(qel_test::Reap(child), 0);
    EXPECT_EQ(shared->overlaps, 0);
    EXPECT_EQ(shared->total, 3 * 40);
    munmap(memory, sizeof(Shared));
  });
}

TEST(SysVSemaphoreMutex, TimeoutsInvalidWaitsAndAKilledHoldersUndo) {
  QEL_REQUIRE_SANDBOX();
  qel_test::RunInSandbox([] {
    qel_test::StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    std::fflush(nullptr);
    const pid_t holder = fork();
    if (holder == 0) {
      cSysVSemaphoreMutex held(kKey);
      if (held.Lock()) for (;;) pause();
      _exit(1);
    }
    ASSERT_TRUE(qel_test::Eventually([&] { return mutex.GetValue() == 0; }))
        << "the holder did not lock";
    EXPECT_FALSE(mutex.Lock(0, 0));
    EXPECT_TRUE(mutex.TimedOut());
    EXPECT_FALSE(mutex.Lock(0, 1000000000));
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_EQ(err.Text(), "cSysVSemaphoreMutex::Lock: semop: Invalid argument\n");
    kill(holder, SIGKILL);
    ASSERT_EQ(qel_test::Reap(holder), 128 + SIGKILL);
    EXPECT_TRUE(mutex.Lock(0, 0));
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_TRUE(mutex.Unlock());
    // A value above 1 is someone else's doing: reported and left alone.
    ASSERT_EQ(semctl(semget(kKey, 1, 0), 0, SETVAL, 2), 0);
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(mutex.GetValue(), 2);
    EXPECT_EQ(err.Text(),
              "cSysVSemaphoreMutex::Lock: semop: Invalid argument\n"
              "cSysVSemaphoreMutex::Unlock semval > 1 2\n");
  });
}

}  // namespace
}  // namespace qel_util
