// Sizes and layouts shared with the kernel, the device tools and other
// processes. The device is 32-bit ARM (armhf): long and pointers are 4 bytes
// there, 8 on the build machine; both must come out as the device expects.

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <ctime>

#include <gtest/gtest.h>

#include "qel_util/daemon.h"
#include "qel_util/system.h"

namespace {

#if defined(__arm__)
constexpr size_t kWord = 4;  // long, unsigned long, pointers, time_t, rlim_t
#else
constexpr size_t kWord = 8;
#endif

TEST(PlatformSizes, MessageSocketAddressI2cAndDaemon) {
  // cMsgQHandler's lengths count the long type: 4 bytes less text on armhf.
  EXPECT_EQ(sizeof(long), kWord);
  EXPECT_EQ(offsetof(msgbuf, mtext), sizeof(long));
  // Abstract names: a marker byte, then up to 107 characters.
  EXPECT_EQ(sizeof(sockaddr_un), 110u);
  EXPECT_EQ(offsetof(sockaddr_un, sun_path), 2u);
  // i2c-dev's combined transfer carries pointers: it follows the word size.
  EXPECT_EQ(offsetof(i2c_msg, buf), 8u);
  EXPECT_EQ(sizeof(i2c_msg), 8 + kWord);
  EXPECT_EQ(sizeof(i2c_rdwr_ioctl_data), 2 * kWord);
  // Log ident (64 and a NUL), dump path; on armhf a 32-bit dump time stamp
  // and an RLIMIT_NOFILE "unlimited" that must not be taken for a count.
  EXPECT_EQ(sizeof(qel_util::DaemonImpl::m_logIdent), 65u);
  EXPECT_EQ(sizeof(qel_util::DaemonImpl::m_dumpFile), 96u);
  EXPECT_EQ(sizeof(time_t), kWord);
  EXPECT_EQ(sizeof(rlim_t), kWord);
  EXPECT_EQ(RLIM_INFINITY, static_cast<rlim_t>(-1));
}

TEST(PlatformSizes, RpmbFrameAndMmcIoctl) {
  using Frame = qel_util::MmcPrivate::DataFrame;
  EXPECT_EQ(sizeof(Frame), 512u);
  EXPECT_EQ(alignof(Frame), 1u);
  const size_t offsets[] = {
      offsetof(Frame, keyMac),  offsetof(Frame, data),
      offsetof(Frame, nonce),   offsetof(Frame, writeCounter),
      offsetof(Frame, address), offsetof(Frame, blockCount),
      offsetof(Frame, result),  offsetof(Frame, reqResp)};
  const size_t expected[] = {196, 228, 484, 500, 504, 506, 508, 510};
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(offsets[i], expected[i]) << i;
  // The same 72-byte command on 32 and 64 bits: the data pointer travels in
  // a 64-bit field, and the request numbers are equal.
  EXPECT_EQ(sizeof(mmc_ioc_cmd), 72u);
  EXPECT_EQ(offsetof(mmc_ioc_cmd, data_ptr), 64u);
  EXPECT_EQ(offsetof(mmc_ioc_multi_cmd, cmds), 8u);
  EXPECT_EQ(static_cast<unsigned long>(MMC_IOC_CMD), 0xc048b300ul);
  EXPECT_EQ(static_cast<unsigned long>(MMC_IOC_MULTI_CMD), 0xc008b301ul);
}

}  // namespace
