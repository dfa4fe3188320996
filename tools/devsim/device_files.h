#ifndef QEL_DEVSIM_DEVICE_FILES_H_
#define QEL_DEVSIM_DEVICE_FILES_H_

// What the device's fixed paths hold, made from the values a user gives.

#include <string>

namespace qel_devsim {

// The 256 data bytes of RPMB block 0 as the hardware-ID query reads them:
// the little-endian CRC-32 of bytes 4..255, then `text` ("HWID=" and the
// ID), zero-padded; text beyond 252 bytes is cut off.
std::string HardwareIdRecord(const std::string& text);

// The eMMC CID register's sysfs text (32 hex digits and a newline) whose
// last twelve digits are `serial`; "" when `serial` is not 1 to 12 hex digits.
std::string CidForSerial(const std::string& serial);

// Whether `text` is `digits` hexadecimal digits (any count when 0).
bool IsHex(const std::string& text, size_t digits = 0);

// The firmware version script that prints `version`.
std::string FirmwareScript(const std::string& version);

// "/sbin/fw_setenv" of the device prints "OK" after storing; Debian's tool
// (libubootenv-tool, "/usr/bin/fw_setenv") does the storing here.
extern const char kFwSetenvScript[];

// The boot-loader environment in `envFile` (a file of 4 KiB, made when
// missing or empty): "/etc/fw_env.config" names it, "/sbin/fw_setenv" and
// the boot partition's read-only switch are placed, and a fresh environment
// gets `barcode` (unless empty). `*stored` receives the environment's
// barcode, which the boot loader puts on the kernel command line.
std::string SetUpBootEnvironment(const std::string& scratch,
                                 const std::string& envFile,
                                 const std::string& barcode,
                                 std::string* stored);

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_DEVICE_FILES_H_
