#ifndef QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
#define QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <functional>

#include <gtest/gtest.h>

namespace qel_test {

// What `call` threw (null when nothing) with exactly `freeSlots` descriptors
// left to open (one: open works, pipe and popen fail with EMFILE). Per
// process: use it in a sandbox. Examine it after this returns: the sanitizer
// runtimes need descriptors for their checks.
inline std::exception_ptr ThrownWithDescriptorLimit(
    unsigned freeSlots, const std::function<void()>& call) {
  rlimit saved{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  // Counted from the lowest free number, the one the kernel hands out.
  const int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(lowest, 0);
  if (lowest >= 0) close(lowest);
  rlimit lowered = saved;
  lowered.rlim_cur = static_cast<rlim_t>(lowest) + freeSlots;
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  std::exception_ptr thrown;
  try {
    call();
  } catch (...) {
    thrown = std::current_exception();
  }
  setrlimit(RLIMIT_NOFILE, &saved);
  return thrown;
}

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
