#ifndef QEL_TESTS_I2C_EMULATOR_DEVICE_H_
#define QEL_TESTS_I2C_EMULATOR_DEVICE_H_

// The i2c-dev character device over an emulated bus: what read, write and
// ioctl do on one open "/dev/i2c-<n>", with the kernel's checks. Results are
// as the system call's, errors as negative errno values.

#include <sys/types.h>

#include <cstddef>

#include "bus.h"

namespace i2c_emulator {

// The state of one open descriptor: the slave address belongs to it.
struct OpenAdapter {
  Bus* bus;
  unsigned short address;
  bool tenBit;
};

ssize_t DeviceRead(OpenAdapter& adapter, void* buffer, size_t count);
ssize_t DeviceWrite(OpenAdapter& adapter, const void* data, size_t count);
long DeviceIoctl(OpenAdapter& adapter, unsigned long request,
                 unsigned long argument);

}  // namespace i2c_emulator

#endif  // QEL_TESTS_I2C_EMULATOR_DEVICE_H_
