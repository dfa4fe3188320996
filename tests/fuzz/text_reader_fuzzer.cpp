// The text readers on any file contents: exec's output, the firmware version
// script's and the eMMC CID. Each must give exactly what its contract says
// of those bytes (zero bytes, long lines and missing line ends included).

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

#include "fuzz_sandbox.h"
#include "qel_util/system.h"

using namespace qel_util::system;
using qel_fuzz::Check;
using qel_fuzz::Require;

namespace {

const char kCid[] = "/sys/bus/mmc/devices/mmc0:0001/cid";
const char kScript[] = "/usr/bin/ubi_get_volume_versions.sh";
const auto npos = std::string::npos;

// The lines of `text` as fgets gives them into a buffer of `size`, each
// taken up to its first zero byte.
std::string AsRead(const std::string& text, size_t size, size_t lines = npos) {
  std::string read;
  for (size_t at = 0; at < text.size() && lines-- > 0;) {
    size_t n = std::min(size - 1, text.size() - at);
    const size_t end = text.find('\n', at);
    if (end != npos && end < at + n) n = end - at + 1;
    const std::string chunk = text.substr(at, n);
    read += chunk.substr(0, chunk.find('\0'));
    at += n;
  }
  return read;
}

std::string WithoutTrailingSpace(std::string text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.pop_back();
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qel_fuzz::EnterSandbox();
  Require(qel_devsim::MountTmpfs("/sys/bus"));
  Require(qel_devsim::MakeDirs("/sys/bus/mmc/devices/mmc0:0001"));
  Require(qel_devsim::PlaceScript("/tmp", kScript, "cat /tmp/version\n"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const char* path : {kCid, "/tmp/version", "/tmp/output"})
    Require(qel_devsim::WriteFile(path, text));

  Check(exec("cat /tmp/output") == AsRead(text, 128));
  Check(fwVersionString() == WithoutTrailingSpace(AsRead(text, 128)));

  std::string serial = WithoutTrailingSpace(AsRead(text, 127, 1));
  std::transform(serial.begin(), serial.end(), serial.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  if (serial.size() > 12) serial.erase(0, serial.size() - 12);
  Check(serialNumberString() == serial);
  return 0;
}
