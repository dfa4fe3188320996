// The cross-process mutex on real System V semaphores, each test in its own
// IPC namespace, with real processes as the other lock holders.

#include <linux/capability.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

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

constexpr int kKey = 0x5E4A;

// A child process holding the lock until it is killed.
class Holder {
 public:
  Holder() {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
      cSysVSemaphoreMutex mutex(kKey);
      if (!mutex.Lock() || write(ready[1], "", 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the holder did not lock";
    close(ready[0]);
  }
  ~Holder() { Kill(); }
  pid_t pid() const { return m_pid; }
  int Kill() {
    int status = 0;
    if (m_pid > 0 && kill(m_pid, SIGKILL) == 0 &&
        waitpid(m_pid, &status, 0) == m_pid)
      m_pid = -1;
    return status;
  }

 private:
  pid_t m_pid = -1;
};

TEST(SysVSemaphoreMutex, OneFreeLockPerKeySharedByEveryObject) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    EXPECT_EQ(cSysVSemaphoreMutex::flash_key, 989780);
    StderrCapture err;
    cSysVSemaphoreMutex first(kKey);
    cSysVSemaphoreMutex second(kKey);
    EXPECT_TRUE(first.Lock());
    EXPECT_EQ(second.GetValue(), 0);
    EXPECT_FALSE(second.Lock(0, 0));
    EXPECT_TRUE(second.TimedOut());
    EXPECT_TRUE(first.Unlock());
    EXPECT_EQ(first.GetValue(), 1);
    EXPECT_TRUE(first.Unlock());  // unlocking a free lock changes nothing
    EXPECT_EQ(first.GetValue(), 1);
    EXPECT_TRUE(second.Lock(0, 0));
    EXPECT_FALSE(second.TimedOut());
    // GetValue alone creates the set too, free.
    EXPECT_LT(semget(kKey + 1, 1, 0), 0);
    EXPECT_EQ(cSysVSemaphoreMutex(kKey + 1).GetValue(), 1);
    EXPECT_GE(semget(kKey + 1, 1, 0), 0);
    EXPECT_EQ(err.Text(), "");
    // A value above 1 is someone else's doing: reported and left alone.
    ASSERT_EQ(semctl(semget(kKey, 1, 0), 0, SETVAL, 2), 0);
    EXPECT_FALSE(first.Unlock());
    EXPECT_EQ(err.Text(), "cSysVSemaphoreMutex::Unlock semval > 1 2\n");
    EXPECT_EQ(first.GetValue(), 2);
  });
}

TEST(SysVSemaphoreMutex, ExcludesOtherProcesses) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    struct Shared { int inside, overlaps, total; };
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* shared = new (memory) Shared{0, 0, 0};
    constexpr int kProcesses = 3;
    constexpr int kRounds = 40;
    std::fflush(nullptr);
    pid_t children[kProcesses];
    for (pid_t& child : children) {
      child = fork();
      if (child == 0) {
        cSysVSemaphoreMutex mutex(kKey);
        for (int round = 0; round < kRounds; ++round) {
          if (!mutex.Lock()) _exit(1);
          // Plain reads and writes: only the lock keeps them apart.
          if (shared->inside != 0) ++shared->overlaps;
          shared->inside = 1;
          usleep(200);
          shared->total = shared->total + 1;
          shared->inside = 0;
          if (!mutex.Unlock()) _exit(2);
        }
        _exit(0);
      }
    }
    for (pid_t child : children) {
      int status = -1;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(shared->overlaps, 0);
    EXPECT_EQ(shared->total, kProcesses * kRounds);
    munmap(memory, sizeof(Shared));
  });
}

