#ifndef QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
#define QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_

#include <sys/resource.h>

#include <exception>
#include <functional>

namespace qel_test {

// Lowers RLIMIT_NOFILE so that exactly `freeSlots` more descriptors can be
// opened, and restores the old limit when it goes. With one slot a plain
// open still works while pipe() (hence popen) fails with EMFILE. Use it
// inside a sandbox: the limit is per process.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(unsigned freeSlots);
  ~DescriptorLimit();
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit m_saved{};
};

// Runs `call` with only `freeSlots` descriptors to spare and returns what it
// threw (null when nothing). Examine the exception after this returns: the
// sanitizer runtimes need descriptors of their own for their checks.
std::exception_ptr ThrownWithDescriptorLimit(unsigned freeSlots,
                                             const std::function<void()>& call);

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H_
