#include <cstdlib>

#include "qel_util/system.h"
#include "system/barcode.h"

namespace qel_util {
namespace system {

const std::string asn_key = "ASN";

std::string BarcodeFromCmdline(const std::string& cmdline) {
  return GetKeyValue(cmdline, "barcode=", " ");
}

std::string KeyedBarcode(const std::string& raw) {
  if (raw.empty()) return "";
  if (raw.find(asn_key) != std::string::npos) return raw;
  const size_t comma = raw.find(',');
  const std::string rest =
      comma == std::string::npos ? "" : raw.substr(comma + 1);
  std::string keyed = asn_key + "=" + raw.substr(0, comma) + ",";
  if (!rest.empty()) keyed += "BREV=" + rest;
  return keyed;
}

std::string ParseBarcodeASN(const std::string& raw, int* keyNumber,
                            const std::string& newAsn,
                            std::string& newBarcode) {
  std::string asn = TrimSpace(newAsn);
  if (asn.size() < kMinAsnLength || asn.size() > kMaxAsnLength) asn.clear();
  if (keyNumber != nullptr) *keyNumber = 0;
  newBarcode.clear();

  if (raw.empty()) {
    if (!asn.empty()) newBarcode = "ASN=" + asn;
    return "";
  }

  const size_t keyAt = raw.find(asn_key);
  if (keyAt == std::string::npos) {
    // Plain form: the ASN is the first field, and a new one stays plain.
    const size_t comma = raw.find(',');
    if (!asn.empty())
      newBarcode = asn + (comma == std::string::npos ? "" : raw.substr(comma));
    return raw.substr(0, comma);
  }

  const size_t afterKey = keyAt + asn_key.size();
  const size_t equals = raw.find('=', afterKey);
  if (equals == std::string::npos) return "";
  const size_t begin = equals + 1;
  const size_t end = raw.find(',', begin);
  if (keyNumber != nullptr)
    *keyNumber = equals == afterKey
                     ? 1
                     : static_cast<int>(
                           std::strtol(raw.c_str() + afterKey, nullptr, 10));

  std::string current = TrimSpace(
      raw.substr(begin, end == std::string::npos ? end : end - begin));
  const bool closed = !current.empty() && current.back() == ']';
  if (closed) current.pop_back();
  if (!asn.empty()) {
    // The whole old value goes, the kernel's newline with it; a "]" that
    // closed it closes the new one too.
    newBarcode = raw.substr(0, begin) + asn + (closed ? "]" : "") +
                 (end == std::string::npos ? "" : raw.substr(end));
  }
  return current;
}

}  // namespace system
}  // namespace qel_util
