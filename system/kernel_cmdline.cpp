#include "system/kernel_cmdline.h"

#include <cstdio>

namespace qel_util {
namespace system {

std::string ReadKernelCmdline() {
  char buffer[384] = {};
  if (FILE* file = std::fopen("/proc/cmdline", "r")) {
    // What was read ends the text; fortified builds insist on the count.
    buffer[std::fread(buffer, 1, sizeof buffer - 1, file)] = '\0';
    std::fclose(file);
  }
  return buffer;
}

}  // namespace system
}  // namespace qel_util
