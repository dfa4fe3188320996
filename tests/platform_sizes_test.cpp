// The sizes and layouts the library shares with the kernel, the device tools
// and other processes. The device is 32-bit ARM (armhf): long and pointers
// are 4 bytes there, 8 on the 64-bit build machine; everything that crosses
// a process or kernel boundary must come out as the device expects on both.

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include <gtest/gtest.h>

#include "qel_util/daemon.h"
#include "qel_util/system.h"

namespace {

#if defined(__arm__)
constexpr size_t kWord = 4;  // long, unsigned long and pointers
#else
constexpr size_t kWord = 8;
#endif

// System V messages begin with a long type; cMsgQHandler's lengths count the
// whole buffer, so the text of a message of `length` bytes is
// length - sizeof(long) bytes, 4 less on the device than on the build machine.
struct Message {
  long type;
  char text[16];
};

TEST(PlatformSizes, MessageTypeFieldIsALong) {
  EXPECT_EQ(sizeof(long), kWord);
  EXPECT_EQ(sizeof(msgbuf::mtype), sizeof(long));
  EXPECT_EQ(offsetof(msgbuf, mtext), sizeof(long));
  EXPECT_EQ(offsetof(Message, text), sizeof(long));
  EXPECT_EQ(sizeof(Message) - sizeof(long), sizeof(Message::text));
}

// Abstract socket names: the first character is the marker, characters 2 to
// 107 the name, so sun_path must be 108 bytes behind the 2-byte family.
TEST(PlatformSizes, UnixSocketAddress) {
  EXPECT_EQ(sizeof(sockaddr_un), 110u);
  EXPECT_EQ(offsetof(sockaddr_un, sun_path), 2u);
  EXPECT_EQ(sizeof(sockaddr_un::sun_path), 108u);
  EXPECT_EQ(sizeof(sa_family_t), 2u);
}

// The RPMB data frame is the eMMC's 512-byte wire format, byte for byte.
TEST(PlatformSizes, RpmbDataFrame) {
  using Frame = qel_util::MmcPrivate::DataFrame;
  EXPECT_EQ(sizeof(Frame), 512u);
  EXPECT_EQ(alignof(Frame), 1u);
  EXPECT_EQ(offsetof(Frame, keyMac), 196u);
  EXPECT_EQ(offsetof(Frame, data), 228u);
  EXPECT_EQ(offsetof(Frame, nonce), 484u);
  EXPECT_EQ(offsetof(Frame, writeCounter), 500u);
  EXPECT_EQ(offsetof(Frame, address), 504u);
  EXPECT_EQ(offsetof(Frame, blockCount), 506u);
  EXPECT_EQ(offsetof(Frame, result), 508u);
  EXPECT_EQ(offsetof(Frame, reqResp), 510u);
}

// The MMC block driver takes the same 72-byte command on 32 and 64 bits: the
// data pointer travels in a 64-bit field after explicit padding, and the
// request numbers are equal on both.
TEST(PlatformSizes, MmcIoctlLayout) {
  EXPECT_EQ(sizeof(mmc_ioc_cmd), 72u);
  EXPECT_EQ(offsetof(mmc_ioc_cmd, blocks), 40u);
  EXPECT_EQ(offsetof(mmc_ioc_cmd, data_ptr), 64u);
  EXPECT_EQ(sizeof(mmc_ioc_multi_cmd), 8u);
  EXPECT_EQ(offsetof(mmc_ioc_multi_cmd, cmds), 8u);
  EXPECT_EQ(static_cast<unsigned long>(MMC_IOC_CMD), 0xc048b300ul);
  EXPECT_EQ(static_cast<unsigned long>(MMC_IOC_MULTI_CMD), 0xc008b301ul);

  unsigned char frame[512];
  mmc_ioc_cmd command{};
  mmc_ioc_cmd_set_data(command, frame);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(
                static_cast<uintptr_t>(command.data_ptr)),
            frame);
}

// i2c-dev's combined transfer carries pointers, so its structures follow the
// word size; the kernel of the device expects the 32-bit forms. I2C_FUNCS
// writes an unsigned long, which GetCapabilities hands back as it is.
TEST(PlatformSizes, I2cTransferLayout) {
  EXPECT_EQ(offsetof(i2c_msg, len), 4u);
  EXPECT_EQ(offsetof(i2c_msg, buf), 8u);  // 6 rounded up for the pointer
  EXPECT_EQ(sizeof(i2c_msg), 8 + kWord);
  EXPECT_EQ(offsetof(i2c_rdwr_ioctl_data, nmsgs), kWord);
  EXPECT_EQ(sizeof(i2c_rdwr_ioctl_data), 2 * kWord);
  EXPECT_EQ(sizeof(unsigned long), kWord);
  EXPECT_EQ(I2C_SLAVE, 0x0703);
  EXPECT_EQ(I2C_FUNCS, 0x0705);
  EXPECT_EQ(I2C_RDWR, 0x0707);
}

// The framework's fixed buffers: a 64-character log ident with its NUL, and
// the dump file path "/home/root/log/<name>_dump.txt".
TEST(PlatformSizes, DaemonBuffers) {
  EXPECT_EQ(sizeof(qel_util::DaemonImpl::m_logIdent), 65u);
  EXPECT_EQ(sizeof(qel_util::DaemonImpl::m_dumpFile), 96u);
}

// The device's glibc, without _TIME_BITS or _FILE_OFFSET_BITS, keeps 32-bit
// time_t and rlim_t: the crash dump's time stamp is a 32-bit time, and
// RLIMIT_NOFILE's "unlimited" is 0xffffffff, which the descriptor sweep of
// daemonize must not take for a count. A build that widens them fails here.
TEST(PlatformSizes, TimeAndResourceLimitWidths) {
#if defined(__arm__)
  EXPECT_EQ(sizeof(time_t), 4u);
#else
  EXPECT_EQ(sizeof(time_t), 8u);
#endif
#if defined(__arm__)
  EXPECT_EQ(sizeof(rlim_t), 4u);
#else
  EXPECT_EQ(sizeof(rlim_t), 8u);
#endif
  EXPECT_EQ(RLIM_INFINITY, static_cast<rlim_t>(-1));
  EXPECT_GT(RLIM_INFINITY, static_cast<rlim_t>(INT_MAX));
}

}  // namespace
