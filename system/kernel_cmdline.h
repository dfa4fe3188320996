#ifndef QEL_UTIL_SYSTEM_KERNEL_CMDLINE_H_
#define QEL_UTIL_SYSTEM_KERNEL_CMDLINE_H_

#include <string>

namespace qel_util {
namespace system {

// The first 383 bytes of "/proc/cmdline", up to the first zero byte, the
// kernel's closing newline kept; "" when the file cannot be read.
std::string ReadKernelCmdline();

}  // namespace system
}  // namespace qel_util

#endif  // QEL_UTIL_SYSTEM_KERNEL_CMDLINE_H_
