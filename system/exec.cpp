#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "qel_util/system.h"

namespace qel_util {
namespace system {

void exec(const char* command, std::string& output) {
  output.clear();
  FILE* stream = popen(command, "r");
  if (stream == nullptr) throw std::runtime_error("popen() failed!");
  // Closed on every way out, also when an append throws.
  std::shared_ptr<FILE> pipe(stream, pclose);
  char buffer[128];
  while (!std::feof(pipe.get())) {
    // A chunk is taken up to its first zero byte: the rest of that chunk is
    // dropped, later chunks still count.
    if (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr)
      output.append(buffer, std::strlen(buffer));
    else if (std::ferror(pipe.get())) {
      // An interrupted read is tried again; a lasting error would otherwise
      // spin for ever, so the output so far is what the command said.
      if (errno != EINTR) break;
      std::clearerr(pipe.get());
    }
  }
}

std::string exec(const char* command) {
  std::string output;
  exec(command, output);
  return output;
}

std::string exec(const std::string& command) { return exec(command.c_str()); }

}  // namespace system
}  // namespace qel_util
