// The RPMB reader against the emulated eMMC (tests/rpmb_emulator), against a
// node that is no MMC device, and without a node; the emulator itself is
// checked against mmc-utils.

#include <linux/major.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <syslog.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "support/target.h"
#include "tests/rpmb_emulator/emulated_rpmb.h"

namespace qel_test {
namespace {

using qel_util::MmcPrivate;
using Frame = MmcPrivate::DataFrame;

constexpr int kUserErr = LOG_USER | LOG_ERR;

// 512 blocks whose bytes all differ between blocks and within a block.
std::string PartitionImage() {
  std::string image;
  for (int block = 0; block < 512; ++block) {
    image += static_cast<char>(block >> 8);
    image += static_cast<char>(block);
    for (int i = 2; i < 256; ++i) image += static_cast<char>(block * 7 + i);
  }
  return image;
}

Frame Request(uint16_t type) {
  Frame frame{};
  frame.reqResp[0] = static_cast<uint8_t>(type >> 8);
  frame.reqResp[1] = static_cast<uint8_t>(type);
  return frame;
}

bool AllZero(const std::vector<Frame>& frames) {
  for (const Frame& frame : frames) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&frame);
    for (size_t i = 0; i < sizeof frame; ++i)
      if (bytes[i] != 0) return false;
  }
  return true;
}

// The probe's ReadData: its "<result> <size>" line, the buffer in `data`.
RpmbRun ProbeRead(const RpmbDevice& device, const std::string& address,
                  const std::string& count, std::string* data = nullptr) {
  RpmbRun run = RunOnRpmb(device, "\"$PROBE\" read " + address + " " + count +
                                      " " + ScratchPath("data.bin"));
  if (data) *data = ReadFile(ScratchPath("data.bin"));
  return run;
}

TEST(RpmbReader, ErrorStrings) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    MmcPrivate mmc;
    const char* texts[] = {"Unknown",        "General failure",
                           "Authentication failure", "Counter failure",
                           "Address failure", "Write failure",
                           "Read failure",    "No authentication Key",
                           "Unknown"};
    for (int code = 0; code <= 8; ++code)
      EXPECT_EQ(mmc.GetErrorString(static_cast<MmcPrivate::ResultType>(code)),
                texts[code]) << code;
    EXPECT_EQ(mmc.GetErrorString(static_cast<MmcPrivate::ResultType>(127)),
              "Unknown");
  });
}

TEST(RpmbReader, PrintErrorMsgGoesToStderrThenSyslog) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    MmcPrivate mmc;
    StderrCapture err;
    mmc.PrintErrorMsg("# %s %d%% [ID_IO]\n", "at", 50);
    EXPECT_EQ(err.Take(), "# at 50% [ID_IO]\n");
    auto lines = syslog.Take(1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, kUserErr);
    EXPECT_EQ(lines[0].message, "# at 50% [ID_IO]\n");
    closelog();  // the library logs through the process's connection
  });
}

TEST(RpmbReader, WithoutDeviceNode) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    MmcPrivate mmc;
    const Frame request = Request(0x0004);
    std::vector<Frame> responses(1);
    EXPECT_EQ(mmc.RunCommand(&request, responses), -9);
    std::vector<unsigned char> buffer(5, 1);
    StderrCapture err;
    EXPECT_EQ(mmc.ReadData(0, 1, buffer), 1);
    EXPECT_EQ(err.Take(), "# Failed to read data: invalid device fd [ID_IO]\n");
    EXPECT_EQ(buffer, std::vector<unsigned char>(5, 1));
    auto lines = syslog.Take(1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, kUserErr);
    EXPECT_EQ(lines[0].message,
              "# Failed to read data: invalid device fd [ID_IO]\n");
    closelog();
  });
}

// A regular file at the node's path opens but refuses the ioctl (ENOTTY):
// whatever returns something else never reached the ioctl.
TEST(RpmbReader, ChecksArgumentsBeforeTheIoctl) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(WriteFile("/dev/mmcblk0rpmb", ""));
    MmcPrivate mmc;
    const Frame read = Request(0x0004);
    const Frame write = Request(0x0003);
    std::vector<Frame> responses(2);
    std::vector<Frame> none;
    EXPECT_EQ(mmc.RunCommand(nullptr, responses), -22);
    EXPECT_EQ(mmc.RunCommand(&read, none), -22);
    std::memset(responses.data(), 0xAB, 2 * sizeof(Frame));
    EXPECT_EQ(mmc.RunCommand(&write, responses), -22);
    EXPECT_TRUE(AllZero(responses));
    errno = 0;
    EXPECT_EQ(mmc.RunCommand(&read, responses), -1);
    // qemu-user answers an ioctl it does not know with ENOSYS itself.
    if (TargetEmulator().empty()) {
      EXPECT_EQ(errno, ENOTTY);
    }

    SyslogCapture syslog;
    StderrCapture err;
    std::vector<unsigned char> buffer(3, 9);
    EXPECT_EQ(mmc.ReadData(510, 1, buffer), 1);  // in range: reaches ioctl
    for (auto range : {std::make_pair(511, 1), std::make_pair(0, 512),
                       std::make_pair(0, 0), std::make_pair(65535, 1)}) {
      EXPECT_EQ(mmc.ReadData(range.first, range.second, buffer), 1);
    }
    EXPECT_EQ(buffer, std::vector<unsigned char>(3, 9));
    const std::string outOfRange =
        "# Failed to read data: out of range [ID_IO]\n";
    EXPECT_EQ(err.Take(), "# Failed to read data: error -1 [ID_IO]\n" +
                              outOfRange + outOfRange + outOfRange +
                              outOfRange);
    auto lines = syslog.Take(5);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].message, "# Failed to read data: error -1 [ID_IO]\n");
    for (const auto& line : lines) EXPECT_EQ(line.priority, kUserErr);
    EXPECT_EQ(lines[4].message, outOfRange);
    closelog();
  });
}

