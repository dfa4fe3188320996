#ifndef QEL_TESTS_SUPPORT_HOST_TOOL_H_
#define QEL_TESTS_SUPPORT_HOST_TOOL_H_

// Some tests drive a program of the build machine (a device tool, a peer).
// Run by ctest without the project's scripts, which install them, a missing
// program skips the test with its name and Debian package instead of
// failing it.

#include <unistd.h>
#include <cstdlib>
#include <sstream>
#include <string>
#include <gtest/gtest.h>

namespace qel_test {

// True when `program` is an executable file, by path or on PATH and in the
// system directories (which a root-less PATH may lack).
inline bool HostHasProgram(const std::string& program) {
  if (program.find('/') != std::string::npos)
    return access(program.c_str(), X_OK) == 0;
  const char* path = std::getenv("PATH");
  std::istringstream dirs(std::string(path ? path : "") + ":/usr/sbin:/sbin");
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  return false;
}

#define QEL_REQUIRE_HOST_PROGRAM(program, package)                           \
  do {                                                                       \
    if (!::qel_test::HostHasProgram(program))                                \
      GTEST_SKIP() << "needs " << (program) << " (Debian package " << (package) \
                   << "; scripts/install-deps.sh installs it)";              \
  } while (0)

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_HOST_TOOL_H_
