#ifndef QEL_TESTS_SUPPORT_PRIVILEGE_H_
#define QEL_TESTS_SUPPORT_PRIVILEGE_H_

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

namespace qel_test {

// Removes `capability` (CAP_*) from the calling thread's effective and
// permitted sets for good (use it in a child or a sandbox). Fails the test
// and returns false on error. Raw system calls: no libcap in the tests.
inline bool DropCapability(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  bool ok = syscall(SYS_capget, &header, sets) == 0;
  sets[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
  sets[CAP_TO_INDEX(capability)].permitted &= ~CAP_TO_MASK(capability);
  ok = ok && syscall(SYS_capset, &header, sets) == 0;
  if (!ok) ADD_FAILURE() << "dropping a capability: " << std::strerror(errno);
  return ok;
}

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_PRIVILEGE_H_
