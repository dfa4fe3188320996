// The cross-process mutex on real System V semaphores, each test in its own
// IPC namespace, with real processes as the other lock holders.

#include <fcntl.h>
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

// A child process that takes the lock and holds it until it is killed or
// the holder object goes away. Constructed once the child holds the lock.
class Holder {
 public:
  Holder() {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    EXPECT_EQ(pipe(m_release), 0);
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
      close(ready[0]);
      close(m_release[1]);
      cSysVSemaphoreMutex mutex(kKey);
      if (!mutex.Lock()) _exit(1);
      char byte = 1;
      if (write(ready[1], &byte, 1) != 1) _exit(2);
      // Held until the parent lets go; ending the process releases it.
      while (read(m_release[0], &byte, 1) < 0) {
      }
      _exit(0);
    }
    close(ready[1]);
    close(m_release[0]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the holder did not lock";
    close(ready[0]);
  }
  ~Holder() {
    close(m_release[1]);
    Reap();
  }
  pid_t pid() const { return m_pid; }
  int Reap() {
    int status = 0;
    if (m_pid > 0 && waitpid(m_pid, &status, 0) == m_pid) m_pid = -1;
    return status;
  }

 private:
  pid_t m_pid = -1;
  int m_release[2] = {-1, -1};
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                       start)
      .count();
}

TEST(SysVSemaphoreMutex, FirstUseCreatesAFreeLockAndUnlockIsIdempotent) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    EXPECT_EQ(cSysVSemaphoreMutex::flash_key, 989780);
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(mutex.GetValue(), 0);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(mutex.GetValue(), 1);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(mutex.GetValue(), 1);
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(SysVSemaphoreMutex, GetValueOnAFreshKeyCreatesTheSetFree) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    EXPECT_LT(semget(kKey, 1, 0), 0);
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_EQ(mutex.GetValue(), 1);
    EXPECT_GE(semget(kKey, 1, 0), 0);
  });
}

TEST(SysVSemaphoreMutex, TwoObjectsInOneProcessShareOneLock) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cSysVSemaphoreMutex first(kKey);
    cSysVSemaphoreMutex second(kKey);
    EXPECT_TRUE(first.Lock());
    EXPECT_FALSE(second.Lock(0, 0));
    EXPECT_TRUE(second.TimedOut());
    EXPECT_TRUE(first.Unlock());
    EXPECT_TRUE(second.Lock(0, 0));
    EXPECT_FALSE(second.TimedOut());
  });
}

TEST(SysVSemaphoreMutex, ExcludesOtherProcesses) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    struct Shared {
      int inside;
      int overlaps;
      int total;
    };
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

TEST(SysVSemaphoreMutex, TimedLockRunsOutWhileHeldElsewhere) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    {
      Holder holder;
      EXPECT_FALSE(mutex.Lock(0, 0));
      EXPECT_TRUE(mutex.TimedOut());
      auto start = std::chrono::steady_clock::now();
      EXPECT_FALSE(mutex.Lock(1, 200000000));
      const double waited = SecondsSince(start);
      EXPECT_TRUE(mutex.TimedOut());
      EXPECT_GE(waited, 1.15);
      EXPECT_LT(waited, 10.0);
    }
    // The holder has ended: its undo freed the lock.
    EXPECT_TRUE(mutex.Lock(0, 0));
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(SysVSemaphoreMutex, NanosecondsOfAWholeSecondAreRefused) {
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
    }
    EXPECT_EQ(err.Text(),
              "cSysVSemaphoreMutex::Lock: semop: Invalid argument\n"
              "cSysVSemaphoreMutex::Lock: semop: Invalid argument\n");
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
    int status = holder.Reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(mutex.GetValue(), 0);
    EXPECT_TRUE(mutex.Unlock());
  });
}

TEST(SysVSemaphoreMutex, ValueAboveOneIsReportedAndLeftAlone) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    ASSERT_TRUE(mutex.DoSemGet());
    ASSERT_EQ(semctl(semget(kKey, 1, 0), 0, SETVAL, 2), 0);
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(err.Text(), "cSysVSemaphoreMutex::Unlock semval > 1 2\n");
    EXPECT_EQ(mutex.GetValue(), 2);
  });
}

TEST(SysVSemaphoreMutexFailure, NoRoomForANewSetFailsEveryOperation) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Limits are per IPC namespace: allow no semaphore set at all here.
    const std::string noSets = "250 32000 32 0\n";
    int fd = open("/proc/sys/kernel/sem", O_WRONLY | O_CLOEXEC);
    const bool limited =
        fd >= 0 && write(fd, noSets.data(), noSets.size()) ==
                       static_cast<ssize_t>(noSets.size());
    if (fd >= 0) close(fd);
    if (!limited) GTEST_SKIP() << "the semaphore limits cannot be set here";
    StderrCapture err;
    cSysVSemaphoreMutex mutex(kKey);
    EXPECT_FALSE(mutex.DoSemGet());
    EXPECT_FALSE(mutex.Lock());
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(mutex.GetValue(), -1);
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
    EXPECT_FALSE(mutex.Lock());
    EXPECT_FALSE(mutex.TimedOut());
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(mutex.GetValue(), -1);
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
