// Answers open, read, write, ioctl and close on "/dev/i2c-<n>" for the
// adapters in QEL_I2C_EMULATOR_ADAPTERS ("0,1,12") with i2c-dev's checks; all
// else goes on to libc. Each bus, fresh per process, has a 24c02 at 0x50 (byte
// i holds i ^ 0x5a), an LM75-like sensor at 0x48 (25.5 degrees) and 0x36,
// claimed by a driver. Single-threaded use; an adapter is a memfd "i2c-<n>".

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

constexpr unsigned long kFunctions =
    I2C_FUNC_I2C | I2C_FUNC_SMBUS_BYTE | I2C_FUNC_SMBUS_BYTE_DATA;
constexpr size_t kMaxMessage = 8192;  // i2c-dev's limit for one message

struct Bus {
  uint8_t eeprom[256];
  uint8_t eepromPointer = 0;
  // Temperature, configuration, hysteresis, over-temperature; read only.
  uint16_t sensor[4] = {0x1980, 0, 0x4b00, 0x5000};
  uint8_t sensorPointer = 0;
  Bus() {
    for (int i = 0; i < 256; ++i) eeprom[i] = static_cast<uint8_t>(i ^ 0x5a);
  }
};

struct Handle {
  Bus* bus;
  uint16_t address;
};

// Never destroyed: calls come before and after static constructors run.
std::map<int, Handle>& Handles() {
  static auto& handles = *new std::map<int, Handle>;
  return handles;
}

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// One message; false when no chip acknowledges its address.
bool Transfer(Bus& bus, const i2c_msg& m) {
  const bool read = m.flags & I2C_M_RD;
  if (m.addr == 0x50) {
    size_t i = 0;
    if (!read && m.len > 0) bus.eepromPointer = m.buf[i++];
    for (; i < m.len; ++i) {
      uint8_t& cell = bus.eeprom[bus.eepromPointer++];
      read ? (m.buf[i] = cell) : (cell = m.buf[i]);
    }
    return true;
  }
  if (m.addr != 0x48) return false;
  if (!read && m.len > 0) bus.sensorPointer = m.buf[0] & 3;
  // A register read past its width repeats it, most significant byte first.
  const uint16_t word = bus.sensor[bus.sensorPointer];
  for (size_t i = 0; read && i < m.len; ++i)
    m.buf[i] = static_cast<uint8_t>(i % 2 ? word : word >> 8);
  return true;
}

// A plain read or write is one message, cut to the limit; a missing
// acknowledge is ENXIO there and EREMOTEIO in a combined transfer.
long Single(Handle& h, uint16_t flags, const void* buffer, size_t count) {
  if (count > kMaxMessage) count = kMaxMessage;
  // A write message's buffer is only read from.
  i2c_msg m{h.address, flags, static_cast<uint16_t>(count),
            static_cast<uint8_t*>(const_cast<void*>(buffer))};
  return Transfer(*h.bus, m) ? static_cast<long>(count) : -ENXIO;
}

long Combined(Handle& h, const i2c_rdwr_ioctl_data* t) {
  if (t->nmsgs == 0 || t->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return -EINVAL;
  for (unsigned i = 0; i < t->nmsgs; ++i)
    if (t->msgs[i].len > kMaxMessage) return -EINVAL;
  for (unsigned i = 0; i < t->nmsgs; ++i)
    if (!Transfer(*h.bus, t->msgs[i])) return -EREMOTEIO;
  return t->nmsgs;
}

// The kernel's SMBus emulation for the byte transactions in kFunctions.
long Smbus(Handle& h, const i2c_smbus_ioctl_data* r) {
  const bool read = r->read_write == I2C_SMBUS_READ;
  const bool withData = r->size == I2C_SMBUS_BYTE_DATA;
  if (!withData && r->size != I2C_SMBUS_BYTE) return -EOPNOTSUPP;
  if ((read || withData) && r->data == nullptr) return -EINVAL;
  uint8_t out[2] = {r->command, withData && !read ? r->data->byte : uint8_t{}};
  i2c_msg command{h.address, 0, static_cast<uint16_t>(1 + (withData && !read)),
                  out};
  // A byte read is the read alone; any other first writes the command.
  if ((withData || !read) && !Transfer(*h.bus, command)) return -ENXIO;
  i2c_msg answer{h.address, I2C_M_RD, 1, read ? &r->data->byte : nullptr};
  return read && !Transfer(*h.bus, answer) ? -ENXIO : 0;
}

long Ioctl(Handle& h, unsigned long request, unsigned long argument) {
  switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
      if (argument > 0x7f) return -EINVAL;
      if (request == I2C_SLAVE && argument == 0x36) return -EBUSY;
      h.address = static_cast<uint16_t>(argument);
      return 0;
    case I2C_FUNCS:
      *reinterpret_cast<unsigned long*>(argument) = kFunctions;
      return 0;
    case I2C_RDWR:
      return Combined(h, reinterpret_cast<i2c_rdwr_ioctl_data*>(argument));
    case I2C_SMBUS:
      return Smbus(h, reinterpret_cast<i2c_smbus_ioctl_data*>(argument));
    default:
      return -ENOTTY;
  }
}

