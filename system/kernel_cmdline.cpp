#include "system/kernel_cmdline.h"

#include <cstdio>

namespace qel_util {
namespace system {

std::string ReadKernelCmdline() {
  char buffer[384] = {};
  if (FILE* file = std::fopen("/proc/cmdline", "r")) {
    std::fread(buffer, 1, sizeof buffer - 1, file);
    std::fclose(file);
  }
  return buffer;
}

}  // namespace system
}  // namespace qel_util
