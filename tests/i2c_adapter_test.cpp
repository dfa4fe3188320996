// The adapter on emulated i2c-dev buses (tests/i2c_emulator): each test runs
// again in a fresh process of this program with the emulator preloaded and
// the adapters 0, 1, 12, 100000000 and 999999999 present. Every bus has a
// 24c02 EEPROM at 0x50 (byte i holds i ^ 0x5a), a temperature sensor at 0x48
// reading 25.5 degrees (0x19 0x80) and an address held by a driver at 0x36.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "qel_util/hw.h"
#include "support/sandbox.h"
#include "support/target.h"

namespace qel_util {
namespace {

using qel_test::OpenDescriptors;
using qel_test::ReadFile;
using qel_test::Shell;

bool UnderEmulator() { return getenv("QEL_I2C_EMULATOR_ADAPTERS") != nullptr; }

[[noreturn]] void ExecUnderEmulator(const std::string& directory,
                                    const std::string& filter, int output) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  qel_test::SetTargetPreload(QEL_I2C_EMULATOR);
  setenv("QEL_I2C_EMULATOR_ADAPTERS", "0,1,12,100000000,999999999", 1);
  setenv("QEL_I2C_EMULATOR_STATE", directory.c_str(), 1);
  setenv("QEL_I2C_EMULATOR_LOG", (directory + "/log").c_str(), 1);
  // A sanitized program refuses a library preloaded ahead of its runtime.
  const char* asan = getenv("ASAN_OPTIONS");
  std::string options = std::string(asan ? asan : "") +
                        (asan && *asan ? ":" : "") + "verify_asan_link_order=0";
  setenv("ASAN_OPTIONS", options.c_str(), 1);
  unsetenv("GTEST_SHARD_INDEX");
  unsetenv("GTEST_TOTAL_SHARDS");
  char* const argv[] = {const_cast<char*>("i2c_adapter_test"),
                        const_cast<char*>(filter.c_str()), nullptr};
  qel_test::ExecTargetProgram("/proc/self/exe", argv);
  _exit(127);
}

// Runs the current test in a new process with the emulator preloaded and a
// bus state of its own, and fails unless it passed there.
void RerunUnderEmulator() {
  char directory[] = "/tmp/qel-i2c-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string filter = std::string("--gtest_filter=") +
                       test->test_suite_name() + "." + test->name();
  int channel[2];
  ASSERT_EQ(pipe2(channel, O_CLOEXEC), 0);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) ExecUnderEmulator(directory, filter, channel[1]);
  close(channel[1]);
  std::string output;
  char chunk[4096];
  ssize_t n;
  while ((n = read(channel[0], chunk, sizeof chunk)) > 0)
    output.append(chunk, n);
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  Shell(std::string("rm -rf ") + directory);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
              output.find("[  PASSED  ] 1 test.") != std::string::npos)
      << output;
}

#define QEL_ON_EMULATED_BUS() \
  do {                        \
    if (!UnderEmulator()) {   \
      RerunUnderEmulator();   \
      return;                 \
    }                         \
  } while (0)

// What the emulator saw opened and closed since the last call.
std::string TakeLog() {
  std::string path = getenv("QEL_I2C_EMULATOR_LOG");
  std::string log = ReadFile(path);
  truncate(path.c_str(), 0);
  return log;
}

std::vector<unsigned char> ReadBytes(I2cAdapter& adapter, unsigned int count) {
  std::vector<unsigned char> bytes(count);
  EXPECT_TRUE(adapter.Read(bytes.data(), count)) << strerror(errno);
  bytes.resize(count);
  return bytes;
}

using Bytes = std::vector<unsigned char>;

// Whether `call` returned false with errno `error`.
template <typename Call>
::testing::AssertionResult FailsWith(int error, Call call) {
  errno = 0;
  if (call()) return ::testing::AssertionFailure() << "it succeeded";
  if (errno != error)
    return ::testing::AssertionFailure() << "errno " << strerror(errno);
  return ::testing::AssertionSuccess();
}

TEST(I2cAdapter, CreateOpensTheNumberedNodeReadWriteOnly) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  adapter.Destroy();
  ASSERT_TRUE(adapter.Create(12));
  adapter.Destroy();
  EXPECT_EQ(TakeLog(),
            "open /dev/i2c-0 02\nclose /dev/i2c-0\n"
            "open /dev/i2c-12 02\nclose /dev/i2c-12\n");
}

