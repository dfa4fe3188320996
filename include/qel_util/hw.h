#ifndef QEL_UTIL_HW_H_
#define QEL_UTIL_HW_H_

/// \file
/// Peripheral helpers: an I2C adapter on Linux i2c-dev and CRC-32.

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "qel_util/export.h"

namespace qel_util {

/// One adapter "/dev/i2c-<n>". Every operation is one system call; failures
/// return false and leave errno for the caller. Nothing is printed. One
/// thread at a time.
///
/// Deliberately unlike a plain handle without a constructor or destructor of
/// its own, the object owns its descriptor: the destructor closes it and the
/// object cannot be copied, so a descriptor is never closed twice nor
/// leaked. Without an open adapter every operation fails with EBADF and makes
/// no system call, since the old number may belong to another descriptor by
/// then.
class QEL_UTIL_EXPORT I2cAdapter {
 public:
  /// Holds no adapter.
  I2cAdapter();
  /// Closes the adapter held, if any.
  ~I2cAdapter();
  I2cAdapter(const I2cAdapter&) = delete;             ///< Not copyable.
  I2cAdapter& operator=(const I2cAdapter&) = delete;  ///< Not copyable.

  /// Opens "/dev/i2c-<adapter>" O_RDWR, closing the adapter held before.
  /// \return false when it cannot be opened (errno from open, ENAMETOOLONG
  /// for numbers of 1,000,000,000 and above); the object then holds nothing.
  bool Create(unsigned int adapter);
  /// Closes the adapter; harmless when none is open.
  void Destroy();
  /// I2C_SLAVE: later Write and Read address this slave. False with errno
  /// (EBUSY when a kernel driver holds the address).
  bool SetSlaveAddress(unsigned int address);
  /// I2C_FUNCS: the adapter's functionality mask into `functions`.
  bool GetCapabilities(unsigned long& functions);
  /// Writes `length` bytes to the slave; a partial write counts as success.
  bool Write(const unsigned char* data, unsigned int length);
  /// Reads from the slave. `length` in: bytes wanted; out: bytes read.
  /// Unchanged on failure.
  bool Read(unsigned char* buffer, unsigned int& length);
  /// I2C_RDWR: one combined transfer of the caller's messages, which stay
  /// the caller's.
  bool ReadWrite(i2c_rdwr_ioctl_data& transfer);

 private:
  int m_fd;
};

/// CRC-32 (IEEE 802.3, as zlib's crc32) of `length` bytes at `data`; 0 for
/// length 0, when `data` may be null. Pure and thread-safe.
QEL_UTIL_EXPORT unsigned int Crc32(const void* data, unsigned int length);

}  // namespace qel_util

#endif  // QEL_UTIL_HW_H_
