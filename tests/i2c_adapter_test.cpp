// The adapter on emulated i2c-dev buses (tests/i2c_emulator): each test runs
// again in a child of this program with the emulator preloaded.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qel_util/hw.h"
#include "support/sandbox.h"
#include "support/target.h"

namespace qel_util {
namespace {

using Bytes = std::vector<unsigned char>;

// True on the emulated bus; elsewhere runs the current test there instead.
bool OnEmulatedBus() {
  if (getenv("QEL_I2C_EMULATOR_ADAPTERS") != nullptr) return true;
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string filter = std::string("--gtest_filter=") +
                       test->test_suite_name() + "." + test->name();
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    qel_test::SetTargetPreload(QEL_I2C_EMULATOR);
    setenv("QEL_I2C_EMULATOR_ADAPTERS", "0,1,12,100000000,999999999", 1);
    // A sanitized program refuses a library preloaded ahead of its runtime.
    std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan + ":verify_asan_link_order=0").c_str(), 1);
    char* const argv[] = {const_cast<char*>("i2c_adapter_test"), &filter[0],
                          nullptr};
    qel_test::ExecTargetProgram("/proc/self/exe", argv);
    _exit(127);
  }
  EXPECT_EQ(qel_test::Reap(pid), 0) << "failed on the emulated bus";
  return false;
}

#define QEL_ON_EMULATED_BUS() \
  if (!OnEmulatedBus()) return

// The emulated adapters open in this process, one "i2c-<n>" line each.
std::string OpenAdapters() {
  std::string found, open = qel_test::OpenDescriptors();
  for (size_t at = 0; (at = open.find("/memfd:i2c-", at)) != std::string::npos; at += 7)
    found += open.substr(at + 7, open.find_first_of(" \n", at) - at - 7) + "\n";
  return found;
}

// Whether `call` returned false with errno `error`.
template <typename Call>
::testing::AssertionResult FailsWith(int error, Call call) {
  errno = 0;
  if (call()) return ::testing::AssertionFailure() << "it succeeded";
  if (errno != error)
    return ::testing::AssertionFailure() << "errno " << strerror(errno);
  return ::testing::AssertionSuccess();
}

TEST(I2cAdapter, OpensOneNumberedNodeAndNeverTouchesAnother) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  adapter.Destroy();  // before Create: nothing to close
  ASSERT_TRUE(adapter.Create(0));
  EXPECT_EQ(OpenAdapters(), "i2c-0\n");
  ASSERT_TRUE(adapter.Create(12));
  EXPECT_EQ(OpenAdapters(), "i2c-12\n");
  // A failed Create gives up the adapter held before.
  EXPECT_TRUE(FailsWith(ENOENT, [&] { return adapter.Create(3); }));
  EXPECT_EQ(OpenAdapters(), "");
  // Cut to fit, "/dev/i2c-1000000000" would name 100000000, which exists.
  ASSERT_TRUE(adapter.Create(999999999));
  for (unsigned int tooLong : {1000000000u, UINT_MAX})
    EXPECT_TRUE(
        FailsWith(ENAMETOOLONG, [&] { return adapter.Create(tooLong); }));
  EXPECT_EQ(OpenAdapters(), "");
  // A pipe takes the number the adapter had: nothing done on the closed
  // adapter may reach it.
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  adapter.Destroy();
  unsigned char byte[1] = {0x42};
  unsigned int length = 1;
  unsigned long functions = 0;
  i2c_rdwr_ioctl_data transfer{nullptr, 0};
  EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.Write(byte, 1); }));
  EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.Read(byte, length); }));
  EXPECT_EQ(length, 1u);
  EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.SetSlaveAddress(1); }));
  EXPECT_TRUE(
      FailsWith(EBADF, [&] { return adapter.GetCapabilities(functions); }));
  EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.ReadWrite(transfer); }));
  EXPECT_EQ(read(ends[0], byte, 1), -1);  // open, and nothing was written
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(close(ends[0]) + close(ends[1]), 0);
  ASSERT_TRUE(adapter.Create(12));  // the destructor closes it
}

// The adapter hands addresses, data, lengths and errors through unchanged;
// the bus's own limits and answers are the emulator's to model.
TEST(I2cAdapter, AddressThenReadAndWriteOrACombinedTransfer) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  unsigned long functions = 0;
  ASSERT_TRUE(adapter.GetCapabilities(functions));
  EXPECT_EQ(functions,
            static_cast<unsigned long>(I2C_FUNC_I2C | I2C_FUNC_SMBUS_BYTE |
                                       I2C_FUNC_SMBUS_BYTE_DATA));
  EXPECT_TRUE(FailsWith(EINVAL, [&] { return adapter.SetSlaveAddress(0x80); }));
  ASSERT_TRUE(adapter.SetSlaveAddress(0x50));
  const unsigned char store[] = {0x20, 1, 2, 3};
  ASSERT_TRUE(adapter.Write(store, 4));
  ASSERT_TRUE(adapter.Write(store, 1));
  Bytes data(9000, 0);
  unsigned int length = 4;
  ASSERT_TRUE(adapter.Read(data.data(), length));
  EXPECT_EQ(Bytes(data.begin(), data.begin() + 4),
            (Bytes{1, 2, 3, 0x23 ^ 0x5a}));
  // i2c-dev moves at most 8192 bytes at once; a short read gives its count.
  length = 9000;
  ASSERT_TRUE(adapter.Read(data.data(), length));
  EXPECT_EQ(length, 8192u);
  // Nobody answers at 0x51; the failed read leaves the length alone.
  ASSERT_TRUE(adapter.SetSlaveAddress(0x51));
  length = 4;
  EXPECT_TRUE(
      FailsWith(ENXIO, [&] { return adapter.Read(data.data(), length); }));
  EXPECT_EQ(length, 4u);
  EXPECT_TRUE(FailsWith(ENXIO, [&] { return adapter.Write(store, 4); }));
  // A combined transfer needs no slave address; one that nobody answers fails.
  ASSERT_TRUE(adapter.Create(1));
  unsigned char offset[] = {0x10}, reg[] = {0x00}, eeprom[4], temperature[2];
  i2c_msg messages[] = {{0x50, 0, 1, offset},
                        {0x50, I2C_M_RD, 4, eeprom},
                        {0x48, 0, 1, reg},
                        {0x48, I2C_M_RD, 2, temperature}};
  i2c_rdwr_ioctl_data transfer{messages, 4};
  ASSERT_TRUE(adapter.ReadWrite(transfer)) << strerror(errno);
  EXPECT_EQ(Bytes(eeprom, eeprom + 4), (Bytes{0x4a, 0x4b, 0x48, 0x49}));
  EXPECT_EQ(Bytes(temperature, temperature + 2), (Bytes{0x19, 0x80}));
  messages[2].addr = 0x49;
  EXPECT_TRUE(
      FailsWith(EREMOTEIO, [&] { return adapter.ReadWrite(transfer); }));
}

}  // namespace
}  // namespace qel_util
