// The hardware-ID record in RPMB block 0, served by the RPMB emulator to the
// probe program, and the NOHWID flag of the kernel command line.

#include <syslog.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "tests/rpmb_emulator/emulated_rpmb.h"

namespace qel_test {
namespace {

constexpr int kUserErr = LOG_USER | LOG_ERR;
constexpr int kUserWarning = LOG_USER | LOG_WARNING;

// CRC-32 (reflected, polynomial 0xEDB88320) one bit at a time: slow, but it
// shares nothing with the library's table-driven one.
uint32_t BitwiseCrc32(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (const unsigned char byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

// A 256-byte record holding `text` (zero-padded) behind its little-endian
// CRC-32.
std::string Record(const std::string& text) {
  std::string body = text;
  body.resize(252, '\0');
  const uint32_t crc = BitwiseCrc32(body);
  std::string record;
  for (int shift = 0; shift < 32; shift += 8)
    record += static_cast<char>(crc >> shift);
  return record + body;
}

RpmbDevice DeviceWith(const std::string& block0) {
  RpmbDevice device;
  device.image = block0 + std::string(256, '\x55');
  return device;
}

using Logged = std::vector<std::pair<int, std::string>>;

// The syslog lines, priority and text, in order.
void ExpectLogged(const std::vector<SyslogLine>& lines, const Logged& expected) {
  ASSERT_EQ(lines.size(), expected.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].priority, expected[i].first) << i;
    EXPECT_EQ(lines[i].message, expected[i].second) << i;
  }
}

struct Query {
  std::string hwid;      // probe "hwid": "<code> [<id>]"
  std::string deviceId;  // probe "deviceid": "<error> [<id>]"
  std::string err;       // standard error of the deviceid run
  std::vector<SyslogLine> syslog;  // of the deviceid run
};

Query Ask(SyslogCapture& syslog, const RpmbDevice& device) {
  Query query;
  query.hwid = RunOnRpmb(device, "\"$PROBE\" hwid").out;
  syslog.Take();
  RpmbRun run = RunOnRpmb(device, "\"$PROBE\" deviceid");
  query.deviceId = run.out;
  query.err = run.err;
  query.syslog = syslog.Take();
  return query;
}

TEST(HardwareId, GoodRecords) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    struct Case {
      std::string text;
      std::string id;
    } cases[] = {
        {"HWID=A1B2C3", "A1B2C3"},
        {"HWID=", ""},
        {"XHWID=7", "7"},
        {"SN=1\nHWID=first HWID=second", "first HWID=second"},
        {"HWID=ab\nNEXT=1", "ab\nNEXT=1"},
    };
    for (const Case& c : cases) {
      Query query = Ask(syslog, DeviceWith(Record(c.text)));
      EXPECT_EQ(query.hwid, "0 [" + c.id + "]\n") << c.text;
      EXPECT_EQ(query.deviceId, "0 [" + c.id + "]\n") << c.text;
      EXPECT_EQ(query.err, "");
      EXPECT_TRUE(query.syslog.empty()) << c.text;
    }
  });
}

TEST(HardwareId, TextEndsBeforeTheLastByteOfTheRecord) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    // 252 non-zero characters: the CRC covers the last one, the ID does not.
    const std::string text = "HWID=" + std::string(246, 'x') + "Z";
    Query query = Ask(syslog, DeviceWith(Record(text)));
    EXPECT_EQ(query.deviceId, "0 [" + std::string(246, 'x') + "]\n");
    // A key whose "=" falls on the last byte is cut and not found.
    query = Ask(syslog, DeviceWith(Record(std::string(247, '-') + "HWID=")));
    EXPECT_EQ(query.hwid, "10 []\n");
  });
}