int OpenAdapter(const char* number, int flags) {
  const char* list = getenv("QEL_I2C_EMULATOR_ADAPTERS");
  if (list == nullptr ||
      (std::string(",") + list + ",").find(std::string(",") + number + ",") ==
          std::string::npos) {
    errno = ENOENT;
    return -1;
  }
  static auto& buses = *new std::map<std::string, Bus>;
  static auto realOpen = Next<int (*)(const char*, int, ...)>("open");
  int memfd = memfd_create((std::string("i2c-") + number).c_str(), MFD_CLOEXEC);
  if (memfd < 0) return -1;
  int fd = realOpen(("/proc/self/fd/" + std::to_string(memfd)).c_str(),
                    flags & (O_ACCMODE | O_CLOEXEC | O_NONBLOCK));
  int error = errno;
  Next<int (*)(int)>("close")(memfd);
  if (fd >= 0) Handles()[fd] = {&buses[number], 0};
  errno = error;
  return fd;
}

// Sets errno from a negative result as the system call would.
long Result(long result) {
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

Handle* Find(int fd) {
  auto it = Handles().find(fd);
  return it == Handles().end() ? nullptr : &it->second;
}

}  // namespace

// Each wrapper is defined under its symbol's own name: a program built with
// 64-bit file offsets calls open64 where its source says open, and one built
// with 64-bit time on a 32-bit target calls __ioctl_time64 for ioctl, while
// this file's own build flags would fold the two names of a pair into one.
#define QEL_DEFINE_OPEN(function, symbol)                             \
  int function(const char* path, int flags, ...) __asm__(symbol);     \
  int function(const char* path, int flags, ...) {                    \
    va_list arguments;                                                \
    va_start(arguments, flags);                                       \
    mode_t mode =                                                     \
        (flags & (O_CREAT | O_TMPFILE)) ? va_arg(arguments, int) : 0; \
    va_end(arguments);                                                \
    if (strncmp(path, "/dev/i2c-", 9) == 0)                           \
      return OpenAdapter(path + 9, flags);                            \
    static auto next = Next<int (*)(const char*, int, ...)>(symbol);  \
    return next(path, flags, mode);                                   \
  }

// No i2c-dev request carries a time, so both symbols answer alike.
#define QEL_DEFINE_IOCTL(function, symbol)                                   \
  int function(int fd, unsigned long request, ...) noexcept __asm__(symbol); \
  int function(int fd, unsigned long request, ...) noexcept {                \
    va_list arguments;                                                       \
    va_start(arguments, request);                                            \
    unsigned long argument = va_arg(arguments, unsigned long);               \
    va_end(arguments);                                                       \
    if (Handle* h = Find(fd)) return Result(Ioctl(*h, request, argument));   \
    static auto next = Next<int (*)(int, unsigned long, ...)>(symbol);       \
    return next(fd, request, argument);                                      \
  }

extern "C" {

QEL_DEFINE_OPEN(EmulatedOpen, "open")
QEL_DEFINE_OPEN(EmulatedOpen64, "open64")
QEL_DEFINE_IOCTL(EmulatedIoctl, "ioctl")
QEL_DEFINE_IOCTL(EmulatedIoctlTime64, "__ioctl_time64")

int close(int fd) {
  Handles().erase(fd);
  static auto next = Next<int (*)(int)>("close");
  return next(fd);
}

ssize_t read(int fd, void* buffer, size_t count) {
  if (Handle* h = Find(fd)) return Result(Single(*h, I2C_M_RD, buffer, count));
  static auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
  return next(fd, buffer, count);
}

ssize_t write(int fd, const void* data, size_t count) {
  if (Handle* h = Find(fd)) return Result(Single(*h, 0, data, count));
  static auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
  return next(fd, data, count);
}

}  // extern "C"
