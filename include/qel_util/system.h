#ifndef QEL_UTIL_SYSTEM_H_
#define QEL_UTIL_SYSTEM_H_

/// \file
/// Device identity: shell and text helpers, the eMMC RPMB reader, the
/// hardware ID, the serial number, the barcode and its ASN, and the firmware
/// version. Every query reads its source afresh; nothing is cached and no
/// call keeps a descriptor. The functions may be called from any thread
/// (SetBarcodeASN excepted); an object serves one thread at a time.

#include <cstdint>
#include <string>
#include <vector>

#include "qel_util/export.h"

namespace qel_util {

/// Reads blocks of "/dev/mmcblk0rpmb" with the authenticated data read
/// request, in one MMC_IOC_MULTI_CMD ioctl. Owns the device descriptor.
class QEL_UTIL_EXPORT MmcPrivate {
 public:
  /// The RPMB data frame; multi-byte fields are big-endian raw bytes.
  struct DataFrame {
    uint8_t stuff[196];       ///< Stuff bytes.
    uint8_t keyMac[32];       ///< Key or MAC.
    uint8_t data[256];        ///< One block of data.
    uint8_t nonce[16];        ///< Nonce.
    uint8_t writeCounter[4];  ///< Write counter.
    uint8_t address[2];       ///< First block.
    uint8_t blockCount[2];    ///< Number of blocks.
    uint8_t result[2];        ///< The device's result code.
    uint8_t reqResp[2];       ///< Request or response type.
  };

  /// The device's result codes (the low seven bits of a frame's result).
  enum ResultType : int {
    Ok = 0,                     ///< Operation OK.
    GeneralFailure = 1,         ///< General failure.
    AuthenticationFailure = 2,  ///< Authentication failure (MAC mismatch).
    CounterFailure = 3,         ///< Write counter failure.
    AddressFailure = 4,         ///< Address out of range.
    WriteFailure = 5,           ///< Write failure.
    ReadFailure = 6,            ///< Read failure.
    NoAuthenticationKey = 7,    ///< No authentication key programmed yet.
  };

  /// Opens the device O_RDWR; a failure shows up in every later operation.
  MmcPrivate();
  /// Closes the device.
  ~MmcPrivate();
  MmcPrivate(const MmcPrivate&) = delete;             ///< Not copyable.
  MmcPrivate& operator=(const MmcPrivate&) = delete;  ///< Not copyable.

  /// Sends `request` (an authenticated data read) and reads
  /// responses.size() frames into `responses`, zeroed first.
  /// \return 0; -9 when the device is not open; -22 for a null request, no
  /// room for responses or another request type; -12 without memory; -1
  /// when the ioctl failed (errno set).
  int RunCommand(const DataFrame* request, std::vector<DataFrame>& responses);
  /// The text of a result code; "Unknown" for Ok and unknown codes.
  std::string GetErrorString(ResultType result);
  /// printf-style message to stderr and to syslog at LOG_USER|LOG_ERR.
  void PrintErrorMsg(const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  /// Reads `count` blocks from block `address` into `buffer`, replacing its
  /// contents with count * 256 bytes. Needs count >= 1 and
  /// address + count < 512. Failures are reported with PrintErrorMsg.
  /// \return 0; 1 for its own failures (device not open, range, ioctl),
  /// `buffer` unchanged; otherwise the device's result masked to seven bits
  /// (1..127: a device's own result 1 reads as 1 too), `buffer` emptied.
  int ReadData(unsigned short address, unsigned short count,
               std::vector<unsigned char>& buffer);

 private:
  uint16_t m_resultMask;
  int m_fd;
  uint16_t m_blockLimit;
};

/// The hardware-ID record in RPMB block 0: CRC-32 (little-endian) of bytes
/// 4..255, then text holding "HWID=<id>".
class QEL_UTIL_EXPORT MmcPrivateData {
 public:
  /// Touches no device; each GetHardwareID opens it afresh.
  MmcPrivateData();
  /// Nothing to release.
  ~MmcPrivateData();

  /// Reads the record and takes the ID: the text behind "HWID=" up to the
  /// record's first zero byte.
  /// \return 0 with the ID; 1 no authentication key, 2 read failed, 3 bad CRC
  /// (reported on stderr), 10 no "HWID=" in the record; `id` is empty on
  /// failure.
  int GetHardwareID(std::string& id);