TEST(HardwareId, BadRecords) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    // A block never written: CRC 0 stored, 0xA66359F1 computed.
    Query query = Ask(syslog, DeviceWith(std::string(256, '\0')));
    EXPECT_EQ(query.hwid, "3 []\n");
    EXPECT_EQ(query.deviceId, "2 []\n");
    EXPECT_EQ(query.err, "# Failed to get HW ID: invalid CRC\n");
    ExpectLogged(query.syslog, {{kUserErr, "HWID: invalid ID, err 3"}});

    // One byte behind the text changed after the CRC was made.
    std::string record = Record("HWID=A1B2C3");
    record[255] = 1;
    EXPECT_EQ(Ask(syslog, DeviceWith(record)).hwid, "3 []\n");

    query = Ask(syslog, DeviceWith(Record("hwid=A1B2C3 HWID A1")));
    EXPECT_EQ(query.hwid, "10 []\n");
    EXPECT_EQ(query.deviceId, "2 []\n");
    EXPECT_EQ(query.err, "");
    ExpectLogged(query.syslog, {{kUserErr, "HWID: invalid ID, err 10"}});
  });
}

TEST(HardwareId, DeviceFailures) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SyslogCapture syslog;
    RpmbDevice device = DeviceWith(Record("HWID=A1B2C3"));
    device.results = "0x0007";
    Query query = Ask(syslog, device);
    EXPECT_EQ(query.hwid, "1 []\n");
    EXPECT_EQ(query.deviceId, "1 []\n");
    const std::string noKey =
        "# Failed to read data: internal error 'No authentication Key' "
        "[ID_IO]\n";
    EXPECT_EQ(query.err, noKey);
    ExpectLogged(query.syslog, {{kUserErr, noKey},
                                {kUserWarning, "HWID: not initialized"}});

    device.results = "0x0006";
    query = Ask(syslog, device);
    EXPECT_EQ(query.hwid, "2 []\n");
    EXPECT_EQ(query.deviceId, "2 []\n");
    ExpectLogged(query.syslog,
                 {{kUserErr, "# Failed to read data: internal error 'Read "
                             "failure' [ID_IO]\n"},
                  {kUserErr, "HWID: invalid ID, err 2"}});

    device.present = false;
    query = Ask(syslog, device);
    EXPECT_EQ(query.hwid, "2 []\n");
    EXPECT_EQ(query.deviceId, "2 []\n");
    const std::string noDevice =
        "# Failed to read data: invalid device fd [ID_IO]\n";
    EXPECT_EQ(query.err, noDevice);
    ExpectLogged(query.syslog, {{kUserErr, noDevice},
                                {kUserErr, "HWID: invalid ID, err 2"}});
  });
}

// A node that is no MMC device refuses the ioctl; queried in this process.
TEST(HardwareId, FailedIoctl) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(WriteFile("/dev/mmcblk0rpmb", ""));
    SyslogCapture syslog;
    StderrCapture err;
    int error = -1;
    EXPECT_EQ(qel_util::system::GetDeviceID(error), "");
    EXPECT_EQ(error, 2);
    EXPECT_EQ(qel_util::system::GetDeviceID(), "");
    const std::string failed = "# Failed to read data: error -1 [ID_IO]\n";
    EXPECT_EQ(err.Take(), failed + failed);
    const std::string logged = "HWID: invalid ID, err 2";
    ExpectLogged(syslog.Take(4), {{kUserErr, failed}, {kUserErr, logged},
                                  {kUserErr, failed}, {kUserErr, logged}});
    closelog();  // the library logs through the process's connection
  });
}

TEST(HardwareId, NoHwidFlagInTheFirst383BytesOfTheCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    struct Case {
      std::string cmdline;
      bool flag;
    } cases[] = {
        {"console=ttyS0 NOHWID root=/dev/mmcblk0p2\n", true},
        {"console=ttyS0 opt=xNOHWIDy\n", true},
        {"console=ttyS0 nohwid NOHWI D\n", false},
        {std::string(377, 'a') + "NOHWID\n", true},    // ends at byte 383
        {std::string(378, 'a') + "NOHWID\n", false},   // its "D" is byte 384
        {"", false},
    };
    for (const Case& c : cases) {
      ASSERT_TRUE(MountFile("/proc/cmdline", c.cmdline));
      EXPECT_EQ(qel_util::system::hasFlagNOHWID(), c.flag) << c.cmdline;
    }
  });
}

}  // namespace
}  // namespace qel_test