TEST(I2cAdapter, MissingAdapterLeavesNothingOpen) {
  QEL_ON_EMULATED_BUS();
  const std::string before = OpenDescriptors();
  I2cAdapter adapter;
  EXPECT_TRUE(FailsWith(ENOENT, [&] { return adapter.Create(3); }));
  unsigned long functions = 0;
  EXPECT_TRUE(
      FailsWith(EBADF, [&] { return adapter.GetCapabilities(functions); }));
  // A failed Create also gives up the adapter held before.
  ASSERT_TRUE(adapter.Create(1));
  EXPECT_TRUE(FailsWith(ENOENT, [&] { return adapter.Create(4); }));
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(TakeLog(),
            "open /dev/i2c-3 02\nopen /dev/i2c-1 02\nclose /dev/i2c-1\n"
            "open /dev/i2c-4 02\n");
}

TEST(I2cAdapter, NumberTooLongForThePathIsRefusedNotCut) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(999999999));
  // Cut to 18 characters, "/dev/i2c-1000000000" would name the adapter
  // 100000000, which exists.
  EXPECT_TRUE(
      FailsWith(ENAMETOOLONG, [&] { return adapter.Create(1000000000); }));
  EXPECT_TRUE(
      FailsWith(ENAMETOOLONG, [&] { return adapter.Create(UINT_MAX); }));
  EXPECT_EQ(TakeLog(),
            "open /dev/i2c-999999999 02\nclose /dev/i2c-999999999\n");
}

TEST(I2cAdapter, SlaveAddressRefusals) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  EXPECT_TRUE(adapter.SetSlaveAddress(0x50));
  EXPECT_TRUE(adapter.SetSlaveAddress(0x7f));
  // 0x36 is held by a driver.
  EXPECT_TRUE(FailsWith(EBUSY, [&] { return adapter.SetSlaveAddress(0x36); }));
  EXPECT_TRUE(FailsWith(EINVAL, [&] { return adapter.SetSlaveAddress(0x80); }));
}

TEST(I2cAdapter, CapabilitiesAreTheAdaptersMask) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(12));
  unsigned long functions = 0;
  ASSERT_TRUE(adapter.GetCapabilities(functions));
  EXPECT_EQ(functions,
            static_cast<unsigned long>(I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL));
}

TEST(I2cAdapter, WriteThenReadTheAddressedChip) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  ASSERT_TRUE(adapter.SetSlaveAddress(0x50));
  const unsigned char pointer[] = {0x10};
  ASSERT_TRUE(adapter.Write(pointer, 1));
  EXPECT_EQ(ReadBytes(adapter, 4), (Bytes{0x4a, 0x4b, 0x48, 0x49}));
  const unsigned char store[] = {0x20, 1, 2, 3};
  ASSERT_TRUE(adapter.Write(store, 4));
  const unsigned char back[] = {0x20};
  ASSERT_TRUE(adapter.Write(back, 1));
  EXPECT_EQ(ReadBytes(adapter, 4), (Bytes{1, 2, 3, 0x23 ^ 0x5a}));
}

TEST(I2cAdapter, ShortTransfersSucceedWithTheirCount) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  ASSERT_TRUE(adapter.SetSlaveAddress(0x50));
  // i2c-dev moves at most 8192 bytes per read or write.
  std::vector<unsigned char> data(9000, 0);
  const unsigned char start[] = {0x00};
  ASSERT_TRUE(adapter.Write(start, 1));
  unsigned int length = 9000;
  ASSERT_TRUE(adapter.Read(data.data(), length));
  ASSERT_EQ(length, 8192u);
  for (unsigned int i = 0; i < length; ++i)
    ASSERT_EQ(data[i], (i % 256) ^ 0x5a) << "at " << i;
  // The first byte is the EEPROM offset; 8191 more fill one 8-byte page.
  data.assign(9000, 0xee);
  data[0] = 0x40;
  EXPECT_TRUE(adapter.Write(data.data(), 9000));
  ASSERT_TRUE(adapter.Write(data.data(), 1));
  Bytes expected(8, 0xee);
  expected.push_back(0x48 ^ 0x5a);
  EXPECT_EQ(ReadBytes(adapter, 9), expected);
}

