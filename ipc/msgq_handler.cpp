#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "qel_util/ipc.h"

namespace qel_util {
namespace {

// A message with no text: just the System V type field, whatever the size of
// long on this platform.
struct TypeOnly {
  long type;
};

// The queue counts text only; the caller's length includes the type field.
// A length below the type field wraps to a size the kernel refuses with
// EINVAL, so such a call sends or takes nothing.
size_t TextSize(unsigned short length) {
  return static_cast<size_t>(length) - sizeof(long);
}

// Puts back an empty message the watcher's probe had to take. Cancellation
// is held off so that the destructor cannot end the watcher while it holds
// the only copy. A queue that has no room even for an empty message (as many
// messages as its byte limit) is waited on with cancellation allowed again,
// so that destroying the handler never hangs on it.
void Requeue(int msqId, TypeOnly* message) {
  // The watcher always runs with cancellation enabled (its thread's start
  // routine set it), so that is the state to go back to.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  int sent = msgsnd(msqId, message, 0, IPC_NOWAIT);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  while (sent != 0 && (errno == EAGAIN || errno == EINTR))
    sent = msgsnd(msqId, message, 0, 0);
}

}  // namespace

cMsgQHandler::cMsgQHandler(int key, long msgType)
    : m_notifyPipe{-1, -1},
      m_msqId(0),
      m_msgType(msgType),
      m_watcherSemaphore(0),
      m_watcher(nullptr),
      m_running(true),
      m_unreadNotifications(0) {
  m_msqId = msgget(key, IPC_CREAT | 0666);
  if (m_msqId == -1) std::fputs("msgget error\n", stderr);
  if (pipe(m_notifyPipe) != 0) {
    // Without a pipe the handler still sends and receives; it just cannot
    // announce. get_fd() then returns -1, which poll ignores.
    m_notifyPipe[0] = -1;
    m_notifyPipe[1] = -1;
  }
  m_watcher = new cPosixThread(m_checkMsgQ, this);
}

cMsgQHandler::~cMsgQHandler() {
  m_running.store(false);
  // The watcher uses the pipe and the semaphore: it is joined before either
  // goes away.
  delete m_watcher;
  if (m_notifyPipe[0] >= 0) close(m_notifyPipe[0]);
  if (m_notifyPipe[1] >= 0) close(m_notifyPipe[1]);
}

void cMsgQHandler::m_checkMsgQ(void* self) {
  auto* handler = static_cast<cMsgQHandler*>(self);
  // Nothing of this frame whose address is taken lives on the stack: the
  // frame is left by cancellation, not by a return, and stack bookkeeping
  // that expects a return (sanitizer red zones) would be left behind.
  static thread_local TypeOnly probe;
  static const char kAnnouncement = 0;
  while (handler->m_running.load()) {
    // A zero-size receive fails with E2BIG on a message with text and leaves
    // it queued: the sign that something waits, without copying it.
    ssize_t taken =
        msgrcv(handler->m_msqId, &probe, 0, handler->m_msgType, 0);
    if (taken < 0 && errno != E2BIG) continue;
    // An empty message fits into the probe and is taken; it goes back to the
    // end of the queue, where rx finds it behind the ones that were waiting.
    if (taken == 0) Requeue(handler->m_msqId, &probe);
    // Counted before it is written, so that the count never falls behind
    // what the pipe holds.
    handler->m_unreadNotifications.fetch_add(1);
    ssize_t written;
    do {
      written = write(handler->m_notifyPipe[1], &kAnnouncement, 1);
    } while (written < 0 && errno == EINTR);
    if (written != 1) handler->m_unreadNotifications.fetch_sub(1);
    while (handler->m_watcherSemaphore.wait() != 0 && errno == EINTR) {
    }
  }
}

int cMsgQHandler::tx(void* message, unsigned short length, int flags) {
  msgsnd(m_msqId, message, TextSize(length), flags);
  return 0;
}

int cMsgQHandler::rx(void* message, unsigned short length, int flags) {
  // The announcement that led here is consumed first: the descriptor then
  // stays quiet while the queue is drained, until the watcher announces
  // again after the call that takes nothing.
  clearNotifyPipe();
  if (msgrcv(m_msqId, message, TextSize(length), m_msgType, flags) > 0)
    return 0;
  // Nothing with text was taken (no message, one too long for the buffer,
  // an empty one, or an error): the watcher may look again.
  m_watcherSemaphore.signal();
  return 1;
}

int cMsgQHandler::get_fd() const { return m_notifyPipe[0]; }

bool cMsgQHandler::clear() {
  struct {
    long type;
    char text[10];
  } scratch;
  int removed = 0;
  while (msgrcv(m_msqId, &scratch, sizeof scratch.text, m_msgType,
                IPC_NOWAIT | MSG_NOERROR) >= 0)
    ++removed;
  clearNotifyPipe();
  m_watcherSemaphore.signal();
  return removed > 0;
}

void cMsgQHandler::clearNotifyPipe() {
  // Nothing announced since the last drain means nothing in the pipe: a
  // drain on every rx then costs no system call while a burst is taken.
  if (m_unreadNotifications.load() <= 0) return;
  // FIONREAD on our own pipe fails only when there is no pipe (pipe() failed
  // at construction): then there is nothing to drain, and reading blindly on
  // a blocking descriptor could hang the consumer.
  int pending = 0;
  if (ioctl(m_notifyPipe[0], FIONREAD, &pending) != 0) return;
  // Only this thread reads the pipe, so the counted bytes are there and no
  // read blocks; never ask for more than were counted.
  char sink;
  while (pending > 0) {
    ssize_t got = read(m_notifyPipe[0], &sink, 1);
    if (got == 1) {
      --pending;
      m_unreadNotifications.fetch_sub(1);
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
}

}  // namespace qel_util
