#include "device.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <climits>

namespace i2c_emulator {

namespace {

// What the adapter driver would report: I2C and the SMBus transfers that the
// kernel builds from I2C messages, without I2C_M_RECV_LEN.
constexpr unsigned long kFunctions = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;
// i2c-dev's limit for one message and for a plain read or write.
constexpr size_t kMaxMessage = 8192;

// A plain read or write is a single message. The adapter reports a missing
// acknowledge there as ENXIO and in a combined transfer as EREMOTEIO.
ssize_t Single(OpenAdapter& adapter, uint16_t flags, void* buffer,
               size_t count) {
  if (count > kMaxMessage) count = kMaxMessage;
  i2c_msg message{adapter.address, flags, static_cast<uint16_t>(count),
                  static_cast<uint8_t*>(buffer)};
  int result = Transfer(*adapter.bus, &message, 1);
  return result < 0 ? result : static_cast<ssize_t>(count);
}

long CombinedTransfer(OpenAdapter& adapter, i2c_rdwr_ioctl_data* transfer) {
  if (transfer == nullptr) return -EFAULT;
  if (transfer->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return -EINVAL;
  if (transfer->msgs == nullptr || transfer->nmsgs == 0) return -EINVAL;
  for (unsigned i = 0; i < transfer->nmsgs; ++i) {
    const i2c_msg& m = transfer->msgs[i];
    if (m.len > kMaxMessage) return -EINVAL;
    if (m.flags & I2C_M_RECV_LEN) return -EOPNOTSUPP;  // not in kFunctions
    if (m.flags & I2C_M_TEN) return -EOPNOTSUPP;
  }
  int result = Transfer(*adapter.bus, transfer->msgs, transfer->nmsgs);
  if (result == -ENXIO) return -EREMOTEIO;
  return result < 0 ? result : static_cast<long>(transfer->nmsgs);
}

// The kernel's SMBus emulation: each SMBus transaction as I2C messages.
long SmbusTransfer(OpenAdapter& adapter, i2c_smbus_ioctl_data* request) {
  if (request == nullptr) return -EFAULT;
  const bool read = request->read_write == I2C_SMBUS_READ;
  if (!read && request->read_write != I2C_SMBUS_WRITE) return -EINVAL;
  uint32_t size = request->size;
  i2c_smbus_data* data = request->data;
  if (size == I2C_SMBUS_I2C_BLOCK_BROKEN) {
    size = I2C_SMBUS_I2C_BLOCK_DATA;
    if (read && data != nullptr) data->block[0] = I2C_SMBUS_BLOCK_MAX;
  }
  const bool needsData =
      size != I2C_SMBUS_QUICK && !(size == I2C_SMBUS_BYTE && !read);
  if (needsData && data == nullptr) return -EINVAL;

  uint8_t out[I2C_SMBUS_BLOCK_MAX + 3] = {request->command};
  uint8_t in[I2C_SMBUS_BLOCK_MAX + 2] = {};
  i2c_msg messages[2] = {
      {adapter.address, 0, 1, out},
      {adapter.address, I2C_M_RD, 0, in},
  };
  size_t count = read ? 2 : 1;
  switch (size) {
    case I2C_SMBUS_QUICK:
      messages[0].flags = read ? I2C_M_RD : 0;
      messages[0].len = 0;
      count = 1;
      break;
    case I2C_SMBUS_BYTE:
      if (read) {
        messages[0] = messages[1];
        messages[0].len = 1;
        count = 1;
      }
      break;
    case I2C_SMBUS_BYTE_DATA:
      if (read) {
        messages[1].len = 1;
      } else {
        out[1] = data->byte;
        messages[0].len = 2;
      }
      break;
    case I2C_SMBUS_WORD_DATA:
    case I2C_SMBUS_PROC_CALL:
      if (read && size == I2C_SMBUS_WORD_DATA) {
        messages[1].len = 2;
        break;
      }
      out[1] = static_cast<uint8_t>(data->word);
      out[2] = static_cast<uint8_t>(data->word >> 8);
      messages[0].len = 3;
      if (size == I2C_SMBUS_PROC_CALL) {
        messages[1].len = 2;
        count = 2;
      }
      break;
    case I2C_SMBUS_BLOCK_DATA:
      if (read) return -EOPNOTSUPP;  // needs I2C_M_RECV_LEN
      if (data->block[0] == 0 || data->block[0] > I2C_SMBUS_BLOCK_MAX)
        return -EINVAL;
      for (int i = 0; i <= data->block[0]; ++i) out[1 + i] = data->block[i];
      messages[0].len = static_cast<uint16_t>(data->block[0] + 2);
      break;
    case I2C_SMBUS_I2C_BLOCK_DATA:
      if (data->block[0] == 0 || data->block[0] > I2C_SMBUS_BLOCK_MAX)
        return -EINVAL;
      if (read) {
        messages[1].len = data->block[0];
      } else {
        for (int i = 1; i <= data->block[0]; ++i) out[i] = data->block[i];
        messages[0].len = static_cast<uint16_t>(data->block[0] + 1);
      }
      break;
    case I2C_SMBUS_BLOCK_PROC_CALL:
      return -EOPNOTSUPP;
    default:
      return -EINVAL;
  }
  int result = Transfer(*adapter.bus, messages, count);
  if (result < 0) return result;
  if (!read && size != I2C_SMBUS_PROC_CALL) return 0;
  switch (size) {
    case I2C_SMBUS_BYTE:
    case I2C_SMBUS_BYTE_DATA:
      data->byte = in[0];
      break;
    case I2C_SMBUS_WORD_DATA:
    case I2C_SMBUS_PROC_CALL:
      data->word = static_cast<uint16_t>(in[0] | in[1] << 8);
      break;
    case I2C_SMBUS_I2C_BLOCK_DATA:
      for (int i = 0; i < data->block[0]; ++i) data->block[i + 1] = in[i];
      break;
  }
  return 0;
}

}  // namespace

ssize_t DeviceRead(OpenAdapter& adapter, void* buffer, size_t count) {
  return Single(adapter, I2C_M_RD, buffer, count);
}

ssize_t DeviceWrite(OpenAdapter& adapter, const void* data, size_t count) {
  // Transfer does not write into a write message's buffer.
  return Single(adapter, 0, const_cast<void*>(data), count);
}

long DeviceIoctl(OpenAdapter& adapter, unsigned long request,
                 unsigned long argument) {
  switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
      if (argument > 0x3ff || (!adapter.tenBit && argument > 0x7f))
        return -EINVAL;
      if (request == I2C_SLAVE && Claimed(static_cast<uint16_t>(argument)))
        return -EBUSY;
      adapter.address = static_cast<unsigned short>(argument);
      return 0;
    case I2C_TENBIT:
      adapter.tenBit = argument != 0;
      return 0;
    case I2C_FUNCS:
      *reinterpret_cast<unsigned long*>(argument) = kFunctions;
      return 0;
    case I2C_RDWR:
      return CombinedTransfer(adapter,
                              reinterpret_cast<i2c_rdwr_ioctl_data*>(argument));
    case I2C_SMBUS:
      return SmbusTransfer(adapter,
                           reinterpret_cast<i2c_smbus_ioctl_data*>(argument));
    case I2C_PEC:
    case I2C_RETRIES:
      return 0;
    case I2C_TIMEOUT:
      return argument > INT_MAX ? -EINVAL : 0;
    default:
      return -ENOTTY;
  }
}

}  // namespace i2c_emulator
