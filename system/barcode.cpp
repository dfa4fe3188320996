#include <fcntl.h>
#include <unistd.h>

#include "qel_util/system.h"
#include "system/barcode.h"
#include "system/kernel_cmdline.h"

namespace qel_util {
namespace system {

namespace {

// The boot loader keeps its environment on the eMMC's first boot partition,
// which the kernel holds read-only. Released for the tool's run only, and set
// again on every way out, an exception from exec included.
class BootPartitionWritable {
 public:
  BootPartitionWritable() { WriteToFile(kSwitch, "0"); }
  ~BootPartitionWritable() { WriteToFile(kSwitch, "1"); }
  BootPartitionWritable(const BootPartitionWritable&) = delete;
  BootPartitionWritable& operator=(const BootPartitionWritable&) = delete;

 private:
  static constexpr const char* kSwitch = "/sys/block/mmcblk0boot0/force_ro";
};

}  // namespace

std::string GetCmdlineBarcode() {
  return BarcodeFromCmdline(ReadKernelCmdline());
}

std::string ParseBarcodeASN(int* keyNumber, const std::string& newAsn,
                            std::string& newBarcode) {
  return ParseBarcodeASN(GetCmdlineBarcode(), keyNumber, newAsn, newBarcode);
}

std::string GetBarcode() { return KeyedBarcode(GetCmdlineBarcode()); }

std::string GetBarcodeASN(int* keyNumber) {
  std::string unused;
  return ParseBarcodeASN(keyNumber, "", unused);
}

bool SetBarcodeASN(const std::string& asn) {
  const std::string trimmed = TrimSpace(asn);
  if (trimmed.size() < kMinAsnLength || trimmed.size() > kMaxAsnLength)
    return false;
  // The barcode lands on the next boot's kernel command line: a blank would
  // end the parameter there and hand the rest to the kernel as parameters of
  // its own, and a control character has no place in a printed label.
  for (unsigned char c : trimmed)
    if (c <= ' ' || c == 0x7f) return false;
  std::string barcode;
  ParseBarcodeASN(nullptr, trimmed, barcode);
  if (barcode.empty()) return false;
  // The barcode goes to the shell between single quotes: a quote in it, from
  // the new ASN or from the kernel's barcode, would end the argument and
  // hand the rest to the shell as commands; a NUL would cut the command
  // short, leaving the quote open.
  if (barcode.find_first_of(std::string("'\0", 2)) != std::string::npos)
    return false;

  const std::string command = "/sbin/fw_setenv barcode '" + barcode + "'";
  std::string output;
  {
    BootPartitionWritable writable;
    exec(command.c_str(), output);
  }
  // The tool's exit status says nothing reliable on the device; its "OK"
  // does.
  return output.find("OK") != std::string::npos;
}

bool WriteToFile(const std::string& path, const std::string& text) {
  // Never created nor truncated: a missing switch means a device without
  // that partition.
  const int fd = open(path.c_str(), O_WRONLY);
  if (fd < 0) return false;
  const ssize_t written = write(fd, text.data(), text.size());
  static_cast<void>(written);
  close(fd);
  return true;
}

}  // namespace system
}  // namespace qel_util
