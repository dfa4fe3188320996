#include <semaphore.h>

#include <cstdio>

#include "qel_util/ipc.h"

namespace qel_util {

cPosixSemaphore::cPosixSemaphore(unsigned char initial) {
  // A start count above 1 would let several waiters through the first time,
  // which no user of this class wants: it is a binary start, counting after.
  if (sem_init(&m_sem, 0, initial != 0 ? 1 : 0) != 0)
    std::perror("semaphore init failed");
}

cPosixSemaphore::~cPosixSemaphore() { sem_destroy(&m_sem); }

int cPosixSemaphore::wait() { return sem_wait(&m_sem); }

int cPosixSemaphore::signal() { return sem_post(&m_sem); }

}  // namespace qel_util
