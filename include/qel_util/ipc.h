#ifndef QEL_UTIL_IPC_H_
#define QEL_UTIL_IPC_H_

/// \file
/// Threads and inter-process communication: a process-private semaphore, a
/// thread that lives exactly as long as its object, a System V message queue
/// made pollable, and a cross-process mutex on a System V semaphore.
/// Failures of system calls are reported with perror; nothing throws.

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "qel_util/export.h"

namespace qel_util {

/// Unnamed semaphore shared by the threads of one process.
class QEL_UTIL_EXPORT cPosixSemaphore {
 public:
  /// Any non-zero `initial` gives a count of 1, so the first wait lets one
  /// thread through; later signals count. A failed sem_init is reported
  /// with perror ("semaphore init failed").
  explicit cPosixSemaphore(unsigned char initial);
  /// sem_destroy; no thread may still wait.
  ~cPosixSemaphore();
  /// Not copyable.
  cPosixSemaphore(const cPosixSemaphore&) = delete;
  /// Not copyable.
  cPosixSemaphore& operator=(const cPosixSemaphore&) = delete;

  /// sem_wait: 0, or -1 with errno (EINTR when a signal interrupts it). A
  /// cancellation point.
  int wait();
  /// sem_post: 0, or -1 with errno.
  int signal();

 private:
  sem_t m_sem;
};

/// A thread that starts in the constructor and is cancelled and joined by
/// the destructor. The constructor returns once the thread runs with
/// deferred cancellation enabled. The thread holds the object's address, so
/// the object is neither copied nor moved. The object belongs to the thread
/// that made it; the function runs on the new thread.
class QEL_UTIL_EXPORT cPosixThread {
 public:
  /// Starts `function(argument)` on a new thread. `function` may be null;
  /// the thread then ends at once. A failure is reported with perror
  /// ("thread creation failed") and leaves IsStarted() false.
  cPosixThread(void (*function)(void*), void* argument);
  /// As above with explicit scheduling: note the order, priority first,
  /// policy second. Parameters the system refuses are reported ("set
  /// scheduler parameters failed") and no thread is started.
  cPosixThread(void (*function)(void*), void* argument, int priority,
               int policy);
  /// Cancels the thread and joins it: blocks until the function reaches a
  /// cancellation point or returns. A thread that never started is neither
  /// cancelled nor joined.
  ~cPosixThread();
  cPosixThread(const cPosixThread&) = delete;             ///< Not copyable.
  cPosixThread& operator=(const cPosixThread&) = delete;  ///< Not copyable.

  /// pthread_setname_np: 0 or an error number (ERANGE above 15 characters;
  /// ESRCH when the thread never started).
  int SetThreadName(const char* name);
  /// True when the thread was created and passed its start handshake.
  bool IsStarted() const;

  /// Start routine handed to pthread_create; not for users.
  static void* m_func(void* self);

 private:
  void Start(const pthread_attr_t* attributes);

  pthread_t m_thread;
  void (*m_function)(void*);
  void* m_argument;
  cPosixSemaphore m_startSemaphore;
  std::atomic<bool> m_started;
};

/// Joins a System V message queue to a select/poll loop: a watcher thread
/// writes one byte to a pipe when a message of the selected type waits.
/// Drain with rx(..., IPC_NOWAIT) until it returns 1. rx, clear and
/// clearNotifyPipe belong to one consumer thread; tx may be called from any.
/// Message buffers are the System V layout: a long type, then the text;
/// lengths count the whole buffer, type field included.
class QEL_UTIL_EXPORT cMsgQHandler {
 public:
  /// Opens or creates the queue (0666) under `key` and starts the watcher;
  /// `msgType` is the msgtyp of every receive (positive: that type, 0: any,
  /// negative: lowest up to |msgType|). A failed msgget writes
  /// "msgget error\n" to stderr; the watcher then keeps probing the missing
  /// queue without rest (about 0.6 of a core) until the handler is
  /// destroyed, tx sends nothing and rx returns 1. A failed pipe leaves
  /// get_fd() at -1: messages still go and come, unannounced.
  cMsgQHandler(int key, long msgType);
  /// Stops the watcher and closes the pipe; the queue and its messages stay.
  ~cMsgQHandler();
  cMsgQHandler(const cMsgQHandler&) = delete;             ///< Not copyable.
  cMsgQHandler& operator=(const cMsgQHandler&) = delete;  ///< Not copyable.

  /// msgsnd with the caller's flags. Always 0: a failed send (a full queue
  /// with IPC_NOWAIT, a length below the type field) is not reported.
  int tx(void* message, unsigned short length, int flags);
  /// msgrcv of the selected type with the caller's flags; drains the
  /// notification pipe first.
  /// \return 0 when a message with at least one byte of text was received;
  /// 1 otherwise (nothing waiting, too long for the buffer, an error, or a
  /// message with empty text, whose type is then in the buffer), and the
  /// watcher may look again.
  int rx(void* message, unsigned short length, int flags);
  /// Read end of the notification pipe, for select/poll; still owned here.
  /// -1 when the pipe could not be made.
  int get_fd() const;
  /// Drops every waiting message of the selected type; true if any was.
  bool clear();
  /// Reads and discards the bytes now in the notification pipe.
  void clearNotifyPipe();

  /// Watcher thread body; not for users.
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

/// Mutual exclusion between processes on a one-semaphore System V set named
/// by `key`. Every operation carries SEM_UNDO, so the kernel frees the lock
/// when its holder dies. One object per thread; the lock is not recursive.
/// The set stays in the kernel after the object is gone.
class QEL_UTIL_EXPORT cSysVSemaphoreMutex {
 public:
  /// Touches nothing; the set is attached on first use.
  explicit cSysVSemaphoreMutex(int key);

  /// Creates the set (value 1) or attaches an existing one, once; every
  /// other call does it first. A set whose value could not be set up is
  /// removed again (reported with perror), so the next call makes it
  /// afresh rather than attach a lock held for ever.
  /// \return true when attached.
  bool DoSemGet();
  /// Waits as long as needed; false on failure (reported with perror).
  bool Lock();
  /// Waits at most seconds + nanoseconds (nanoseconds below 1,000,000,000);
  /// false with TimedOut() true when the time ran out, false with TimedOut()
  /// false on an error.
  bool Lock(unsigned int seconds, unsigned int nanoseconds);
  /// Frees the lock. True when the lock is free afterwards (also when it was
  /// already free); false on failure or a value above 1 (both reported).
  bool Unlock();
  /// 1 free, 0 held, -1 on failure.
  int GetValue();
  /// Whether the last Lock failed by running out of time.
  bool TimedOut() const;

  /// The key of the device's flash lock, for services to share.
  static const int flash_key = 0x000F1A54;

 private:
  int m_key;
  int m_semId;
  bool m_timedOut;
};

}  // namespace qel_util

#endif  // QEL_UTIL_IPC_H_
