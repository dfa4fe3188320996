#ifndef QEL_TESTS_SUPPORT_TARGET_H_
#define QEL_TESTS_SUPPORT_TARGET_H_

// In a cross build the tests run under qemu-user, whose wrapper exports
// QEL_EMULATOR: the command that runs one more target program. On the ARM
// kernel itself (scripts/armhf-vm.sh) there is none, and they run as they
// do natively.

#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <gtest/gtest.h>

namespace qel_test {

inline const std::string& TargetEmulator() {  // "" natively
  static const std::string command =
      std::getenv("QEL_EMULATOR") ? std::getenv("QEL_EMULATOR") : "";
  return command;
}

#define QEL_REQUIRE_NO_EMULATOR(why)                                      \
  do {                                                                    \
    if (!::qel_test::TargetEmulator().empty())                            \
      GTEST_SKIP() << "not under an emulator (" << why << ")";            \
  } while (0)

// Preloads `libraries` into a target program only: LD_PRELOAD natively, the
// guest's LD_PRELOAD in QEMU_SET_ENV under the emulator. As a shell
// assignment NAME='VALUE', or set in this process's environment.
inline std::string TargetPreloadAssignment(const std::string& libraries) {
  return (TargetEmulator().empty() ? "LD_PRELOAD='" : "QEMU_SET_ENV='LD_PRELOAD=") +
         libraries + "'";
}
inline void SetTargetPreload(const std::string& libraries) {
  const bool native = TargetEmulator().empty();
  setenv(native ? "LD_PRELOAD" : "QEMU_SET_ENV",
         ((native ? "" : "LD_PRELOAD=") + libraries).c_str(), 1);
}

// execv of a target program (or "/proc/self/exe"), through the emulator when
// there is one, keeping argv[0]. Returns only on failure.
inline void ExecTargetProgram(const char* path, char* const argv[]) {
  const std::string& emulator = TargetEmulator();
  if (emulator.empty()) return (void)execv(path, argv);
  // "/proc/self/exe" would be the emulator; its readlink gives the program.
  char self[PATH_MAX] = {};
  if (!std::strcmp(path, "/proc/self/exe") && readlink(path, self, PATH_MAX - 1) > 0)
    path = self;
  // "-0 <name>" makes qemu pass <name> as argv[0].
  std::vector<char*> args{const_cast<char*>(emulator.c_str()),
                          const_cast<char*>("-0"), argv[0], const_cast<char*>(path)};
  for (char* const* arg = argv + 1;; ++arg) {
    args.push_back(*arg);
    if (*arg == nullptr) break;
  }
  execv(emulator.c_str(), args.data());
}

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_TARGET_H_
