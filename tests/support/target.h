#ifndef QEL_TESTS_SUPPORT_TARGET_H_
#define QEL_TESTS_SUPPORT_TARGET_H_

// Test programs of a cross build run on the build machine under an emulator
// (qemu-user). The kernel there cannot execve a program built for the
// target, so the emulator's wrapper exports QEL_EMULATOR, the command that
// runs one more; tests start their helper programs through it.

#include <string>

#include <gtest/gtest.h>

namespace qel_test {

// The command that runs a program built for the target; "" natively.
const std::string& TargetEmulator();

// execv of a helper program built with the tests (or of "/proc/self/exe"),
// through the emulator when there is one; argv[0] stays the program's name.
// Returns only on failure.
void ExecTargetProgram(const char* path, char* const argv[]);

// Skips the current test under an emulator, saying what it cannot do there.
#define QEL_REQUIRE_NO_EMULATOR(why)                                      \
  do {                                                                    \
    if (!::qel_test::TargetEmulator().empty())                            \
      GTEST_SKIP() << "not under an emulator (" << why << ")";            \
  } while (0)

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_TARGET_H_
