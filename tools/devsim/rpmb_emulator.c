/*
 * Emulates the eMMC RPMB partition "/dev/mmcblk0rpmb" for programs started
 * with this library preloaded. Only the authenticated data read exists: one
 * MMC_IOC_MULTI_CMD of CMD25 (one 512-byte request frame, type 0x0004, block
 * count 0 or n) and CMD18 (n 512-byte response frames). Anything else on the
 * node fails with EINVAL; a read past the partition answers address failure.
 *   QEL_RPMB_IMAGE    256 data bytes per block; unset or missing: no node
 *   QEL_RPMB_BLOCKS   partition size in blocks (default: that of the image)
 *   QEL_RPMB_RESULTS  result codes of frames 0, 1, ..., e.g. "0,0x0085"; the
 *                     last one also goes to every later frame (default 0)
 */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

enum { FRAME = 512, DATA = 256, OFF_DATA = 228, OFF_NONCE = 484,
       OFF_ADDRESS = 504, OFF_COUNT = 506, OFF_RESULT = 508, OFF_TYPE = 510 };
#define MAX_FDS 1024
static unsigned char s_ours[MAX_FDS];
typedef int (*open_fn)(const char*, int, ...);

/* Each wrapper is defined under its symbol's own name: a program built with
 * 64-bit file offsets calls open64 where its source says open, and one built
 * with 64-bit time on a 32-bit target calls __ioctl_time64 for ioctl, while
 * this file's own build flags would fold the two names of a pair into one.
 * The node is "/dev/null" under another name: it gives the descriptor. */
#define OPEN_WRAPPER(fn, symbol)                                          \
  int fn(const char* path, int flags, ...) __asm__(symbol);               \
  int fn(const char* path, int flags, ...) {                              \
    static open_fn real;                                                  \
    if (!real) real = (open_fn)dlsym(RTLD_NEXT, symbol);                  \
    va_list args;                                                         \
    va_start(args, flags);                                                \
    mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(args, mode_t) : 0; \
    va_end(args);                                                         \
    const char* image = getenv("QEL_RPMB_IMAGE");                         \
    if (strcmp(path, "/dev/mmcblk0rpmb") || !image || access(image, R_OK)) \
      return real(path, flags, mode);                                     \
    int fd = real("/dev/null", O_RDWR | (flags & O_CLOEXEC));             \
    if (fd >= 0 && fd < MAX_FDS) s_ours[fd] = 1;                          \
    return fd;                                                            \
  }
OPEN_WRAPPER(emulated_open, "open")
OPEN_WRAPPER(emulated_open64, "open64")

int close(int fd) {
  static int (*real)(int);
  if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "close");
  if (fd >= 0 && fd < MAX_FDS) s_ours[fd] = 0;
  return real(fd);
}

static unsigned load16(const unsigned char* p) { return p[0] << 8 | p[1]; }

static void store16(unsigned char* p, unsigned v) {
  p[0] = (unsigned char)(v >> 8), p[1] = (unsigned char)v;
}

static int read_data(const struct mmc_ioc_multi_cmd* multi) {
  if (multi->num_of_cmds != 2) return -1;
  const struct mmc_ioc_cmd* c = multi->cmds;
  const unsigned char* request = (const unsigned char*)(uintptr_t)c[0].data_ptr;
  unsigned char* frames = (unsigned char*)(uintptr_t)c[1].data_ptr;
  const unsigned n = c[1].blocks;
  if (c[0].opcode != 25 || !c[0].write_flag ||
      c[0].blksz != FRAME || c[0].blocks != 1 || !request ||
      c[1].opcode != 18 || c[1].write_flag || c[1].blksz != FRAME || !n ||
      !frames || load16(request + OFF_TYPE) != 0x0004 ||
      (load16(request + OFF_COUNT) != 0 && load16(request + OFF_COUNT) != n))
    return -1;
  const char* image = getenv("QEL_RPMB_IMAGE");
  const char* size = getenv("QEL_RPMB_BLOCKS");
  const char* results = getenv("QEL_RPMB_RESULTS");
  struct stat st;
  unsigned blocks = stat(image, &st) == 0 ? (unsigned)(st.st_size / DATA) : 0;
  if (size) blocks = (unsigned)strtoul(size, NULL, 0);
  const unsigned address = load16(request + OFF_ADDRESS);
  const int outside = address + n > blocks;
  unsigned result = 0;
  FILE* file = fopen(image, "rb");
  for (unsigned i = 0; i < n; ++i) {
    unsigned char* frame = frames + (size_t)i * FRAME;
    memset(frame, 0, FRAME);
    if (!outside && file && !fseek(file, (long)(address + i) * DATA, SEEK_SET))
      if (fread(frame + OFF_DATA, 1, DATA, file)) {}
    if (results && *results) {
      char* end;
      result = (unsigned)strtoul(results, &end, 0);
      results = *end == ',' ? end + 1 : end;
    }
    memcpy(frame + OFF_NONCE, request + OFF_NONCE, 16);
    store16(frame + OFF_ADDRESS, address);
    store16(frame + OFF_COUNT, n);
    store16(frame + OFF_RESULT, outside ? 0x0004 : result);
    store16(frame + OFF_TYPE, 0x0400);
  }
  if (file) fclose(file);
  return 0;
}

typedef int (*ioctl_fn)(int, unsigned long, ...);

/* No request on the node carries a time, so both symbols answer alike. */
static int answer(ioctl_fn* real, const char* symbol, int fd,
                  unsigned long request, void* arg) {
  if (fd < 0 || fd >= MAX_FDS || !s_ours[fd]) {
    if (!*real) *real = (ioctl_fn)dlsym(RTLD_NEXT, symbol);
    return (*real)(fd, request, arg);
  }
  if (request == MMC_IOC_MULTI_CMD && arg && read_data(arg) == 0) return 0;
  errno = EINVAL;
  return -1;
}

#define IOCTL_WRAPPER(fn, symbol)                                         \
  int fn(int fd, unsigned long request, ...) __asm__(symbol);             \
  int fn(int fd, unsigned long request, ...) {                            \
    static ioctl_fn real;                                                 \
    va_list args;                                                         \
    va_start(args, request);                                              \
    void* arg = va_arg(args, void*);                                      \
    va_end(args);                                                         \
    return answer(&real, symbol, fd, request, arg);                       \
  }
IOCTL_WRAPPER(emulated_ioctl, "ioctl")
IOCTL_WRAPPER(emulated_ioctl_time64, "__ioctl_time64")
