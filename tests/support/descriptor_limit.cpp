#include "support/descriptor_limit.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace qel_test {

DescriptorLimit::DescriptorLimit(unsigned freeSlots) {
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_saved), 0);
  // The kernel hands out the lowest free number, so the limit counts from
  // there; descriptors above it do not matter.
  const int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(lowest, 0);
  if (lowest < 0) return;
  close(lowest);
  rlimit lowered = m_saved;
  lowered.rlim_cur = static_cast<rlim_t>(lowest) + freeSlots;
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
}

DescriptorLimit::~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_saved); }

std::exception_ptr ThrownWithDescriptorLimit(unsigned freeSlots,
                                             const std::function<void()>& call) {
  DescriptorLimit limit(freeSlots);
  try {
    call();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace qel_test
