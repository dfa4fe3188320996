// The RPMB reader and the hardware-ID record of block 0, run by the probe
// program against the emulated eMMC (qel-devsim's RPMB emulator), which mmc-utils
// reads as well; in-process against a node that is no MMC device or none.

#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qel_util/hw.h"
#include "qel_util/system.h"
#include "devsim/device_files.h"
#include "support/host_tool.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"
#include "support/syslog_capture.h"
#include "support/target.h"

namespace qel_test {
namespace {

using qel_util::MmcPrivate;

struct RpmbRun { std::string out, err, data; };

// Runs `command` ("$PROBE" is the probe, "$D" a data file) with the emulated
// node serving `image` (none when empty); `env` sets QEL_RPMB_BLOCKS/RESULTS.
// Gives standard output and error and the data file.
RpmbRun RunOnRpmb(const std::string& image, const std::string& command,
                  const std::string& env = "") {
  const std::string path = "/mnt/rpmb.img";
  unlink(path.c_str());
  unlink("/mnt/data");
  if (!image.empty()) WriteFile(path, image);
  const char* asan = std::getenv("ASAN_OPTIONS");
  RpmbRun run;
  Shell("export D=/mnt/data PROBE='" QEL_RPMB_PROBE "' " +
            TargetPreloadAssignment(QEL_RPMB_EMULATOR) + " ASAN_OPTIONS='" +
            (asan ? std::string(asan) + ":" : "") +
            "verify_asan_link_order=0:detect_leaks=0' QEL_RPMB_IMAGE=" + path +
            " " + env + "; " + command + " 2>/mnt/err",
        &run.out);
  run.err = ReadFile("/mnt/err");
  run.data = ReadFile("/mnt/data");
  return run;
}

RpmbRun ProbeRead(const std::string& image, const std::string& range,
                  const std::string& env = "") {
  return RunOnRpmb(image, "\"$PROBE\" read " + range + " $D", env);
}

// Syslog lines as "E text|" (LOG_USER|LOG_ERR) or "W text|" (LOG_WARNING).
std::string E(const std::string& text) { return "E " + text + "|"; }
std::string Logged(SyslogCapture& syslog, size_t count = 0) {
  std::string text;
  for (const SyslogLine& line : syslog.Take(count))
    text += (line.priority == (LOG_USER | LOG_ERR)       ? "E "
             : line.priority == (LOG_USER | LOG_WARNING) ? "W "
                                                         : "? ") +
            line.message + "|";
  return text;
}

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

const std::string kNoFd = "# Failed to read data: invalid device fd [ID_IO]\n";
const std::string kIoctlFailed = "# Failed to read data: error -1 [ID_IO]\n";
const std::string kOutOfRange = "# Failed to read data: out of range [ID_IO]\n";
std::string Internal(const std::string& text) {
  return "# Failed to read data: internal error '" + text + "' [ID_IO]\n";
}

// Without a node nothing is read; a regular file at the node's path opens
// but refuses the ioctl, so whatever fails otherwise never reached it.
TEST(RpmbReader, ChecksTheNodeAndArgumentsBeforeTheIoctl) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    StderrCapture err;
    MmcPrivate::DataFrame read{};
    read.reqResp[1] = 4;
    std::vector<MmcPrivate::DataFrame> responses(2);
    std::vector<unsigned char> buffer(3, 9);
    EXPECT_EQ(MmcPrivate().RunCommand(&read, responses), -9);
    EXPECT_EQ(MmcPrivate().ReadData(0, 1, buffer), 1);

    ASSERT_EQ(WriteFile("/dev/mmcblk0rpmb", ""), "");
    MmcPrivate mmc;
    EXPECT_EQ(mmc.RunCommand(&read, responses), -1);
    if (TargetEmulator().empty()) {  // qemu answers ENOSYS itself
      EXPECT_EQ(errno, ENOTTY);
    }
    EXPECT_EQ(mmc.ReadData(510, 1, buffer), 1);  // in range: reaches the ioctl
    for (auto range : {std::make_pair(511, 1), std::make_pair(0, 512),
                       std::make_pair(0, 0)})
      EXPECT_EQ(mmc.ReadData(range.first, range.second, buffer), 1);
    EXPECT_EQ(buffer, std::vector<unsigned char>(3, 9));
    EXPECT_EQ(err.Text(), kNoFd + kIoctlFailed + kOutOfRange +
                              kOutOfRange + kOutOfRange);
    EXPECT_EQ(Logged(syslog, 5), E(kNoFd) + E(kIoctlFailed) +
                                     E(kOutOfRange) + E(kOutOfRange) +
                                     E(kOutOfRange));
    closelog();
  });
}

