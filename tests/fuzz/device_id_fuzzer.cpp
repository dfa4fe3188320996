// GetDeviceID on any RPMB block 0, any device result codes and any
// partition size (a read past it fails the ioctl's address check), through
// the RPMB emulator: the error is 0, 1 or 2, an ID comes only with error 0
// and is then exactly the text behind "HWID=" in a record whose CRC holds,
// and such a record read without a device error always gives its ID.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_sandbox.h"
#include "qel_util/hw.h"
#include "qel_util/system.h"

using qel_fuzz::Check;
using qel_fuzz::Require;

namespace {

// The ID a record holds, or "" with `valid` false when its CRC fails or it
// has no key. The text ends at the record's last byte at the latest.
std::string Model(std::string block, bool* valid) {
  block.resize(256, '\0');
  uint32_t stored = 0;
  for (int i = 3; i >= 0; --i) stored = stored << 8 | static_cast<unsigned char>(block[i]);
  block[255] = '\0';
  const std::string text(block.c_str() + 4);
  const size_t key = text.find("HWID=");
  *valid = qel_util::Crc32(block.data() + 4, 252) == stored && key != std::string::npos;
  return *valid ? text.substr(key + 5) : "";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
  // The emulator must be loaded before the target starts: once, by running
  // the target again with it preloaded.
  if (!std::getenv("QEL_RPMB_IMAGE")) {
    setenv("LD_PRELOAD", QEL_RPMB_EMULATOR, 1);
    const char* asan = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           ((asan ? std::string(asan) + ":" : "") + "verify_asan_link_order=0").c_str(), 1);
    setenv("QEL_RPMB_IMAGE", "/tmp/rpmb.img", 1);
    execv("/proc/self/exe", *argv);
    std::perror("fuzz set-up: execv");
    std::exit(1);
  }
  qel_fuzz::EnterSandbox();
  Require(qel_devsim::PrivateDev());
  Require(qel_devsim::WriteFile("/dev/mmcblk0rpmb", ""));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string results = input.ConsumeRandomLengthString(24);
  const unsigned blocks = input.ConsumeIntegralInRange<unsigned>(0, 2);
  const std::string block = input.ConsumeRemainingBytesAsString();
  setenv("QEL_RPMB_RESULTS", results.c_str(), 1);
  setenv("QEL_RPMB_BLOCKS", std::to_string(blocks).c_str(), 1);
  std::string image = block;
  image.resize(256, '\0');
  Require(qel_devsim::WriteFile("/tmp/rpmb.img", image));

  int error = -1;
  const std::string id = qel_util::system::GetDeviceID(error);
  bool valid = false;
  const std::string expected = Model(block, &valid);
  Check(error >= 0 && error <= 2);
  Check(error == 0 ? valid && id == expected : id.empty());
  if (valid && blocks > 0 && results.find_first_not_of("0,") == std::string::npos)
    Check(error == 0);
  return 0;
}