TEST(I2cAdapter, UnacknowledgedTransfersFail) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  ASSERT_TRUE(adapter.SetSlaveAddress(0x51));  // nothing there
  unsigned char buffer[4] = {9, 9, 9, 9};
  unsigned int length = 4;
  EXPECT_TRUE(FailsWith(ENXIO, [&] { return adapter.Read(buffer, length); }));
  EXPECT_EQ(length, 4u);
  EXPECT_TRUE(FailsWith(ENXIO, [&] { return adapter.Write(buffer, 4); }));
}

TEST(I2cAdapter, CombinedTransferFillsTheReadMessages) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(1));  // no slave address needed
  unsigned char eepromOffset[] = {0x10};
  unsigned char eeprom[4] = {};
  unsigned char sensorRegister[] = {0x00};
  unsigned char temperature[2] = {};
  i2c_msg messages[] = {
      {0x50, 0, 1, eepromOffset},
      {0x50, I2C_M_RD, 4, eeprom},
      {0x48, 0, 1, sensorRegister},
      {0x48, I2C_M_RD, 2, temperature},
  };
  i2c_rdwr_ioctl_data transfer{messages, 4};
  ASSERT_TRUE(adapter.ReadWrite(transfer)) << strerror(errno);
  EXPECT_EQ(Bytes(eeprom, eeprom + 4), (Bytes{0x4a, 0x4b, 0x48, 0x49}));
  EXPECT_EQ(Bytes(temperature, temperature + 2), (Bytes{0x19, 0x80}));

  messages[2].addr = 0x49;  // nobody answers
  EXPECT_TRUE(
      FailsWith(EREMOTEIO, [&] { return adapter.ReadWrite(transfer); }));
}

TEST(I2cAdapter, CombinedTransferLimits) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(1));
  std::vector<unsigned char> big(8193);
  std::vector<i2c_msg> messages(43, i2c_msg{0x50, I2C_M_RD, 1, big.data()});
  i2c_rdwr_ioctl_data transfer{messages.data(), 42};
  EXPECT_TRUE(adapter.ReadWrite(transfer)) << strerror(errno);
  transfer.nmsgs = 43;
  EXPECT_TRUE(FailsWith(EINVAL, [&] { return adapter.ReadWrite(transfer); }));
  transfer.nmsgs = 1;
  messages[0].len = 8192;
  EXPECT_TRUE(adapter.ReadWrite(transfer)) << strerror(errno);
  messages[0].len = 8193;
  EXPECT_TRUE(FailsWith(EINVAL, [&] { return adapter.ReadWrite(transfer); }));
}

TEST(I2cAdapter, EachObjectKeepsItsOwnSlave) {
  QEL_ON_EMULATED_BUS();
  I2cAdapter eeprom;
  I2cAdapter sensor;
  ASSERT_TRUE(eeprom.Create(0));
  ASSERT_TRUE(sensor.Create(0));
  ASSERT_TRUE(eeprom.SetSlaveAddress(0x50));
  ASSERT_TRUE(sensor.SetSlaveAddress(0x48));
  const unsigned char zero[] = {0x00};
  ASSERT_TRUE(eeprom.Write(zero, 1));
  ASSERT_TRUE(sensor.Write(zero, 1));
  EXPECT_EQ(ReadBytes(sensor, 2), (Bytes{0x19, 0x80}));
  EXPECT_EQ(ReadBytes(eeprom, 2), (Bytes{0x5a, 0x5b}));
}

