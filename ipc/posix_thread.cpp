#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstdio>

#include "qel_util/ipc.h"

namespace qel_util {

cPosixThread::cPosixThread(void (*function)(void*), void* argument)
    : m_thread(),
      m_function(function),
      m_argument(argument),
      m_startSemaphore(0),
      m_started(false) {
  Start(nullptr);
}

cPosixThread::cPosixThread(void (*function)(void*), void* argument,
                           int priority, int policy)
    : m_thread(),
      m_function(function),
      m_argument(argument),
      m_startSemaphore(0),
      m_started(false) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) {
    std::perror("thread attr init failed");
    return;
  }
  // The policy goes first: glibc checks the priority against the range of
  // the policy already in the attributes, and only that check decides.
  pthread_attr_setschedpolicy(&attributes, policy);
  sched_param parameters{};
  parameters.sched_priority = priority;
  int refused = pthread_attr_setschedparam(&attributes, &parameters);
  pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
  if (refused != 0) {
    errno = refused;
    std::perror("set scheduler parameters failed");
  } else {
    Start(&attributes);
  }
  // pthread_create copies what it needs, so the attributes are released
  // on every path rather than leaked per thread.
  pthread_attr_destroy(&attributes);
}

void cPosixThread::Start(const pthread_attr_t* attributes) {
  int failed = pthread_create(&m_thread, attributes, m_func, this);
  if (failed != 0) {
    errno = failed;
    std::perror("thread creation failed");
    return;
  }
  // The start routine posts once whether it got going or not, so this wait
  // always ends; m_started tells the two apart.
  while (m_startSemaphore.wait() != 0 && errno == EINTR) {
  }
  // A thread that gave up before the user function has ended (or is about
  // to): collect it now, the destructor has nothing left to do.
  if (!m_started.load()) pthread_join(m_thread, nullptr);
}

void* cPosixThread::m_func(void* self) {
  auto* thread = static_cast<cPosixThread*>(self);
  const char* failure = nullptr;
  if (pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr) != 0)
    failure = "pthread_setcancelstate error";
  else if (pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr) != 0)
    failure = "pthread_setcanceltype error";
  if (failure != nullptr) {
    std::perror(failure);
    thread->m_startSemaphore.signal();
    return nullptr;
  }
  // Read before the post: once the constructor returns, the owner may
  // destroy the object at any moment (a cancellation point away).
  void (*function)(void*) = thread->m_function;
  void* argument = thread->m_argument;
  thread->m_started.store(true);
  thread->m_startSemaphore.signal();
  if (function != nullptr) function(argument);
  pthread_exit(nullptr);
}

cPosixThread::~cPosixThread() {
  // A thread that never passed the handshake is already joined or was never
  // created; its pthread_t must not be touched.
  if (!m_started.load()) return;
  // pthread_cancel returns its error instead of setting errno; a failure is
  // reported when errno is set at that moment, with the returned cause.
  int failed = pthread_cancel(m_thread);
  if (failed != 0 && errno != 0) {
    errno = failed;
    std::perror("thread cancelation failed");
  }
  failed = pthread_join(m_thread, nullptr);
  if (failed != 0) {
    errno = failed;
    std::perror("thread join failed");
  }
}

int cPosixThread::SetThreadName(const char* name) {
  if (!m_started.load()) return ESRCH;
  return pthread_setname_np(m_thread, name);
}

bool cPosixThread::IsStarted() const { return m_started.load(); }

}  // namespace qel_util
