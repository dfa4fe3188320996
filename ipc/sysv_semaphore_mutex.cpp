#include <sys/sem.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "qel_util/ipc.h"

namespace qel_util {
namespace {

// The caller defines semun for semctl (glibc leaves it out on purpose).
union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

sembuf UnlockOperation() { return sembuf{0, +1, SEM_UNDO}; }

// Waits for the lock, for ever when `timeout` is null (semtimedop then works
// as semop). Running out of time is no error and is not reported.
bool TakeLock(int semId, const timespec* timeout, bool& timedOut) {
  sembuf operation{0, -1, SEM_UNDO};
  if (semtimedop(semId, &operation, 1, timeout) == 0) return true;
  if (errno == EAGAIN)
    timedOut = true;
  else
    std::perror("cSysVSemaphoreMutex::Lock: semop");
  return false;
}

}  // namespace

const int cSysVSemaphoreMutex::flash_key;

cSysVSemaphoreMutex::cSysVSemaphoreMutex(int key)
    : m_key(key), m_semId(-1), m_timedOut(false) {}

bool cSysVSemaphoreMutex::DoSemGet() {
  if (m_semId >= 0) return true;
  m_semId = semget(m_key, 1, IPC_CREAT | IPC_EXCL | 0666);
  if (m_semId >= 0) {
    SemArgument free;
    free.val = 1;
    if (semctl(m_semId, 0, SETVAL, free) == 0) return true;
    std::perror("cSysVSemaphoreMutex::DoSemGet: semctl");
    // A set left at 0 would read as held for ever and every later Lock
    // would wait on it; removed, it is created afresh by the next attempt.
    semctl(m_semId, 0, IPC_RMID);
    m_semId = -1;
    return false;
  }
  if (errno == EEXIST) {
    // Attaching never touches the value: a lock held elsewhere stays held.
    m_semId = semget(m_key, 1, 0);
    if (m_semId >= 0) return true;
  }
  std::perror("cSysVSemaphoreMutex::DoSemGet: semget");
  m_semId = -1;
  return false;
}

bool cSysVSemaphoreMutex::Lock() {
  m_timedOut = false;
  return DoSemGet() && TakeLock(m_semId, nullptr, m_timedOut);
}

bool cSysVSemaphoreMutex::Lock(unsigned int seconds, unsigned int nanoseconds) {
  m_timedOut = false;
  // Handed over as given: nanoseconds of a second or more are the caller's
  // error, which the kernel refuses with EINVAL.
  timespec timeout{};
  timeout.tv_sec = static_cast<time_t>(seconds);
  timeout.tv_nsec = static_cast<long>(nanoseconds);
  return DoSemGet() && TakeLock(m_semId, &timeout, m_timedOut);
}

bool cSysVSemaphoreMutex::Unlock() {
  if (!DoSemGet()) return false;
  int value = semctl(m_semId, 0, GETVAL);
  if (value == -1) {
    std::perror("cSysVSemaphoreMutex::Unlock: semctl");
    return false;
  }
  if (value > 1) {
    std::fprintf(stderr, "cSysVSemaphoreMutex::Unlock semval > 1 %d\n", value);
    return false;
  }
  if (value == 1) return true;
  sembuf operation = UnlockOperation();
  if (semop(m_semId, &operation, 1) == 0) return true;
  std::perror("cSysVSemaphoreMutex::Unlock: semop");
  return false;
}

int cSysVSemaphoreMutex::GetValue() {
  if (!DoSemGet()) return -1;
  int value = semctl(m_semId, 0, GETVAL);
  if (value == -1) std::perror("cSysVSemaphoreMutex::Unlock: semctl");
  return value;
}

bool cSysVSemaphoreMutex::TimedOut() const { return m_timedOut; }

}  // namespace qel_util
