#include "device_files.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdint>

#include "qel_util/hw.h"
#include "sandbox.h"

namespace qel_devsim {

std::string HardwareIdRecord(const std::string& text) {
  std::string body = text;
  body.resize(252, '\0');
  const uint32_t crc = qel_util::Crc32(body.data(), body.size());
  std::string record;
  for (int shift = 0; shift < 32; shift += 8)
    record += static_cast<char>(crc >> shift);
  return record + body;
}

bool IsHex(const std::string& text, size_t digits) {
  for (unsigned char c : text)
    if (!std::isxdigit(c)) return false;
  return digits == 0 ? !text.empty() : text.size() == digits;
}

std::string CidForSerial(const std::string& serial) {
  if (!IsHex(serial) || serial.size() > 12) return "";
  // Manufacturer 0x15, OEM "\1\0", product name "QEMMC1", revision 0x01.
  return "1501005145" "4d4d433101" + std::string(12 - serial.size(), '0') +
         serial + "\n";
}

std::string FirmwareScript(const std::string& version) {
  return "printf '%s\\n' " + ShellQuote(version) + "\n";
}

const char kFwSetenvScript[] = "/usr/bin/fw_setenv \"$@\" && echo OK\n";

std::string SetUpBootEnvironment(const std::string& scratch,
                                 const std::string& envFile,
                                 const std::string& barcode,
                                 std::string* stored) {
  struct stat st;
  const bool fresh = stat(envFile.c_str(), &st) != 0 || st.st_size == 0;
  std::string why;
  if (fresh && !(why = WriteFile(envFile, std::string(4096, '\0'))).empty())
    return why;
  if (!(why = PlaceFile(scratch, "/etc/fw_env.config", envFile + " 0x0 0x1000\n")).empty() ||
      !(why = PlaceScript(scratch, "/sbin/fw_setenv", kFwSetenvScript)).empty() ||
      !(why = PlaceFile(scratch, "/sys/block/mmcblk0boot0/force_ro", "1\n")).empty())
    return why;
  // The tool writes a fresh environment from a file of defaults.
  const std::string defaults = scratch + "/uboot.defaults";
  if (fresh && (!(why = WriteFile(defaults, barcode.empty() ? "" : "barcode=" + barcode + "\n")).empty() ||
                Shell("/usr/bin/fw_setenv -f " + defaults + " 2>/dev/null") != 0))
    return why.empty() ? "cannot write the environment with /usr/bin/fw_setenv" : why;
  stored->clear();
  if (Shell("/usr/bin/fw_printenv -n barcode 2>/dev/null", stored) == 0 &&
      !stored->empty() && stored->back() == '\n')
    stored->pop_back();
  return "";
}

}  // namespace qel_devsim