TEST(RpmbReader, ReadsBlocksInOneIoctl) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    RpmbDevice device;
    device.image = PartitionImage();
    std::string data;
    RpmbRun run = ProbeRead(device, "2", "3", &data);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "0 768\n");
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(data == device.image.substr(2 * 256, 768));
    EXPECT_EQ(run.trace,
              "multi 2; cmd25 w flags=0x35 arg=0x0 512x1 req=0x0004 addr=2 "
              "count=0; cmd18 r flags=0x35 arg=0x0 512x3; -> 0\n");

    run = ProbeRead(device, "510", "1", &data);  // the last readable block
    EXPECT_EQ(run.out, "0 256\n");
    EXPECT_TRUE(data == device.image.substr(510 * 256, 256));
    run = ProbeRead(device, "0", "511", &data);  // the longest read
    EXPECT_EQ(run.out, "0 130816\n");
    EXPECT_TRUE(data == device.image.substr(0, 511 * 256));
  });
}

TEST(RpmbReader, MmcUtilsReadsTheSameBytesFromTheEmulator) {
  QEL_REQUIRE_NO_EMULATOR(
      "the build machine's mmc-utils cannot load the target's RPMB emulator");
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    if (Shell("command -v mmc >/dev/null") != 0)
      GTEST_SKIP() << "mmc-utils is not installed";
    RpmbDevice device;
    device.image = PartitionImage();
    const std::string file = ScratchPath("mmc.bin");
    // mmc-utils is not built with the sanitizer: no leak report from it.
    RpmbRun run = RunOnRpmb(
        device, "ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 mmc rpmb "
                "read-block /dev/mmcblk0rpmb 0x1FB 4 " + file);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.trace.find("cmd18 r flags=0xb5 arg=0x0 512x4; -> 0"),
              std::string::npos) << run.trace;
    std::string probed;
    EXPECT_EQ(ProbeRead(device, "0x1FB", "4", &probed).out, "0 1024\n");
    EXPECT_EQ(ReadFile(file).size(), 1024u);
    EXPECT_TRUE(ReadFile(file) == probed);
    EXPECT_TRUE(probed == device.image.substr(0x1FB * 256, 1024));

    // Past the end of a 16-block partition, both get an address failure.
    device.blocks = "16";
    run = RunOnRpmb(device, "ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 mmc "
                            "rpmb read-block /dev/mmcblk0rpmb 15 2 " + file);
    EXPECT_NE(run.status, 0);
    EXPECT_EQ(run.out, "RPMB operation failed, retcode 0x0004\n");
    run = ProbeRead(device, "15", "2");
    EXPECT_EQ(run.out, "4 0\n");
    EXPECT_EQ(run.err,
              "# Failed to read data: internal error 'Address failure' "
              "[ID_IO]\n");
  });
}

TEST(RpmbReader, OnlyTheMaskedResultOfTheLastFrameCounts) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    RpmbDevice device;
    device.image = PartitionImage();
    std::string data;
    device.results = "0x0080";  // write counter expired, read OK
    EXPECT_EQ(ProbeRead(device, "1", "2", &data).out, "0 512\n");
    EXPECT_TRUE(data == device.image.substr(256, 512));
    device.results = "5,7,0";   // failures in earlier frames only
    EXPECT_EQ(ProbeRead(device, "1", "3").out, "0 768\n");
    EXPECT_TRUE(syslog.Take().empty());

    struct Case {
      const char* results;
      const char* out;
      const char* text;
    } cases[] = {
        {"0x0085", "5 0\n", "Write failure"},
        {"0,0,6", "6 0\n", "Read failure"},
        {"0x0007", "7 0\n", "No authentication Key"},
        {"9", "9 0\n", "Unknown"},
        {"0x00FF", "127 0\n", "Unknown"},
    };
    for (const Case& c : cases) {
      device.results = c.results;
      RpmbRun run = ProbeRead(device, "1", "3");
      EXPECT_EQ(run.out, c.out) << c.results;
      const std::string message = std::string("# Failed to read data: "
                                              "internal error '") +
                                  c.text + "' [ID_IO]\n";
      EXPECT_EQ(run.err, message);
      auto lines = syslog.Take(1);
      ASSERT_EQ(lines.size(), 1u) << c.results;
      EXPECT_EQ(lines[0].priority, kUserErr);
      EXPECT_EQ(lines[0].message, message);
    }
  });
}

}  // namespace
}  // namespace qel_test
