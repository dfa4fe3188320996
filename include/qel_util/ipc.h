#ifndef QEL_UTIL_IPC_H_
#define QEL_UTIL_IPC_H_

// Threads and inter-process communication: a process-private semaphore, a
// thread that lives exactly as long as its object, a System V message queue
// made pollable, and a cross-process mutex on a System V semaphore.
// Failures of system calls are reported with perror; nothing throws.

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "qel_util/export.h"

namespace qel_util {

// Unnamed semaphore shared by the threads of one process. Any non-zero
// initial value gives a count of 1.
class QEL_UTIL_EXPORT cPosixSemaphore {
 public:
  explicit cPosixSemaphore(unsigned char initial);
  ~cPosixSemaphore();
  cPosixSemaphore(const cPosixSemaphore&) = delete;
  cPosixSemaphore& operator=(const cPosixSemaphore&) = delete;

  // sem_wait: 0, or -1 with errno (EINTR). A cancellation point.
  int wait();
  // sem_post: 0, or -1 with errno.
  int signal();

 private:
  sem_t m_sem;
};

// A thread that starts in the constructor and is cancelled and joined by the
// destructor. The constructor returns once the thread runs with deferred
// cancellation enabled. The thread holds the object's address, so the object
// is neither copied nor moved.
class QEL_UTIL_EXPORT cPosixThread {
 public:
  // `function` may be null; the thread then ends at once.
  cPosixThread(void (*function)(void*), void* argument);
  // Explicit scheduling: note the order, priority first, policy second.
  cPosixThread(void (*function)(void*), void* argument, int priority,
               int policy);
  // Blocks until the thread reaches a cancellation point or returns. A thread
  // that never started is neither cancelled nor joined.
  ~cPosixThread();
  cPosixThread(const cPosixThread&) = delete;
  cPosixThread& operator=(const cPosixThread&) = delete;

  // pthread_setname_np: 0 or an error number (ERANGE above 15 characters).
  int SetThreadName(const char* name);
  // True when the thread was created and passed its start handshake.
  bool IsStarted() const;

  // Start routine handed to pthread_create; not for users.
  static void* m_func(void* self);

 private:
  void Start(const pthread_attr_t* attributes);

  pthread_t m_thread;
  void (*m_function)(void*);
  void* m_argument;
  cPosixSemaphore m_startSemaphore;
  std::atomic<bool> m_started;
};

// Joins a System V message queue to a select/poll loop: a watcher thread
// writes one byte to a pipe when a message of the selected type waits.
// Drain with rx(..., IPC_NOWAIT) until it returns 1. rx, clear and
// clearNotifyPipe belong to one consumer thread; tx may be called from any.
// Message buffers are the System V layout: a long type, then the text;
// lengths count the whole buffer, type field included.
class QEL_UTIL_EXPORT cMsgQHandler {
 public:
  // Opens or creates the queue (0666) under `key`; `msgType` is the msgtyp of
  // every receive (positive: that type, 0: any, negative: lowest up to |t|).
  // A failed msgget writes "msgget error\n" to stderr.
  cMsgQHandler(int key, long msgType);
  // Stops the watcher and closes the pipe; the queue stays.
  ~cMsgQHandler();
  cMsgQHandler(const cMsgQHandler&) = delete;
  cMsgQHandler& operator=(const cMsgQHandler&) = delete;

  // msgsnd with the caller's flags; always 0, a failed send is not reported.
  int tx(void* message, unsigned short length, int flags);
  // 0 when a message with at least one byte of text was received, else 1
  // (and the watcher may look again).
  int rx(void* message, unsigned short length, int flags);
  // Read end of the notification pipe, for select/poll.
  int get_fd() const;
  // Drops every waiting message of the selected type; true if any was.
  bool clear();
  // Reads and discards the bytes now in the notification pipe.
  void clearNotifyPipe();

  // Watcher thread body; not for users.
  static void m_checkMsgQ(void* self);

 private:
  int m_notifyPipe[2];
  int m_msqId;
  long m_msgType;
  cPosixSemaphore m_watcherSemaphore;
  cPosixThread* m_watcher;
  std::atomic<bool> m_running;
  // Notification bytes the watcher has written (or is about to) and the
  // consumer has not read yet: while 0 the pipe is known to be empty.
  std::atomic<int> m_unreadNotifications;
};

// Mutual exclusion between processes on a one-semaphore System V set named
// by `key`. Every operation carries SEM_UNDO, so the kernel frees the lock
// when its holder dies. One object per thread; the lock is not recursive.
class QEL_UTIL_EXPORT cSysVSemaphoreMutex {
 public:
  explicit cSysVSemaphoreMutex(int key);

  // Creates (value 1) or attaches the set once; true when attached.
  bool DoSemGet();
  // Waits as long as needed; false on failure (reported with perror).
  bool Lock();
  // Waits at most seconds + nanoseconds; false with TimedOut() true when the
  // time ran out, false with TimedOut() false on an error.
  bool Lock(unsigned int seconds, unsigned int nanoseconds);
  // True when the lock is free afterwards; false on failure or a value > 1.
  bool Unlock();
  // 1 free, 0 held, -1 on failure.
  int GetValue();
  // Whether the last Lock failed by running out of time.
  bool TimedOut() const;

  // The key of the device's flash lock, for services to share.
  static const int flash_key = 0x000F1A54;

 private:
  int m_key;
  int m_semId;
  bool m_timedOut;
};

}  // namespace qel_util

#endif  // QEL_UTIL_IPC_H_