// A pipe takes the number the adapter had: nothing done on the closed
// adapter may reach it.
TEST(I2cAdapter, MisuseNeverReachesAnotherDescriptor) {
  QEL_ON_EMULATED_BUS();
  const std::string before = OpenDescriptors();
  const unsigned char byte[] = {0x42};
  unsigned long functions = 0;
  unsigned int length = 1;
  unsigned char buffer[1];
  i2c_rdwr_ioctl_data transfer{nullptr, 0};
  {
    I2cAdapter adapter;
    adapter.Destroy();  // before Create: nothing to close
    ASSERT_TRUE(adapter.Create(0));
    ASSERT_TRUE(adapter.Create(1));  // gives up adapter 0 first
    adapter.Destroy();
    int pipeEnds[2];
    ASSERT_EQ(pipe2(pipeEnds, O_NONBLOCK), 0);
    adapter.Destroy();  // must not close the pipe
    EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.Write(byte, 1); }));
    EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.Read(buffer, length); }));
    EXPECT_EQ(length, 1u);
    EXPECT_TRUE(
        FailsWith(EBADF, [&] { return adapter.SetSlaveAddress(0x50); }));
    EXPECT_TRUE(
        FailsWith(EBADF, [&] { return adapter.GetCapabilities(functions); }));
    EXPECT_TRUE(FailsWith(EBADF, [&] { return adapter.ReadWrite(transfer); }));
    EXPECT_NE(fcntl(pipeEnds[0], F_GETFD), -1);
    EXPECT_NE(fcntl(pipeEnds[1], F_GETFD), -1);
    EXPECT_EQ(read(pipeEnds[0], buffer, 1), -1);  // nothing was written
    EXPECT_EQ(errno, EAGAIN);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
    ASSERT_TRUE(adapter.Create(12));  // the destructor closes it
  }
  {
    I2cAdapter unused;  // never created: its destructor closes nothing
    EXPECT_TRUE(FailsWith(EBADF, [&] { return unused.Write(byte, 1); }));
  }
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(TakeLog(),
            "open /dev/i2c-0 02\nclose /dev/i2c-0\nopen /dev/i2c-1 02\n"
            "close /dev/i2c-1\nopen /dev/i2c-12 02\nclose /dev/i2c-12\n");
}

// The i2c-tools programs, on the same emulated bus, see what the adapter
// sees: the bus state is shared through the emulator's state directory.
TEST(I2cAdapter, ToolsAndAdapterSeeTheSameBytes) {
  QEL_REQUIRE_NO_EMULATOR(
      "the build machine's i2c-tools cannot load the target's bus emulator");
  QEL_ON_EMULATED_BUS();
  for (const char* tool : {"i2cdetect", "i2cget", "i2cset", "i2ctransfer"})
    if (Shell(std::string("command -v ") + tool + " >/dev/null") != 0)
      GTEST_SKIP() << tool << " is not installed";
  std::string out;
  ASSERT_EQ(Shell("i2cdetect -F 0", &out), 0);
  EXPECT_NE(out.find("\nI2C                              yes\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("\nSMBus Block Read                 no\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("\nI2C Block Read                   yes\n"),
            std::string::npos)
      << out;

  ASSERT_EQ(Shell("i2cget -y 0 0x50 0x10", &out), 0);
  EXPECT_EQ(out, "0x4a\n");
  ASSERT_EQ(Shell("i2cset -y 0 0x50 0x10 0xab"), 0);
  I2cAdapter adapter;
  ASSERT_TRUE(adapter.Create(0));
  ASSERT_TRUE(adapter.SetSlaveAddress(0x50));
  const unsigned char pointer[] = {0x10};
  ASSERT_TRUE(adapter.Write(pointer, 1));
  EXPECT_EQ(ReadBytes(adapter, 2), (Bytes{0xab, 0x4b}));

  const unsigned char store[] = {0x30, 0xde, 0xad, 0xbe, 0xef};
  ASSERT_TRUE(adapter.Write(store, 5));
  ASSERT_EQ(Shell("i2ctransfer -y 0 w1@0x50 0x30 r4", &out), 0);
  EXPECT_EQ(out, "0xde 0xad 0xbe 0xef\n");
  ASSERT_EQ(Shell("i2ctransfer -y 0 w1@0x50 0x10 r4", &out), 0);
  EXPECT_EQ(out, "0xab 0x4b 0x48 0x49\n");

  // SMBus words come least significant byte first.
  ASSERT_EQ(Shell("i2cget -y 0 0x48 0x00 w", &out), 0);
  EXPECT_EQ(out, "0x8019\n");
  EXPECT_NE(Shell("i2cget -y 0 0x51 0x00 2>/dev/null"), 0);
  EXPECT_NE(Shell("i2cget -y 7 0x50 0x00 2>/dev/null"), 0);
}

}  // namespace
}  // namespace qel_util
