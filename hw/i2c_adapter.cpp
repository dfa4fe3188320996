#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "qel_util/hw.h"

namespace qel_util {

namespace {

// "/dev/i2c-" and nine digits fill it; a longer number would be cut into the
// name of a different adapter.
constexpr size_t kPathSize = 19;

// Without an open adapter no system call is made: the number could belong to
// another object's descriptor by now.
bool NotOpen(int fd) {
  if (fd != -1) return false;
  errno = EBADF;
  return true;
}

}  // namespace

I2cAdapter::I2cAdapter() : m_fd(-1) {}

I2cAdapter::~I2cAdapter() { Destroy(); }

bool I2cAdapter::Create(unsigned int adapter) {
  // Reopening must not leak the adapter held so far; closing it first also
  // means a failed Create leaves the object holding nothing.
  Destroy();
  char path[kPathSize];
  int length = std::snprintf(path, sizeof path, "/dev/i2c-%u", adapter);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
    errno = ENAMETOOLONG;
    return false;
  }
  m_fd = open(path, O_RDWR);
  return m_fd != -1;
}

void I2cAdapter::Destroy() {
  if (m_fd == -1) return;
  close(m_fd);
  // Forgetting the number keeps a later Destroy or transfer away from
  // whatever descriptor the process opens next under it.
  m_fd = -1;
}

bool I2cAdapter::SetSlaveAddress(unsigned int address) {
  if (NotOpen(m_fd)) return false;
  return ioctl(m_fd, I2C_SLAVE, static_cast<unsigned long>(address)) != -1;
}

bool I2cAdapter::GetCapabilities(unsigned long& functions) {
  if (NotOpen(m_fd)) return false;
  return ioctl(m_fd, I2C_FUNCS, &functions) != -1;
}

bool I2cAdapter::Write(const unsigned char* data, unsigned int length) {
  if (NotOpen(m_fd)) return false;
  return write(m_fd, data, length) != -1;
}

bool I2cAdapter::Read(unsigned char* buffer, unsigned int& length) {
  if (NotOpen(m_fd)) return false;
  ssize_t count = read(m_fd, buffer, length);
  if (count == -1) return false;
  length = static_cast<unsigned int>(count);
  return true;
}

bool I2cAdapter::ReadWrite(i2c_rdwr_ioctl_data& transfer) {
  if (NotOpen(m_fd)) return false;
  return ioctl(m_fd, I2C_RDWR, &transfer) != -1;
}

}  // namespace qel_util
