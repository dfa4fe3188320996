#ifndef QEL_TESTS_SUPPORT_TARGET_H_
#define QEL_TESTS_SUPPORT_TARGET_H_

// In a cross build the tests run under qemu-user, whose wrapper exports
// QEL_EMULATOR: the command that runs one more target program.

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
  return TargetEmulator().empty()
             ? "LD_PRELOAD='" + libraries + "'"
             : "QEMU_SET_ENV='LD_PRELOAD=" + libraries + "'";
}
inline void SetTargetPreload(const std::string& libraries) {
  if (TargetEmulator().empty())
    setenv("LD_PRELOAD", libraries.c_str(), 1);
  else
    setenv("QEMU_SET_ENV", ("LD_PRELOAD=" + libraries).c_str(), 1);
}

// execv of a target program (or "/proc/self/exe"), through the emulator when
// there is one, keeping argv[0]. Returns only on failure.
inline void ExecTargetProgram(const char* path, char* const argv[]) {
  const std::string& emulator = TargetEmulator();
  if (emulator.empty()) {
    execv(path, argv);
    return;
  }
  // A new emulator would find itself behind "/proc/self/exe"; readlink under
  // the emulator gives the program it runs.
  char self[PATH_MAX] = {};
  if (std::strcmp(path, "/proc/self/exe") == 0 &&
      readlink(path, self, sizeof self - 1) > 0)
    path = self;
  // The wrapper hands "-0 <name>" to qemu, which makes it the argv[0].
  std::vector<char*> args{const_cast<char*>(emulator.c_str()),
                          const_cast<char*>("-0"), argv[0],
                          const_cast<char*>(path)};
  for (char* const* arg = argv + 1; *arg != nullptr; ++arg)
    args.push_back(*arg);
  args.push_back(nullptr);
  execv(emulator.c_str(), args.data());
}

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_TARGET_H_
