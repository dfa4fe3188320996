// Takes over the libc calls a program makes on "/dev/i2c-<n>" and answers
// them from emulated buses; every other path and descriptor goes to the next
// definition (libc, or a sanitizer's interceptor).
//
// Environment:
//   QEL_I2C_EMULATOR_ADAPTERS  adapter numbers that exist, e.g. "0,1,12";
//                              opening any other "/dev/i2c-<n>" fails with
//                              ENOENT (the host's own adapters are never
//                              reached)
//   QEL_I2C_EMULATOR_STATE     directory; when set, each bus lives in the
//                              file "<dir>/i2c-<n>.bus", shared by every
//                              process using it (a write by one tool is seen
//                              by the next); otherwise each process starts
//                              from power-on
//   QEL_I2C_EMULATOR_LOG       file; "open <path> <octal flags>" and
//                              "close <path>" lines are appended to it
//
// An open adapter is a real descriptor (a memfd named "i2c-<n>"), so
// descriptor limits, close-on-exec and leak checks behave as with the real
// device; descriptors made from it by dup are plain memfds.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device.h"

namespace i2c_emulator {
namespace {

constexpr int kMaxBuses = 16;
constexpr int kMaxOpen = 64;

struct BusSlot {
  unsigned number;
  Bus* bus;
};

struct Handle {
  int fd;  // -1 when free
  ino_t inode;
  unsigned number;
  OpenAdapter adapter;
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
BusSlot g_buses[kMaxBuses];
int g_busCount = 0;
Bus g_privateBuses[kMaxBuses];
Handle g_handles[kMaxOpen];
bool g_handlesReady = false;

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

#define QEL_NEXT(name)                               \
  static auto next = Next<decltype(&::name)>(#name); \
  if (next == nullptr) {                             \
    errno = ENOSYS;                                  \
    return -1;                                       \
  }

int RealOpen(const char* path, int flags, mode_t mode) {
  QEL_NEXT(open);
  return next(path, flags, mode);
}

ssize_t RealWrite(int fd, const void* data, size_t count) {
  QEL_NEXT(write);
  return next(fd, data, count);
}

int RealClose(int fd) {
  QEL_NEXT(close);
  return next(fd);
}

void Log(const char* format, const char* path, int flags) {
  const char* file = getenv("QEL_I2C_EMULATOR_LOG");
  if (file == nullptr) return;
  char line[128];
  int length = snprintf(line, sizeof line, format, path, flags);
  int fd = RealOpen(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  if (RealWrite(fd, line, static_cast<size_t>(length)) < 0) {
    // Nothing to do: a lost log line shows up in the test that reads it.
  }
  RealClose(fd);
}

// "/dev/i2c-" and a number in its canonical decimal form.
bool AdapterNumber(const char* path, unsigned& number) {
  static const char kPrefix[] = "/dev/i2c-";
  if (path == nullptr || strncmp(path, kPrefix, sizeof kPrefix - 1) != 0)
    return false;
  const char* digits = path + sizeof kPrefix - 1;
  if (digits[0] < '0' || digits[0] > '9' || (digits[0] == '0' && digits[1]))
    return false;
  unsigned long long value = 0;
  for (const char* c = digits; *c; ++c) {
    if (*c < '0' || *c > '9') return false;
    value = value * 10 + static_cast<unsigned>(*c - '0');
    if (value > 0xffffffffull) return false;
  }
  number = static_cast<unsigned>(value);
  return true;
}

bool AdapterExists(unsigned number) {
  const char* list = getenv("QEL_I2C_EMULATOR_ADAPTERS");
  while (list != nullptr && *list != '\0') {
    char* end = nullptr;
    unsigned long value = strtoul(list, &end, 10);
    if (end == list) return false;
    if (value == number) return true;
    list = *end == ',' ? end + 1 : end;
  }
  return false;
}

Bus* SharedBus(const char* directory, unsigned number) {
  char path[4096];
  snprintf(path, sizeof path, "%s/i2c-%u.bus", directory, number);
  int fd = RealOpen(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  void* memory = MAP_FAILED;
  if (ftruncate(fd, sizeof(Bus)) == 0)
    memory =
        mmap(nullptr, sizeof(Bus), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  RealClose(fd);
  return memory == MAP_FAILED ? nullptr : static_cast<Bus*>(memory);
}

// Called with g_lock held.
Bus* FindBus(unsigned number) {
  for (int i = 0; i < g_busCount; ++i)
    if (g_buses[i].number == number) return g_buses[i].bus;
  if (g_busCount == kMaxBuses) return nullptr;
  const char* directory = getenv("QEL_I2C_EMULATOR_STATE");
  Bus* bus =
      directory ? SharedBus(directory, number) : &g_privateBuses[g_busCount];
  if (bus == nullptr) return nullptr;
  PowerOn(*bus);
  g_buses[g_busCount++] = {number, bus};
  return bus;
}

void PrepareHandles() {
  if (g_handlesReady) return;
  for (Handle& h : g_handles) h.fd = -1;
  g_handlesReady = true;
}

// The handle behind `fd`, checked against the descriptor's inode so that a
// number reused after dup2 or close_range is not taken for an adapter.
Handle* FindHandle(int fd) {
  if (fd < 0) return nullptr;
  PrepareHandles();
  for (Handle& h : g_handles) {
    if (h.fd != fd) continue;
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_ino == h.inode) return &h;
    h.fd = -1;
    return nullptr;
  }
  return nullptr;
}

int OpenAdapterNode(unsigned number, const char* path, int flags) {
  Log("open %s 0%o\n", path, flags);
  if (!AdapterExists(number)) {
    errno = ENOENT;
    return -1;
  }
  pthread_mutex_lock(&g_lock);
  PrepareHandles();
  int result = -1;
  int error = EMFILE;
  Handle* slot = nullptr;
  for (Handle& h : g_handles)
    if (h.fd == -1 && slot == nullptr) slot = &h;
  Bus* bus = FindBus(number);
  if (bus == nullptr) error = ENOMEM;
  if (slot != nullptr && bus != nullptr) {
    char name[32];
    snprintf(name, sizeof name, "i2c-%u", number);
    int fd = memfd_create(name, (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0) {
      *slot = {fd, st.st_ino, number, {bus, 0, false}};
      result = fd;
    } else {
      error = errno;
      if (fd >= 0) RealClose(fd);
    }
  }
  pthread_mutex_unlock(&g_lock);
  if (result < 0) errno = error;
  return result;
}

// Sets errno from a negative result as the system call would.
template <typename Result>
Result Finish(Result result) {
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

mode_t ModeArgument(int flags, va_list arguments) {
  if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE)
    return static_cast<mode_t>(va_arg(arguments, int));
  return 0;
}

}  // namespace
}  // namespace i2c_emulator

using namespace i2c_emulator;

// The open family: a "/dev/i2c-<n>" path opens an emulated adapter,
// anything else goes on to the next definition.
#define QEL_CHECK_ADAPTER_PATH() \
  unsigned number;               \
  if (AdapterNumber(path, number)) return OpenAdapterNode(number, path, flags);

#define QEL_DEFINE_OPEN(name)                                       \
  int name(const char* path, int flags, ...) {                      \
    va_list arguments;                                              \
    va_start(arguments, flags);                                     \
    mode_t mode = ModeArgument(flags, arguments);                   \
    va_end(arguments);                                              \
    QEL_CHECK_ADAPTER_PATH()                                        \
    static auto next = Next<int (*)(const char*, int, ...)>(#name); \
    return next(path, flags, mode);                                 \
  }

#define QEL_DEFINE_OPENAT(name)                                          \
  int name(int directory, const char* path, int flags, ...) {            \
    va_list arguments;                                                   \
    va_start(arguments, flags);                                          \
    mode_t mode = ModeArgument(flags, arguments);                        \
    va_end(arguments);                                                   \
    QEL_CHECK_ADAPTER_PATH()                                             \
    static auto next = Next<int (*)(int, const char*, int, ...)>(#name); \
    return next(directory, path, flags, mode);                           \
  }

// The checked variants that fortified programs call.
#define QEL_DEFINE_OPEN_2(name)                                \
  int name(const char* path, int flags) {                      \
    QEL_CHECK_ADAPTER_PATH()                                   \
    static auto next = Next<int (*)(const char*, int)>(#name); \
    return next(path, flags);                                  \
  }

#define QEL_DEFINE_OPENAT_2(name)                                   \
  int name(int directory, const char* path, int flags) {            \
    QEL_CHECK_ADAPTER_PATH()                                        \
    static auto next = Next<int (*)(int, const char*, int)>(#name); \
    return next(directory, path, flags);                            \
  }

extern "C" {

QEL_DEFINE_OPEN(open)
QEL_DEFINE_OPEN(open64)
QEL_DEFINE_OPENAT(openat)
QEL_DEFINE_OPENAT(openat64)
QEL_DEFINE_OPEN_2(__open_2)
QEL_DEFINE_OPEN_2(__open64_2)
QEL_DEFINE_OPENAT_2(__openat_2)
QEL_DEFINE_OPENAT_2(__openat64_2)

int close(int fd) {
  pthread_mutex_lock(&g_lock);
  if (Handle* h = FindHandle(fd)) {
    char path[32];
    snprintf(path, sizeof path, "/dev/i2c-%u", h->number);
    h->fd = -1;
    Log("close %s\n", path, 0);
  }
  pthread_mutex_unlock(&g_lock);
  return RealClose(fd);
}

ssize_t read(int fd, void* buffer, size_t count) {
  pthread_mutex_lock(&g_lock);
  Handle* h = FindHandle(fd);
  ssize_t result = h ? DeviceRead(h->adapter, buffer, count) : 0;
  pthread_mutex_unlock(&g_lock);
  if (h != nullptr) return Finish(result);
  QEL_NEXT(read);
  return next(fd, buffer, count);
}

ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size) {
  if (count > size) abort();  // what the checked version does
  return read(fd, buffer, count);
}

ssize_t write(int fd, const void* data, size_t count) {
  pthread_mutex_lock(&g_lock);
  Handle* h = FindHandle(fd);
  ssize_t result = h ? DeviceWrite(h->adapter, data, count) : 0;
  pthread_mutex_unlock(&g_lock);
  if (h != nullptr) return Finish(result);
  return RealWrite(fd, data, count);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  unsigned long argument = va_arg(arguments, unsigned long);
  va_end(arguments);
  pthread_mutex_lock(&g_lock);
  Handle* h = FindHandle(fd);
  long result = h ? DeviceIoctl(h->adapter, request, argument) : 0;
  pthread_mutex_unlock(&g_lock);
  if (h != nullptr) return static_cast<int>(Finish(result));
  static auto next = Next<int (*)(int, unsigned long, ...)>("ioctl");
  return next(fd, request, argument);
}

}  // extern "C"
