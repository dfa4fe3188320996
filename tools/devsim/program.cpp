#include "program.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qel_devsim {
namespace {

bool HasEmulators(const std::string& dir) {
  for (const char* name : kEmulators)
    if (dir.empty() || access((dir + "/" + name).c_str(), R_OK) != 0) return false;
  return true;
}

std::string ToolDir() {
  char self[PATH_MAX] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return "";
  return std::string(self, std::strrchr(self, '/') - self);
}

template <size_t N>
std::string FirstWithEmulators(const std::string (&dirs)[N]) {
  for (const std::string& dir : dirs)
    if (HasEmulators(dir)) return dir;
  return "";
}

}  // namespace

const char* const kEmulators[2] = {"qel_rpmb_emulator.so", "qel_i2c_emulator.so"};

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos)
    return access(name.c_str(), F_OK) == 0 ? Absolute(name) : "";
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
  for (std::string dir; std::getline(path, dir, ':');) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return Absolute(candidate);
  }
  return "";
}

bool NeedsArmEmulator(const std::string& path) {
#if defined(__arm__) || defined(__aarch64__)
  (void)path;
  return false;
#else
  unsigned char header[20] = {};
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(header), 20);
  return std::memcmp(header, "\177ELF\1", 5) == 0 && header[18] == 40 &&
         header[19] == 0;  // EM_ARM, little-endian
#endif
}

std::string NativeEmulatorDir() {
  const std::string tool = ToolDir();
  const std::string dirs[] = {tool, tool + "/../" QEL_DEVSIM_LIBDIR "/qel_util",
                              QEL_DEVSIM_FULL_LIBDIR "/qel_util"};
  return FirstWithEmulators(dirs);
}

std::string ArmhfEmulatorDir(const std::string& given) {
  if (!given.empty()) return HasEmulators(given) ? Absolute(given) : "";
  const char* env = std::getenv("QEL_DEVSIM_ARMHF_LIBS");
  const std::string tool = ToolDir();
  const std::string dirs[] = {
      env ? env : "", tool + "/../lib/arm-linux-gnueabihf/qel_util",
      "/usr/lib/arm-linux-gnueabihf/qel_util",
      access((tool + "/../../CMakeCache.txt").c_str(), F_OK) == 0
          ? tool + "/../../../build-armhf/tools/devsim" : ""};
  return FirstWithEmulators(dirs);
}

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[PATH_MAX] = {};
  return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + path : path;
}

}  // namespace qel_devsim