// Only the masked result of the last frame counts: the write counter's
// expiry (0x80) and failures in earlier frames leave a read good.
TEST(RpmbReader, ReadsBlocksInOneIoctlUnlessTheLastFrameFailed) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    const std::string image = PartitionImage();
    struct {
      const char *range, *results;
      size_t at, size;                // a failure: its result code and 0
      const char* failure = nullptr;  // nullptr: read
    } cases[] = {
        {"2 3", "", 512, 768}, {"510 1", "", 510 * 256, 256},  // the last
        {"0 511", "", 0, 511 * 256},                          // the longest
        {"1 3", "0x0080", 256, 768}, {"1 3", "5,7,0", 256, 768},
        {"1 3", "0x0085", 5, 0, "Write failure"},
        {"1 3", "4", 4, 0, "Address failure"},
        {"1 3", "0,0,6", 6, 0, "Read failure"},
        {"1 3", "0x00FF", 127, 0, "Unknown"},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.range) + " " + c.results);
      const RpmbRun run =
          ProbeRead(image, c.range, std::string("QEL_RPMB_RESULTS=") + c.results);
      const std::string message = c.failure ? Internal(c.failure) : "";
      EXPECT_EQ(run.out, c.failure ? std::to_string(c.at) + " 0\n"
                                   : "0 " + std::to_string(c.size) + "\n");
      EXPECT_EQ(run.err, message);
      EXPECT_EQ(Logged(syslog, c.failure ? 1 : 0), c.failure ? E(message) : "");
      if (!c.failure) {
        EXPECT_TRUE(run.data == image.substr(c.at, c.size));
      }
    }
  });
}

TEST(RpmbReader, MmcUtilsReadsTheSameBytesFromTheEmulator) {
  QEL_REQUIRE_NO_EMULATOR(
      "the build machine's mmc-utils cannot load the target's RPMB emulator");
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_HOST_PROGRAM("mmc", "mmc-utils");
  RunInSandbox([] {
    const std::string image = PartitionImage();
    const RpmbRun mmc =
        RunOnRpmb(image, "mmc rpmb read-block /dev/mmcblk0rpmb 0x1FB 4 $D");
    EXPECT_EQ(mmc.err, "");
    EXPECT_TRUE(mmc.data == image.substr(0x1FB * 256, 1024));
  });
}

// The simulator's record writer, whose CRC-32 is checked against zlib.
constexpr auto Record = &qel_devsim::HardwareIdRecord;

// GetDeviceID logs the record's own failure code, so its answer and log
// cover GetHardwareID's codes as well.
TEST(HardwareId, RecordInBlockZero) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    const std::string x(246, 'x');
    const std::string noKey = E("HWID: invalid ID, err 10");
    struct {
      std::string block0, results, deviceId, err, logged;
    } cases[] = {
        {Record("HWID=A1B2C3"), "", "0 [A1B2C3]", "", ""},
        {Record("HWID="), "", "0 []", "", ""},
        {Record("SN=1\nXHWID=ab\nHWID=c"), "", "0 [ab\nHWID=c]", "", ""},
        // 252 characters: the CRC covers the last one, the ID does not.
        {Record("HWID=" + x + "Z"), "", "0 [" + x + "]", "", ""},
        {Record(std::string(247, '-') + "HWID="), "", "2 []", "", noKey},
        {Record("hwid=A1B2C3 HWID A1"), "", "2 []", "", noKey},
        {std::string(256, '\0'), "", "2 []",
         "# Failed to get HW ID: invalid CRC\n", E("HWID: invalid ID, err 3")},
        {Record("HWID=A1B2C3"), "0x0007", "1 []",
         Internal("No authentication Key"),
         E(Internal("No authentication Key")) + "W HWID: not initialized|"},
        {"", "", "2 []", kNoFd, E(kNoFd) + E("HWID: invalid ID, err 2")},
    };
    for (const auto& c : cases) {
      const std::string image =
          c.block0.empty() ? "" : c.block0 + std::string(256, 'U');
      const RpmbRun run = RunOnRpmb(image, "\"$PROBE\" deviceid",
                                    "QEL_RPMB_RESULTS=" + c.results);
      EXPECT_EQ(run.out, c.deviceId + "\n") << c.block0;
      EXPECT_EQ(run.err, c.err) << c.block0;
      EXPECT_EQ(Logged(syslog), c.logged) << c.block0;
    }
    // The record reader's own call empties the caller's stale ID.
    EXPECT_EQ(RunOnRpmb("", "\"$PROBE\" hwid").out, "2 []\n");
    // The NOHWID flag: anywhere, even inside a word, in the command line's
    // first 383 bytes (their limit is the command line reader's).
    for (const auto& c : {std::make_pair("quiet opt=xNOHWIDy\n", true),
                          {"quiet nohwid NOHWI D\n", false}}) {
      ASSERT_EQ(MountFile("/proc/cmdline", c.first), "");
      EXPECT_EQ(qel_util::system::hasFlagNOHWID(), c.second) << c.first;
    }
  });
}

}  // namespace
}  // namespace qel_test
