#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "qel_util/system.h"
#include "system/text.h"

namespace qel_util {
namespace system {

namespace {
// The serial number field, the manufacturing date and the CRC7 byte close
// the CID register; together they tell one device from another.
constexpr size_t kSerialDigits = 12;
}  // namespace

std::string serialNumberString() {
  FILE* file = std::fopen("/sys/bus/mmc/devices/mmc0:0001/cid", "r");
  if (file == nullptr) return "";
  char line[128] = {};
  std::string text;
  if (std::fgets(line, 127, file) != nullptr) {
    text = line;
    EraseTrailingSpace(text);
    for (char& c : text)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (text.size() > kSerialDigits) text.erase(0, text.size() - kSerialDigits);
  }
  std::fclose(file);
  return text;
}

unsigned long long serialNumber() {
  return std::strtoull(serialNumberString().c_str(), nullptr, 16);
}

}  // namespace system
}  // namespace qel_util
