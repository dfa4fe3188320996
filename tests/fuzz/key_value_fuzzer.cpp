// GetKeyValue on arbitrary input: the value is right behind the first key and
// ended by an end character or the end of the text.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

#include "qel_util/system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string key = input.ConsumeRandomLengthString(16);
  const std::string ends = input.ConsumeRandomLengthString(8);
  const std::string text = input.ConsumeRemainingBytesAsString();
  auto check = [](bool ok) { if (!ok) std::abort(); };
  const std::string value = qel_util::system::GetKeyValue(text, key, ends);
  const size_t at = text.find(key), end = at + key.size() + value.size();
  check(at != std::string::npos || value.empty());
  if (at != std::string::npos) {
    check(text.compare(at + key.size(), value.size(), value) == 0);
    check(value.find_first_of(ends) == std::string::npos);
    check(end == text.size() || ends.find(text[end]) != std::string::npos);
  }
  return 0;
}
