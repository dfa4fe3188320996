#ifndef QEL_DEVSIM_PROGRAM_H_
#define QEL_DEVSIM_PROGRAM_H_

// Finding the program and the emulators preloaded into it.

#include <string>

namespace qel_devsim {

// The emulators' file names, in a directory of each architecture.
extern const char* const kEmulators[2];

// `name` searched in PATH unless it holds a "/"; "" when not found.
std::string FindProgram(const std::string& name);

// Whether `path` is a 32-bit ARM ELF file that this machine cannot run
// without qemu-user.
bool NeedsArmEmulator(const std::string& path);

// The directory of this tool's own emulators: beside the tool (a build
// tree), then the installed library directory; "" when none has them.
std::string NativeEmulatorDir();

// The armhf emulators: `given`, then $QEL_DEVSIM_ARMHF_LIBS, the installed
// armhf library directory, and the armhf build (scripts/armhf.sh) beside
// the build tree the tool runs from; "" when none has them.
std::string ArmhfEmulatorDir(const std::string& given);

// `path` made absolute against the working directory.
std::string Absolute(const std::string& path);

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_PROGRAM_H_
