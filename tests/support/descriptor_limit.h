#ifndef QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
#define QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <exception>
#include <functional>
#include <gtest/gtest.h>

namespace qel_test {

// Leaves exactly `freeSlots` descriptors to open (one: open works, pipe and
// popen fail with EMFILE) until it goes. Per process: use it in a sandbox.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(unsigned freeSlots) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_saved), 0);
    // Counted from the lowest free number, the one the kernel hands out.
    const int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(lowest, 0);
    if (lowest >= 0) close(lowest);
    rlimit lowered = m_saved;
    lowered.rlim_cur = static_cast<rlim_t>(lowest) + freeSlots;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_saved); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit m_saved{};
};

// What `call` threw under the limit (null when nothing). Examine it after
// this returns: the sanitizer runtimes need descriptors for their checks.
inline std::exception_ptr ThrownWithDescriptorLimit(
    unsigned freeSlots, const std::function<void()>& call) {
  DescriptorLimit limit(freeSlots);
  try {
    call();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
