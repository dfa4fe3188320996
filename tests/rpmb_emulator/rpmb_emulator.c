/*
 * Emulates the eMMC RPMB partition "/dev/mmcblk0rpmb" for programs started
 * with LD_PRELOAD pointing at this library: opening that path, MMC ioctls on
 * the descriptor and closing it are served here; every other call goes on to
 * the C library.
 *
 * Only the authenticated data read is implemented, but the ioctl argument is
 * checked the way the kernel's MMC block driver and a JEDEC eMMC would check
 * it, and a bad block fails with the errno a real device would give.
 *
 * Environment, read at each open and ioctl:
 *   QEL_RPMB_IMAGE    block image, 256 data bytes per block. Unset or missing:
 *                     the device node does not exist (open fails, ENOENT).
 *   QEL_RPMB_BLOCKS   partition size in blocks (default: whole blocks of the
 *                     image; blocks past the end of the image read as zero).
 *   QEL_RPMB_RESULTS  result codes of response frames 0, 1, ... separated by
 *                     "," (C integer syntax, e.g. "0,0x0085"); the last one
 *                     also goes to every later frame. Default 0.
 *   QEL_RPMB_TRACE    file to which every ioctl appends one line describing
 *                     the commands it carried.
 *
 * The device answers as a card whose authentication key is programmed but
 * whose MAC is not computed (zero); the result codes come from
 * QEL_RPMB_RESULTS unless the request itself is wrong:
 *   0x0001 general failure: response read without a read request, a request
 *          type other than 0x0004, a request of more than one frame, or a
 *          request block count other than 0 or the number of frames read;
 *   0x0004 address failure: the read reaches past the partition.
 * Errors of the ioctl itself:
 *   EINVAL     num_of_cmds above 255 (none: nothing is done);
 *   EOVERFLOW  a command moving more than 512 KiB;
 *   EFAULT     a data command without a data pointer;
 *   ETIMEDOUT  a data command whose direction does not match its opcode, or
 *              an unknown opcode with data;
 *   EILSEQ     a data command with a block size other than 512;
 *   ENOTTY     any other request than MMC_IOC_CMD and MMC_IOC_MULTI_CMD.
 * SET_BLOCK_COUNT (CMD23) is accepted in front of a data command, as the
 * kernel itself puts one there for RPMB transfers.
 */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/major.h>
#include <linux/mmc/ioctl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#define DEVICE_PATH "/dev/mmcblk0rpmb"
#define FRAME_SIZE 512
#define DATA_SIZE 256
#define MAX_FDS 4096

enum { OFF_NONCE = 484, OFF_WRITE_COUNTER = 500, OFF_ADDRESS = 504,
       OFF_BLOCK_COUNT = 506, OFF_RESULT = 508, OFF_REQ_RESP = 510,
       OFF_DATA = 228 };
enum { REQ_DATA_READ = 0x0004, RESP_DATA_READ = 0x0400 };
enum { RESULT_GENERAL = 0x0001, RESULT_ADDRESS = 0x0004 };
/* R1 card status: ready for data, transfer state; ILLEGAL_COMMAND bit. */
#define R1_TRAN_READY 0x00000900u
#define R1_ILLEGAL_COMMAND 0x00400000u

static unsigned char s_ours[MAX_FDS];

/* The card's pending read request, kept between commands and ioctls. */
static struct {
  int pending;        /* a request frame has been written */
  int bad;            /* the request cannot be answered: general failure */
  unsigned address;
  unsigned count;     /* block count field of the request */
  unsigned char nonce[16];
} s_request;

static void* next_symbol(const char* name) { return dlsym(RTLD_NEXT, name); }

typedef int (*open_fn)(const char*, int, ...);
typedef int (*openat_fn)(int, const char*, int, ...);
typedef int (*close_fn)(int);
typedef int (*ioctl_fn)(int, unsigned long, ...);

static int is_device(const char* path) {
  return path != NULL && strcmp(path, DEVICE_PATH) == 0;
}

static int image_exists(void) {
  const char* image = getenv("QEL_RPMB_IMAGE");
  struct stat st;
  return image != NULL && stat(image, &st) == 0 && S_ISREG(st.st_mode);
}

/* A descriptor for the emulated node: "/dev/null" holds the number. */
static int open_device(int flags) {
  if (!image_exists()) {
    errno = ENOENT;
    return -1;
  }
  static open_fn real_open;
  if (!real_open) real_open = (open_fn)next_symbol("open");
  int fd = real_open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
  if (fd >= MAX_FDS) {
    ((close_fn)next_symbol("close"))(fd);
    errno = EMFILE;
    return -1;
  }
  if (fd >= 0) s_ours[fd] = 1;
  return fd;
}