TEST(SysVSemaphoreMutex, TimedLockRunsOutAndAWholeSecondOfNanosecondsIsRefused) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_FALSE(mutex.Lock(0, 1000000000));
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_EQ(mutex.GetValue(), 1);
    {
      Holder holder;
      EXPECT_FALSE(mutex.Lock(0, 0));
      EXPECT_TRUE(mutex.TimedOut());
      EXPECT_FALSE(mutex.Lock(0, 1000000000));
      EXPECT_FALSE(mutex.TimedOut());
      const auto start = std::chrono::steady_clock::now();
      EXPECT_FALSE(mutex.Lock(1, 200000000));
      const std::chrono::duration<double> waited =
          std::chrono::steady_clock::now() - start;
      EXPECT_TRUE(mutex.TimedOut());
      EXPECT_GE(waited.count(), 1.15);
      EXPECT_LT(waited.count(), 10.0);
    }
    // The holder has ended: its undo freed the lock.
    EXPECT_TRUE(mutex.Lock(0, 0));
    EXPECT_FALSE(mutex.TimedOut());
    const std::string invalid =
        "cSysVSemaphoreMutex::Lock: semop: Invalid argument\n";
    EXPECT_EQ(err.Text(), invalid + invalid);
  });
}

TEST(SysVSemaphoreMutex, HolderKilledWithSigkillFreesTheLockForAWaiter) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    Holder holder;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_EQ(mutex.GetValue(), 0);
    const pid_t victim = holder.pid();
    std::thread killer([victim] {
      std::this_thread::sleep_for(milliseconds(100));
      kill(victim, SIGKILL);
    });
    EXPECT_TRUE(mutex.Lock(10, 0));
    killer.join();
    const int status = holder.Kill();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(mutex.GetValue(), 0);
    EXPECT_TRUE(mutex.Unlock());
  });
}

void ExpectEveryOperationFails(cSysVSemaphoreMutex& mutex) {
  EXPECT_FALSE(mutex.Lock());
  EXPECT_FALSE(mutex.TimedOut());
  EXPECT_FALSE(mutex.Unlock());
  EXPECT_EQ(mutex.GetValue(), -1);
}

TEST(SysVSemaphoreMutexFailure, NoRoomForANewSetFailsEveryOperation) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Limits are per IPC namespace: allow no semaphore set at all here.
    if (qel_test::Shell("exec 2>/dev/null; echo 250 32000 32 0 >/proc/sys/kernel/sem") != 0)
      GTEST_SKIP() << "the semaphore limits cannot be set here";
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_FALSE(mutex.DoSemGet());
    ExpectEveryOperationFails(mutex);
    const std::string once =
        "cSysVSemaphoreMutex::DoSemGet: semget: No space left on device\n";
    EXPECT_EQ(err.Text(), once + once + once + once);
  });
}

TEST(SysVSemaphoreMutexFailure, SetWithoutPermissionFailsAtEachCall) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Attaching asks for no permission; using the set does.
    ASSERT_GE(semget(kKey, 1, IPC_CREAT | 0), 0);
    ASSERT_TRUE(qel_test::DropCapability(CAP_IPC_OWNER));
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_TRUE(mutex.DoSemGet());
    ExpectEveryOperationFails(mutex);
    EXPECT_EQ(err.Text(),
              "cSysVSemaphoreMutex::Lock: semop: Permission denied\n"
              "cSysVSemaphoreMutex::Unlock: semctl: Permission denied\n"
              "cSysVSemaphoreMutex::Unlock: semctl: Permission denied\n");
  });
}

TEST(SysVSemaphoreMutexFailure, SetRemovedUnderAWaiter) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    cSysVSemaphoreMutex holder(kKey);
    cSysVSemaphoreMutex waiter(kKey);
    ASSERT_TRUE(holder.Lock());
    std::thread remover([] {
      std::this_thread::sleep_for(milliseconds(100));
      semctl(semget(kKey, 1, 0), 0, IPC_RMID);
    });
    EXPECT_FALSE(waiter.Lock());
    remover.join();
    EXPECT_FALSE(waiter.TimedOut());
    // The object keeps the stale identifier; reading it fails.
    EXPECT_EQ(waiter.GetValue(), -1);
    EXPECT_EQ(err.Text(),
              "cSysVSemaphoreMutex::Lock: semop: Identifier removed\n"
              "cSysVSemaphoreMutex::Unlock: semctl: Invalid argument\n");
  });
}

}  // namespace
}  // namespace qel_util
