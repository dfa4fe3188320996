// The barcode's text rules on arbitrary input: a barcode written with a new
// ASN must read back as that ASN with the same key number.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

#include "qel_util/system.h"
#include "system/barcode.h"

using namespace qel_util::system;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string newAsn = input.ConsumeRandomLengthString(40);
  const std::string raw = input.ConsumeRemainingBytesAsString();
  auto check = [](bool ok) { if (!ok) std::abort(); };
  const auto npos = std::string::npos;
  const std::string fromCmdline = BarcodeFromCmdline(raw);
  const std::string keyed = KeyedBarcode(raw);
  check(fromCmdline.find(' ') == npos && raw.find(fromCmdline) != npos);
  check(raw.empty() ? keyed.empty() : keyed.find(asn_key) != npos);

  int key = -1, newKey = -1, readKey = -1;
  std::string newBarcode = "stale", unused;
  const std::string asn = ParseBarcodeASN(raw, &key, "", newBarcode);
  const bool isKeyed = raw.find(asn_key) != npos;
  check(newBarcode.empty() && (isKeyed || key == 0));
  check(ParseBarcodeASN(raw, &newKey, newAsn, newBarcode) == asn &&
        newKey == key);
  const std::string trimmed = TrimSpace(newAsn);
  if (trimmed.size() < kMinAsnLength || trimmed.size() > kMaxAsnLength)
    check(newBarcode.empty());
  else if (raw.empty())
    check(newBarcode == "ASN=" + trimmed);
  else if (newBarcode.empty())  // a keyed barcode with no "=" behind its key
    check(isKeyed && asn.empty() && key == 0);
  else if (trimmed.find(',') == npos && trimmed.back() != ']' &&
           (isKeyed || trimmed.find(asn_key) == npos))
    // Reads back, unless the new ASN ends or closes a value, or turns a
    // plain barcode into a keyed one.
    check(ParseBarcodeASN(newBarcode, &readKey, "", unused) == trimmed &&
          readKey == key);
  return 0;
}
