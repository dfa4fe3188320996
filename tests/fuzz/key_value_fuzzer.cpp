// GetKeyValue and TrimSpace on arbitrary texts, keys and end sets, checked
// against what the value must be rather than how it is found.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

#include "qel_util/system.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool IsSpace(char c) {
  return std::string(" \t\f\v\n\r").find(c) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string key = input.ConsumeRandomLengthString(16);
  const std::string endChars = input.ConsumeRandomLengthString(8);
  const std::string text = input.ConsumeRemainingBytesAsString();

  const std::string value = qel_util::system::GetKeyValue(text, key, endChars);
  const size_t at = text.find(key);
  if (at == std::string::npos) {
    Check(value.empty());
  } else {
    const size_t begin = at + key.size();
    // The value starts right behind the first key, holds no end character,
    // and is followed by one or by the end of the text.
    Check(text.compare(begin, value.size(), value) == 0);
    Check(value.find_first_of(endChars) == std::string::npos);
    const size_t end = begin + value.size();
    Check(end == text.size() || endChars.find(text[end]) != std::string::npos);
  }

  const std::string trimmed = qel_util::system::TrimSpace(text);
  Check(text.find(trimmed) != std::string::npos);
  Check(trimmed.empty() ||
        (!IsSpace(trimmed.front()) && !IsSpace(trimmed.back())));
  size_t spaces = 0;
  for (char c : text) spaces += IsSpace(c);
  Check(!trimmed.empty() || spaces == text.size());
  return 0;
}
