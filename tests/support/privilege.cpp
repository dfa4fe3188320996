#include "support/privilege.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

namespace qel_test {

bool DropCapability(int capability) {
  // Raw system calls: libcap is not among the test dependencies.
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, sets) != 0) {
    ADD_FAILURE() << "capget: " << std::strerror(errno);
    return false;
  }
  sets[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
  sets[CAP_TO_INDEX(capability)].permitted &= ~CAP_TO_MASK(capability);
  if (syscall(SYS_capset, &header, sets) != 0) {
    ADD_FAILURE() << "capset: " << std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace qel_test
