#ifndef QEL_UTIL_SYSTEM_H_
#define QEL_UTIL_SYSTEM_H_

// Device identity: shell and text helpers, the eMMC RPMB reader, the hardware
// ID, the serial number, the barcode and its ASN, and the firmware version.
// Every query reads its source afresh; nothing is cached and no call keeps a
// descriptor. All functions may be called from any thread.

#include <cstdint>
#include <string>
#include <vector>

#include "qel_util/export.h"

namespace qel_util {

// Reads blocks of "/dev/mmcblk0rpmb" with the authenticated data read
// request, in one MMC_IOC_MULTI_CMD ioctl. Owns the device descriptor.
class QEL_UTIL_EXPORT MmcPrivate {
 public:
  // The RPMB data frame; multi-byte fields are big-endian raw bytes.
  struct DataFrame {
    uint8_t stuff[196];
    uint8_t keyMac[32];
    uint8_t data[256];
    uint8_t nonce[16];
    uint8_t writeCounter[4];
    uint8_t address[2];
    uint8_t blockCount[2];
    uint8_t result[2];
    uint8_t reqResp[2];
  };

  enum ResultType {
    Ok = 0,
    GeneralFailure = 1,
    AuthenticationFailure = 2,
    CounterFailure = 3,
    AddressFailure = 4,
    WriteFailure = 5,
    ReadFailure = 6,
    NoAuthenticationKey = 7,
  };

  // Opens the device; a failure shows up in every later operation.
  MmcPrivate();
  ~MmcPrivate();
  MmcPrivate(const MmcPrivate&) = delete;
  MmcPrivate& operator=(const MmcPrivate&) = delete;

  // Sends `request` and reads responses.size() frames. 0, -9 (no device),
  // -22 (bad request), -12 (no memory) or -1 (ioctl failed, errno set).
  int RunCommand(const DataFrame* request, std::vector<DataFrame>& responses);
  // The text of a result code; "Unknown" for 0 and unknown codes.
  std::string GetErrorString(ResultType result);
  // printf-style message to stderr and to syslog at LOG_USER|LOG_ERR.
  void PrintErrorMsg(const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  // Reads `count` blocks from block `address` (address + count < 512) into
  // `buffer` (count * 256 bytes). 0, 1 for its own failures, or the device's
  // masked result code 2..127. Failures are reported with PrintErrorMsg.
  int ReadData(unsigned short address, unsigned short count,
               std::vector<unsigned char>& buffer);

 private:
  uint16_t m_resultMask;
  int m_fd;
  uint16_t m_blockLimit;
};

// The hardware-ID record in RPMB block 0: CRC-32 (little-endian) of bytes
// 4..255, then text holding "HWID=<id>".
class QEL_UTIL_EXPORT MmcPrivateData {
 public:
  MmcPrivateData();
  ~MmcPrivateData();

  // 0 with the ID; 1 no authentication key, 2 read failed, 3 bad CRC,
  // 10 no key in the record; `id` is empty on failure.
  int GetHardwareID(std::string& id);

 private:
  std::string m_key;
  uint16_t m_address;
  uint16_t m_blockCount;
};

namespace system {

// Without the leading and trailing " \t\f\v\n\r".
QEL_UTIL_EXPORT std::string TrimSpace(const std::string& text);
// The text behind the first `key` up to the first character of `endChars`;
// "" when the key does not occur.
QEL_UTIL_EXPORT std::string GetKeyValue(const std::string& text,
                                        const std::string& key,
                                        const std::string& endChars);
// Runs `command` through the shell and captures its standard output, byte for
// byte. The exit status is discarded. Throws std::runtime_error
// ("popen() failed!") when the command cannot be started.
QEL_UTIL_EXPORT void exec(const char* command, std::string& output);
QEL_UTIL_EXPORT std::string exec(const char* command);
QEL_UTIL_EXPORT std::string exec(const std::string& command);

// The hardware ID, or "" with `error` 1 (not initialised, logged at
// LOG_WARNING) or 2 (logged at LOG_ERR).
QEL_UTIL_EXPORT std::string GetDeviceID(int& error);
QEL_UTIL_EXPORT std::string GetDeviceID();
// Whether "NOHWID" occurs in the kernel command line.
QEL_UTIL_EXPORT bool hasFlagNOHWID();

// Last twelve hex digits of the eMMC CID register, upper case; "" or 0 when
// unreadable.
QEL_UTIL_EXPORT std::string serialNumberString();
QEL_UTIL_EXPORT unsigned long long serialNumber();

// The barcode of the kernel command line in keyed form, or "".
QEL_UTIL_EXPORT std::string GetBarcode();
// The ASN of the barcode, or ""; the key number (0 when none) goes to
// `keyNumber` unless it is null.
QEL_UTIL_EXPORT std::string GetBarcodeASN(int* keyNumber);
// Stores the barcode with a new ASN (10 to 30 characters after trimming) in
// the boot loader's environment; true when the tool reported "OK". Values
// holding a single quote are refused. Throws like exec.
QEL_UTIL_EXPORT bool SetBarcodeASN(const std::string& asn);

// Output of "/usr/bin/ubi_get_volume_versions.sh" without trailing white
// space. Throws like exec.
QEL_UTIL_EXPORT std::string fwVersionString();

}  // namespace system
}  // namespace qel_util

#endif  // QEL_UTIL_SYSTEM_H_
