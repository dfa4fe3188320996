#ifndef QEL_UTIL_HW_H_
#define QEL_UTIL_HW_H_

// Peripheral helpers: an I2C adapter on Linux i2c-dev and CRC-32.

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "qel_util/export.h"

namespace qel_util {

// One adapter "/dev/i2c-<n>". Every operation is one system call; failures
// return false and leave errno for the caller. Nothing is printed. Owns its
// descriptor (closed by Destroy or the destructor); one thread at a time.
class QEL_UTIL_EXPORT I2cAdapter {
 public:
  I2cAdapter();
  ~I2cAdapter();
  I2cAdapter(const I2cAdapter&) = delete;
  I2cAdapter& operator=(const I2cAdapter&) = delete;

  // Opens the adapter O_RDWR, closing one held before. False when it cannot
  // be opened (errno from open).
  bool Create(unsigned int adapter);
  // Closes the adapter; harmless when none is open.
  void Destroy();
  // I2C_SLAVE: later Write/Read address this slave (EBUSY when a driver
  // holds it).
  bool SetSlaveAddress(unsigned int address);
  // I2C_FUNCS: the adapter's functionality mask.
  bool GetCapabilities(unsigned long& functions);
  // A partial write counts as success.
  bool Write(const unsigned char* data, unsigned int length);
  // `length` in: bytes wanted; out: bytes read. Unchanged on failure.
  bool Read(unsigned char* buffer, unsigned int& length);
  // I2C_RDWR: one combined transfer of the caller's messages.
  bool ReadWrite(i2c_rdwr_ioctl_data& transfer);

 private:
  int m_fd;
};

// CRC-32 (IEEE 802.3, as zlib) of `length` bytes; 0 for length 0, when
// `data` may be null. Pure and thread-safe.
QEL_UTIL_EXPORT unsigned int Crc32(const void* data, unsigned int length);

}  // namespace qel_util

#endif  // QEL_UTIL_HW_H_
