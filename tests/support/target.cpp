#include "support/target.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace qel_test {
namespace {

// The variable that preloads `libraries`, and its value.
std::pair<std::string, std::string> PreloadVariable(
    const std::string& libraries) {
  if (TargetEmulator().empty()) return {"LD_PRELOAD", libraries};
  return {"QEMU_SET_ENV", "LD_PRELOAD=" + libraries};
}

}  // namespace

const std::string& TargetEmulator() {
  static const std::string command = [] {
    const char* value = std::getenv("QEL_EMULATOR");
    return std::string(value != nullptr ? value : "");
  }();
  return command;
}

std::string TargetPreloadAssignment(const std::string& libraries) {
  const auto variable = PreloadVariable(libraries);
  return variable.first + "='" + variable.second + "'";
}

void SetTargetPreload(const std::string& libraries) {
  const auto variable = PreloadVariable(libraries);
  setenv(variable.first.c_str(), variable.second.c_str(), 1);
}

void ExecTargetProgram(const char* path, char* const argv[]) {
  const std::string& emulator = TargetEmulator();
  if (emulator.empty()) {
    execv(path, argv);
    return;
  }
  // A new emulator process would find itself behind "/proc/self/exe"; the
  // emulator answers readlink with the program it runs.
  char self[PATH_MAX] = {};
  if (std::strcmp(path, "/proc/self/exe") == 0 &&
      readlink(path, self, sizeof self - 1) > 0)
    path = self;
  // The wrapper hands "-0 <name>" to qemu, which gives it to the program as
  // argv[0].
  std::vector<char*> args{const_cast<char*>(emulator.c_str()),
                          const_cast<char*>("-0"), argv[0],
                          const_cast<char*>(path)};
  for (char* const* arg = argv + 1; *arg != nullptr; ++arg)
    args.push_back(*arg);
  args.push_back(nullptr);
  execv(emulator.c_str(), args.data());
}

}  // namespace qel_test
