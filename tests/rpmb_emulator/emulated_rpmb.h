#ifndef QEL_TESTS_RPMB_EMULATOR_EMULATED_RPMB_H_
#define QEL_TESTS_RPMB_EMULATOR_EMULATED_RPMB_H_

// Runs programs against the emulated "/dev/mmcblk0rpmb" (rpmb_emulator.c)
// and catches standard error of code running in the test process. For use
// inside a sandbox: fixtures go to its scratch area. The paths of the
// emulator and of the probe program come from QEL_RPMB_EMULATOR and
// QEL_RPMB_PROBE, set by the test's .cmake file.

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/sandbox.h"
#include "support/target.h"

namespace qel_test {

struct RpmbDevice {
  bool present = true;  // false: no image, so no device node
  std::string image;    // the data of the blocks, 256 bytes each
  std::string blocks;   // QEL_RPMB_BLOCKS ("" = size of the image)
  std::string results;  // QEL_RPMB_RESULTS ("" = all 0)
};

struct RpmbRun {
  int status = -1;
  std::string out;    // standard output
  std::string err;    // standard error
  std::string trace;  // one line per ioctl the device saw
};

// The emulator, behind the sanitizer runtime when this build has a shared
// one: a sanitizer runtime must come first among the preloaded objects.
inline std::string RpmbPreload() {
  std::string runtime;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        if (std::strstr(info->dlpi_name, "/libasan.so"))
          *static_cast<std::string*>(data) = info->dlpi_name;
        return 0;
      },
      &runtime);
  return runtime.empty() ? QEL_RPMB_EMULATOR
                         : runtime + ":" + QEL_RPMB_EMULATOR;
}

// Runs the shell command `command` with the device emulated. "$PROBE" in the
// command stands for the probe program.
inline RpmbRun RunOnRpmb(const RpmbDevice& device, const std::string& command) {
  const std::string image = ScratchPath("rpmb.img");
  const std::string err = ScratchPath("rpmb.err");
  const std::string trace = ScratchPath("rpmb.trace");
  unlink(image.c_str());
  unlink(trace.c_str());
  if (device.present) WriteFile(image, device.image);
  const char* asan = std::getenv("ASAN_OPTIONS");
  std::string env = "PROBE='" QEL_RPMB_PROBE "' " +
                    TargetPreloadAssignment(RpmbPreload()) + " ASAN_OPTIONS='" +
                    (asan ? std::string(asan) + ":" : "") +
                    "verify_asan_link_order=0' QEL_RPMB_IMAGE=" + image +
                    " QEL_RPMB_TRACE=" + trace;
  if (!device.blocks.empty()) env += " QEL_RPMB_BLOCKS=" + device.blocks;
  if (!device.results.empty()) env += " QEL_RPMB_RESULTS=" + device.results;
  RpmbRun run;
  // The running shell is not affected; the programs it starts see the device.
  run.status = Shell("export " + env + "; " + command + " 2>" + err, &run.out);
  run.err = ReadFile(err);
  run.trace = ReadFile(trace);
  return run;
}

// Standard error of the test process goes to a scratch file while it lives.
class StderrCapture {
 public:
  StderrCapture() : m_path(ScratchPath("stderr.txt")) {
    std::fflush(stderr);
    m_saved = dup(2);
    const int fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    close(fd);
  }
  ~StderrCapture() { Restore(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // What was written so far; standard error is back where it was.
  std::string Take() {
    Restore();
    return ReadFile(m_path);
  }

 private:
  void Restore() {
    if (m_saved < 0) return;
    std::fflush(stderr);
    dup2(m_saved, 2);
    close(m_saved);
    m_saved = -1;
  }
  std::string m_path;
  int m_saved = -1;
};

}  // namespace qel_test

#endif  // QEL_TESTS_RPMB_EMULATOR_EMULATED_RPMB_H_
