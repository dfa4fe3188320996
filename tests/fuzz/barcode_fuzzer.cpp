// The barcode's text rules on arbitrary kernel command lines, barcodes and
// new ASNs. Beyond not crashing, a barcode written with a new ASN must read
// back as that ASN with the same key number.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

#include "qel_util/system.h"
#include "system/barcode.h"

namespace {

using namespace qel_util::system;

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string newAsn = input.ConsumeRandomLengthString(40);
  const std::string raw = input.ConsumeRemainingBytesAsString();

  const std::string fromCmdline = BarcodeFromCmdline(raw);
  Check(fromCmdline.find(' ') == std::string::npos);
  Check(raw.find(fromCmdline) != std::string::npos);

  const std::string keyed = KeyedBarcode(raw);
  Check(keyed.empty() == raw.empty());
  Check(raw.empty() || keyed.find(asn_key) != std::string::npos);

  int key = -1;
  std::string newBarcode = "stale";
  const std::string asn = ParseBarcodeASN(raw, &key, "", newBarcode);
  Check(newBarcode.empty());
  const bool isKeyed = raw.find(asn_key) != std::string::npos;
  Check(isKeyed || key == 0);

  int newKey = -1;
  const std::string again = ParseBarcodeASN(raw, &newKey, newAsn, newBarcode);
  Check(again == asn && newKey == key);
  const std::string trimmed = TrimSpace(newAsn);
  const bool accepted =
      trimmed.size() >= kMinAsnLength && trimmed.size() <= kMaxAsnLength;
  if (!accepted) {
    Check(newBarcode.empty());
    return 0;
  }
  if (raw.empty()) {
    Check(newBarcode == "ASN=" + trimmed);
    return 0;
  }
  if (newBarcode.empty()) {
    // Only a keyed barcode without "=" behind its key has no new form.
    Check(isKeyed && asn.empty() && key == 0);
    return 0;
  }
  // Read back: the new ASN, unless it holds what ends or closes a value,
  // or turns a plain barcode into a keyed one.
  if (trimmed.find(',') != std::string::npos || trimmed.back() == ']' ||
      (!isKeyed && trimmed.find(asn_key) != std::string::npos))
    return 0;
  int readKey = -1;
  std::string unused;
  Check(ParseBarcodeASN(newBarcode, &readKey, "", unused) == trimmed);
  Check(readKey == key);
  return 0;
}
