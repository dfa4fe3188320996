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

// Preloading a library (an emulator of a device node) into a target
// program. Natively that is LD_PRELOAD; under the emulator it is the guest's
// LD_PRELOAD, handed over in QEMU_SET_ENV, so that the build machine's
// programs on the way (a shell, the wrapper, qemu) never try to load a
// library built for the target.
//
// The assignment for a shell command: NAME='VALUE'.
std::string TargetPreloadAssignment(const std::string& libraries);
// The same, set in this process's environment for a program it will start.
void SetTargetPreload(const std::string& libraries);

// Skips the current test under an emulator, saying what it cannot do there.
#define QEL_REQUIRE_NO_EMULATOR(why)                                      \
  do {                                                                    \
    if (!::qel_test::TargetEmulator().empty())                            \
      GTEST_SKIP() << "not under an emulator (" << why << ")";            \
  } while (0)

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_TARGET_H_
