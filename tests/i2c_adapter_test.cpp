// The adapter on emulated i2c-dev buses (tests/i2c_emulator): each test runs
// again in a child of this program with the emulator preloaded. Where the
// kernel has an i2c-stub adapter (the armhf machine of scripts/armhf-vm.sh),
// also on the real i2c-dev driver.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
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

// The number of an i2c-stub adapter, or -1.
int StubAdapter() {
  DIR* dir = opendir("/sys/class/i2c-adapter");
  int found = -1;
  while (dirent* entry = dir ? readdir(dir) : nullptr) {
    const std::string name = entry->d_name;
    if (name.rfind("i2c-", 0) == 0 &&
        qel_devsim::ReadFile("/sys/class/i2c-adapter/" + name + "/name") ==
            "SMBus stub driver\n")
      found = std::atoi(name.c_str() + 4);
  }
  if (dir) closedir(dir);
  return found;
}

// Writes a sysfs attribute; true when all of it was taken.
bool WriteAttribute(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const bool ok = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
  if (fd >= 0) close(fd);
  return ok;
}

// i2c-stub is SMBus only: i2c-dev's plain read and write and combined
// transfers need the adapter's own I2C transfer, and the kernel emulates SMBus
// over I2C but never I2C over SMBus, so no byte reaches a chip through
// Write/Read; the chip itself answers SMBus. The armhf machine loads the stub
// with chips at 0x50 and 0x51 and the at24 driver.
TEST(I2cAdapter, RealDriverOnAnSmbusOnlyAdapter) {
  const int number = StubAdapter();
  if (number < 0)
    GTEST_SKIP() << "no i2c-stub adapter here (scripts/armhf-vm.sh loads one "
                    "on the armhf kernel)";
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(static_cast<unsigned int>(number))) << strerror(errno);
  unsigned long functions = 0;
  ASSERT_TRUE(adapter.GetCapabilities(functions));
  EXPECT_EQ(functions & I2C_FUNC_I2C, 0u);
  EXPECT_NE(functions & I2C_FUNC_SMBUS_BYTE_DATA, 0u);

  for (unsigned int address : {0x80u, 0x3ffu})
    EXPECT_TRUE(FailsWith(EINVAL, [&] { return adapter.SetSlaveAddress(address); }))
        << address;
  ASSERT_TRUE(adapter.SetSlaveAddress(0x50));
  const unsigned char store[] = {0x10, 0xa5};
  EXPECT_TRUE(FailsWith(EOPNOTSUPP, [&] { return adapter.Write(store, 2); }));
  unsigned char data[4] = {};
  unsigned int length = 4;
  EXPECT_TRUE(FailsWith(EOPNOTSUPP, [&] { return adapter.Read(data, length); }));
  EXPECT_EQ(length, 4u);
  i2c_msg message{0x50, 0, 2, const_cast<unsigned char*>(store)};
  i2c_rdwr_ioctl_data transfer{&message, 1};
  EXPECT_TRUE(FailsWith(EOPNOTSUPP, [&] { return adapter.ReadWrite(transfer); }));
  // The chip is there: SMBus on the same descriptor stores and returns a byte.
  const int fd = open(("/dev/i2c-" + std::to_string(number)).c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ioctl(fd, I2C_SLAVE, 0x50), 0);
  i2c_smbus_data byte{};
  byte.byte = 0xa5;
  i2c_smbus_ioctl_data request{I2C_SMBUS_WRITE, 0x10, I2C_SMBUS_BYTE_DATA, &byte};
  EXPECT_EQ(ioctl(fd, I2C_SMBUS, &request), 0) << strerror(errno);
  byte.byte = 0;
  request.read_write = I2C_SMBUS_READ;
  EXPECT_EQ(ioctl(fd, I2C_SMBUS, &request), 0) << strerror(errno);
  EXPECT_EQ(byte.byte, 0xa5);
  close(fd);

  // A chip that a driver has claimed is refused.
  const std::string bus = "/sys/bus/i2c/devices/i2c-" + std::to_string(number);
  ASSERT_TRUE(WriteAttribute(bus + "/new_device", "24c02 0x51\n")) << strerror(errno);
  const std::string driver = bus + "/" + std::to_string(number) + "-0051/driver";
  EXPECT_TRUE(qel_test::Eventually([&] { return access(driver.c_str(), F_OK) == 0; }))
      << "at24 did not take the chip";
  EXPECT_TRUE(FailsWith(EBUSY, [&] { return adapter.SetSlaveAddress(0x51); }));
  EXPECT_TRUE(WriteAttribute(bus + "/delete_device", "0x51\n")) << strerror(errno);
  EXPECT_TRUE(adapter.SetSlaveAddress(0x51)) << "free again";
  adapter.Destroy();
}

}  // namespace
}  // namespace qel_util
