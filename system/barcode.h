#ifndef QEL_UTIL_SYSTEM_BARCODE_H_
#define QEL_UTIL_SYSTEM_BARCODE_H_

// The barcode's internals. The text functions take the raw barcode as an
// argument and touch nothing else; the others read the kernel command line
// or write the boot-loader environment.

#include <cstddef>
#include <string>

namespace qel_util {
namespace system {

// "ASN": the key searched for in a barcode and written by GetBarcode.
extern const std::string asn_key;

// Accepted length of a new ASN, after trimming.
constexpr size_t kMinAsnLength = 10;
constexpr size_t kMaxAsnLength = 30;

// --- Text only -------------------------------------------------------------

// The value of the first "barcode=" in `cmdline`, up to the next space (the
// kernel's closing newline is no end), untrimmed; "" when there is none.
std::string BarcodeFromCmdline(const std::string& cmdline);
// `raw` in keyed form: unchanged when it holds "ASN", otherwise
// "ASN=<head>," followed by "BREV=<rest>" when something follows the first
// ",". "" for "".
std::string KeyedBarcode(const std::string& raw);
// The ASN of `raw`; its key number goes to `keyNumber` unless it is null.
// When `newAsn` has an accepted length after trimming, `newBarcode` receives
// `raw` with the ASN replaced, otherwise "". A closing "]" of the old ASN
// value is kept behind the new one, so a bracketed barcode stays closed.
std::string ParseBarcodeASN(const std::string& raw, int* keyNumber,
                            const std::string& newAsn,
                            std::string& newBarcode);

// --- Device ------------------------------------------------------------------

// The raw barcode of the running kernel's command line, or "".
std::string GetCmdlineBarcode();
// ParseBarcodeASN of the running kernel's barcode.
std::string ParseBarcodeASN(int* keyNumber, const std::string& newAsn,
                            std::string& newBarcode);
// Writes `text` into the existing file `path` with one write, neither
// creating nor truncating it; false when it cannot be opened.
bool WriteToFile(const std::string& path, const std::string& text);

}  // namespace system
}  // namespace qel_util

#endif  // QEL_UTIL_SYSTEM_BARCODE_H_