 private:
  std::string m_key;
  uint16_t m_address;
  uint16_t m_blockCount;
};

/// Text helpers, the shell and the device-identity queries.
namespace system {

/// `text` without the leading and trailing " \t\f\v\n\r" (whatever the
/// locale).
QEL_UTIL_EXPORT std::string TrimSpace(const std::string& text);
/// The text behind the first `key` up to the first character of `endChars`
/// (or the end); "" when the key does not occur.
QEL_UTIL_EXPORT std::string GetKeyValue(const std::string& text,
                                        const std::string& key,
                                        const std::string& endChars);
/// Runs `command` through the shell and captures its standard output into
/// `output` (cleared first); standard error is not captured and the exit
/// status is discarded. The output is read in lines of at most 127 bytes;
/// a zero byte drops the rest of its line. A read error ends the capture
/// with what was read.
/// \throws std::runtime_error("popen() failed!") when the command cannot be
/// started (e.g. no descriptor or process left).
QEL_UTIL_EXPORT void exec(const char* command, std::string& output);
/// As exec(command, output), returning the output.
QEL_UTIL_EXPORT std::string exec(const char* command);
/// As exec(command, output), returning the output.
QEL_UTIL_EXPORT std::string exec(const std::string& command);

/// The hardware ID from the RPMB record (see MmcPrivateData), or "" with
/// `error` 1 (no authentication key: not initialised, logged at
/// LOG_WARNING) or 2 (any other failure, logged at LOG_ERR); `error` is 0
/// with an ID.
QEL_UTIL_EXPORT std::string GetDeviceID(int& error);
/// As GetDeviceID(error), without the error code.
QEL_UTIL_EXPORT std::string GetDeviceID();
/// Whether "NOHWID" occurs in the first 383 bytes of the kernel command
/// line; false when it cannot be read.
QEL_UTIL_EXPORT bool hasFlagNOHWID();

/// Last twelve characters of the first line of the eMMC CID register
/// ("/sys/bus/mmc/devices/mmc0:0001/cid"), upper case, trailing white space
/// dropped; "" when unreadable.
QEL_UTIL_EXPORT std::string serialNumberString();
/// serialNumberString() read as a hexadecimal number; 0 when unreadable.
QEL_UTIL_EXPORT unsigned long long serialNumber();

/// The barcode of the running kernel's command line ("barcode=" up to the
/// next space) in keyed form: unchanged when it holds "ASN", otherwise
/// "ASN=<first field>," followed by "BREV=<rest>" when more fields follow.
/// The kernel's newline behind a last parameter stays. "" without a barcode.
QEL_UTIL_EXPORT std::string GetBarcode();
/// The ASN of the running kernel's barcode, or "". In keyed form (behind
/// the first "ASN", then "=" or "<n>=") the value up to the next ",",
/// trimmed and without a closing "]"; in plain form the first field as it
/// is, the kernel's newline included when nothing follows. The key number
/// (1 for "ASN=", n for "ASN<n>=", 0 otherwise) goes to `keyNumber` unless
/// it is null.
QEL_UTIL_EXPORT std::string GetBarcodeASN(int* keyNumber);
/// Stores the running kernel's barcode with a new ASN in the boot loader's
/// environment: "/sbin/fw_setenv barcode '<barcode>'", with
/// "/sys/block/mmcblk0boot0/force_ro" released ("0") only while the tool
/// runs and set ("1") afterwards, also when it throws. The whole old value
/// is replaced; a "]" that closed it is kept behind the new ASN. Without a
/// barcode the new one is "ASN=<asn>". Seen by GetBarcode after the next
/// boot only.
///
/// Callers serialise calls: two at once race on the partition's switch and
/// the environment.
/// \return true when the tool's output holds "OK" (its exit status says
/// nothing on the device). false, with nothing run and the switch
/// untouched, for an ASN not 10 to 30 characters long after trimming, for
/// an ASN still holding white space or a control character after trimming
/// (it would add parameters to the next boot's kernel command line), for a
/// barcode holding a single quote or a NUL (from the new ASN or the
/// kernel's barcode), which would break out of the shell command, and when
/// a keyed barcode has no "=" behind its "ASN".
/// \throws std::runtime_error as exec.
QEL_UTIL_EXPORT bool SetBarcodeASN(const std::string& asn);

/// Output of "/usr/bin/ubi_get_volume_versions.sh" without trailing white
/// space; whatever it printed when it fails.
/// \throws std::runtime_error as exec.
QEL_UTIL_EXPORT std::string fwVersionString();

}  // namespace system
}  // namespace qel_util

#endif  // QEL_UTIL_SYSTEM_H_