static mode_t mode_arg(int flags, va_list args) {
  return (flags & (O_CREAT | O_TMPFILE)) ? va_arg(args, mode_t) : 0;
}

#define OPEN_WRAPPER(name)                                              \
  int name(const char* path, int flags, ...) {                          \
    if (is_device(path)) return open_device(flags);                     \
    static open_fn real;                                                \
    if (!real) real = (open_fn)next_symbol(#name);                      \
    va_list args;                                                       \
    va_start(args, flags);                                              \
    mode_t mode = mode_arg(flags, args);                                \
    va_end(args);                                                       \
    return real(path, flags, mode);                                     \
  }
OPEN_WRAPPER(open)
OPEN_WRAPPER(open64)

#define OPENAT_WRAPPER(name)                                            \
  int name(int dirfd, const char* path, int flags, ...) {               \
    if (is_device(path)) return open_device(flags);                     \
    static openat_fn real;                                              \
    if (!real) real = (openat_fn)next_symbol(#name);                    \
    va_list args;                                                       \
    va_start(args, flags);                                              \
    mode_t mode = mode_arg(flags, args);                                \
    va_end(args);                                                       \
    return real(dirfd, path, flags, mode);                              \
  }
OPENAT_WRAPPER(openat)
OPENAT_WRAPPER(openat64)

/* The checked variants that _FORTIFY_SOURCE builds call. */
int __open_2(const char* path, int flags) { return open(path, flags); }
int __open64_2(const char* path, int flags) { return open64(path, flags); }
int __openat_2(int dirfd, const char* path, int flags) {
  return openat(dirfd, path, flags);
}
int __openat64_2(int dirfd, const char* path, int flags) {
  return openat64(dirfd, path, flags);
}

int close(int fd) {
  static close_fn real;
  if (!real) real = (close_fn)next_symbol("close");
  if (fd >= 0 && fd < MAX_FDS) s_ours[fd] = 0;
  return real(fd);
}

static unsigned load16(const unsigned char* p) { return p[0] << 8 | p[1]; }

static void store16(unsigned char* p, unsigned value) {
  p[0] = (unsigned char)(value >> 8);
  p[1] = (unsigned char)value;
}

static unsigned env_unsigned(const char* name, unsigned fallback) {
  const char* text = getenv(name);
  return text && *text ? (unsigned)strtoul(text, NULL, 0) : fallback;
}

static unsigned partition_blocks(void) {
  struct stat st;
  const char* image = getenv("QEL_RPMB_IMAGE");
  unsigned whole =
      image && stat(image, &st) == 0 ? (unsigned)(st.st_size / DATA_SIZE) : 0;
  return env_unsigned("QEL_RPMB_BLOCKS", whole);
}

/* Result code of response frame `index` from QEL_RPMB_RESULTS. */
static unsigned configured_result(unsigned index) {
  const char* text = getenv("QEL_RPMB_RESULTS");
  unsigned result = 0;
  if (!text) return 0;
  for (unsigned i = 0; *text; ++i) {
    char* end;
    result = (unsigned)strtoul(text, &end, 0);
    if (i == index || *end != ',') break;
    text = end + 1;
  }
  return result & 0xFFFF;
}

static void read_image(unsigned block, unsigned char* out) {
  memset(out, 0, DATA_SIZE);
  FILE* image = fopen(getenv("QEL_RPMB_IMAGE"), "rb");
  if (!image) return;
  if (fseek(image, (long)block * DATA_SIZE, SEEK_SET) == 0)
    if (fread(out, 1, DATA_SIZE, image)) {}
  fclose(image);
}

static void trace(FILE* out, const struct mmc_ioc_cmd* cmd) {
  if (!out) return;
  fprintf(out, " cmd%u %s flags=0x%x arg=0x%x %ux%u", cmd->opcode,
          cmd->write_flag ? "w" : "r", cmd->flags, cmd->arg, cmd->blksz,
          cmd->blocks);
  const unsigned char* frame = (const unsigned char*)(uintptr_t)cmd->data_ptr;
  if (cmd->opcode == 25 && frame && cmd->blksz == FRAME_SIZE)
    fprintf(out, " req=0x%04x addr=%u count=%u", load16(frame + OFF_REQ_RESP),
            load16(frame + OFF_ADDRESS), load16(frame + OFF_BLOCK_COUNT));
  fputc(';', out);
}

static void accept_request(const struct mmc_ioc_cmd* cmd) {
  const unsigned char* frame = (const unsigned char*)(uintptr_t)cmd->data_ptr;
  s_request.pending = 1;
  s_request.bad = cmd->blocks != 1 ||
                  load16(frame + OFF_REQ_RESP) != REQ_DATA_READ;
  s_request.address = load16(frame + OFF_ADDRESS);
  s_request.count = load16(frame + OFF_BLOCK_COUNT);
  memcpy(s_request.nonce, frame + OFF_NONCE, sizeof s_request.nonce);
}

static void answer_request(const struct mmc_ioc_cmd* cmd) {
  unsigned char* frames = (unsigned char*)(uintptr_t)cmd->data_ptr;
  const unsigned count = cmd->blocks;
  unsigned failure = 0;
  if (!s_request.pending || s_request.bad ||
      (s_request.count != 0 && s_request.count != count))
    failure = RESULT_GENERAL;
  else if (s_request.address + count > partition_blocks())
    failure = RESULT_ADDRESS;
  for (unsigned i = 0; i < count; ++i) {
    unsigned char* frame = frames + (size_t)i * FRAME_SIZE;
    memset(frame, 0, FRAME_SIZE);
    if (!failure) read_image(s_request.address + i, frame + OFF_DATA);
    memcpy(frame + OFF_NONCE, s_request.nonce, sizeof s_request.nonce);
    store16(frame + OFF_ADDRESS, s_request.address);
    store16(frame + OFF_BLOCK_COUNT, count);
    store16(frame + OFF_RESULT, failure ? failure : configured_result(i));
    store16(frame + OFF_REQ_RESP, RESP_DATA_READ);
  }
  memset(&s_request, 0, sizeof s_request);
}

/* One command as the card sees it; 0 or a negative errno. */
static int run_one(struct mmc_ioc_cmd* cmd) {
  const int has_data = cmd->blocks > 0;
  memset(cmd->response, 0, sizeof cmd->response);
  cmd->response[0] = R1_TRAN_READY;
  switch (cmd->opcode) {
    case 23: /* SET_BLOCK_COUNT: no data, the count goes with the transfer */
      return has_data ? -ETIMEDOUT : 0;
    case 25:
    case 18:
      if (!has_data) return 0;
      if ((cmd->opcode == 25) != (cmd->write_flag != 0)) return -ETIMEDOUT;
      if (cmd->blksz != FRAME_SIZE) return -EILSEQ;
      if (cmd->opcode == 25)
        accept_request(cmd);
      else
        answer_request(cmd);
      return 0;
    default:
      cmd->response[0] |= R1_ILLEGAL_COMMAND;
      return has_data ? -ETIMEDOUT : 0;
  }
}

/* The driver copies every command in before it issues the first one. */
static int check_copy_in(const struct mmc_ioc_cmd* cmd) {
  if ((uint64_t)cmd->blksz * cmd->blocks > MMC_IOC_MAX_BYTES)
    return -EOVERFLOW;
  if (cmd->blksz && cmd->blocks && !cmd->data_ptr) return -EFAULT;
  return 0;
}

static int run_commands(struct mmc_ioc_cmd* cmds, uint64_t n, FILE* out) {
  for (uint64_t i = 0; i < n; ++i) {
    trace(out, &cmds[i]);
    int err = check_copy_in(&cmds[i]);
    if (err) return err;
  }
  for (uint64_t i = 0; i < n; ++i) {
    int err = run_one(&cmds[i]);
    if (err) return err;
  }
  return 0;
}

static int device_ioctl(unsigned long request, void* arg) {
  const char* trace_path = getenv("QEL_RPMB_TRACE");
  FILE* out = trace_path ? fopen(trace_path, "a") : NULL;
  int err;
  if (request == MMC_IOC_MULTI_CMD) {
    struct mmc_ioc_multi_cmd* multi = arg;
    if (!multi) {
      err = -EFAULT;
    } else {
      if (out) fprintf(out, "multi %llu;", (unsigned long long)multi->num_of_cmds);
      err = multi->num_of_cmds > MMC_IOC_MAX_CMDS
                ? -EINVAL
                : run_commands(multi->cmds, multi->num_of_cmds, out);
    }
  } else if (request == MMC_IOC_CMD) {
    if (out) fputs("single;", out);
    err = arg ? run_commands(arg, 1, out) : -EFAULT;
  } else {
    err = -ENOTTY;
  }
  if (out) {
    fprintf(out, " -> %d\n", err);
    fclose(out);
  }
  if (err) {
    errno = -err;
    return -1;
  }
  return 0;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void* arg = va_arg(args, void*);
  va_end(args);
  if (fd >= 0 && fd < MAX_FDS && s_ours[fd]) return device_ioctl(request, arg);
  static ioctl_fn real;
  if (!real) real = (ioctl_fn)next_symbol("ioctl");
  return real(fd, request, arg);
}
