#include "system/text.h"

#include <cctype>

#include "qel_util/system.h"

namespace qel_util {
namespace system {

std::string TrimSpace(const std::string& text) {
  // Only these six count, whatever the locale says.
  static const char kSpace[] = " \t\f\v\n\r";
  size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

std::string GetKeyValue(const std::string& text, const std::string& key,
                        const std::string& endChars) {
  size_t at = text.find(key);
  if (at == std::string::npos) return "";
  size_t begin = at + key.size();
  size_t end = text.find_first_of(endChars, begin);
  return text.substr(begin, end == std::string::npos ? end : end - begin);
}

void EraseTrailingSpace(std::string& text) {
  size_t end = text.size();
  while (end > 0 && std::isspace(static_cast<unsigned char>(text[end - 1])))
    --end;
  text.erase(end);
}

}  // namespace system
}  // namespace qel_util
