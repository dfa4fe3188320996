// The barcode's text rules, the readers on a kernel command line of the
// test's own, and the writer against the real boot-loader environment tools.

#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include "qel_util/system.h"
#include "support/descriptor_limit.h"
#include "support/host_tool.h"
#include "support/sandbox.h"
#include "support/target.h"
#include "system/barcode.h"

namespace {

using namespace qel_util::system;
using namespace qel_test;

const char kSwitch[] = "/sys/block/mmcblk0boot0/force_ro";
const char kArgs[] = "/mnt/fw_setenv.args";
const char kRaw[] = "ASN=A123456789,BREV=R02";
const std::string kNew = "ASN=B987654321,BREV=R02", kC30(30, 'C'),
                  kC31(31, 'C'), kSp30 = " " + kC30 + "\t",
                  kWith30 = "ASN=" + kC30 + ",BREV=R02";

struct Row {  // keyed: what GetBarcode tells, if set
  const char *raw, *newAsn, *asn; int key; const char *newBarcode, *keyed = 0;
};
const Row kRows[] = {
    {"", "", "", 0, "", ""},
    {"", "B987654321", "", 0, "ASN=B987654321", ""},
    {kRaw, "B987654321", "A123456789", 1, kNew.c_str(), kRaw},
    {"A123456789,R02", "B987654321", "A123456789", 0, "B987654321,R02", kRaw},
    {"A123456789", "", "A123456789", 0, "", "ASN=A123456789,"},
    {"ASN7=A1", "", "A1", 7, ""},
    {"BREV=RASN12,ASN=A1", "", "A1", 12, ""},
    {"ASN=A1]]", "", "A1]", 1, ""},
    {"[BREV=R02,ASN=A123456789]", "B987654321", "A123456789", 1,
     "[BREV=R02,ASN=B987654321]"},
    // The new ASN's length, 10 to 30, counts after trimming.
    {kRaw, " B98765432 ", "A123456789", 1, ""},
    {kRaw, " B987654321\n", "A123456789", 1, kNew.c_str()},
    {kRaw, kSp30.c_str(), "A123456789", 1, kWith30.c_str()},
    {kRaw, kC31.c_str(), "A123456789", 1, ""},
    // The kernel's newline behind the last parameter.
    {"A123456789\n", "", "A123456789\n", 0, ""},
    {"A123456789,R02\n", "B987654321", "A123456789", 0, "B987654321,R02\n"},
    {"ASN2= A123456789]\n", "B987654321", "A123456789", 2, "ASN2=B987654321]"},
};

TEST(Barcode, ParsedAndReadFromTheKernelCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    for (const Row& row : kRows) {
      SCOPED_TRACE(std::string(row.raw) + " / " + row.newAsn);
      int key = -1;
      std::string newBarcode = "stale";
      EXPECT_EQ(ParseBarcodeASN(row.raw, &key, row.newAsn, newBarcode), row.asn);
      EXPECT_EQ(key, row.key);
      EXPECT_EQ(newBarcode, row.newBarcode);
      if (!row.keyed || strchr(row.raw, ' ')) continue;  // a space ends the parameter
      ASSERT_EQ(MountFile("/proc/cmdline",
                          std::string("a=1 barcode=") + row.raw + " rootwait\n"), "");
      key = -1;
      EXPECT_EQ(GetBarcodeASN(&key), row.asn);
      EXPECT_EQ(key, row.key);
      EXPECT_EQ(GetBarcode(), row.keyed);
    }
  });
}

// "/sbin/fw_setenv" wraps the real tool on a file-backed environment, records
// its arguments and the switch, and says "OK" on success (or /mnt/reply).
void SetUpDevice(const std::string& cmdline) {
  ASSERT_EQ(MountFile("/proc/cmdline", cmdline) + MountFile(kSwitch, "Z") +
              MountFile("/etc/fw_env.config", "/mnt/env 0x0 0x1000\n"), "");
  ASSERT_EQ(Shell("head -c 4096 /dev/zero > /mnt/env && echo barcode=OLD > "
                  "/mnt/d && /usr/bin/fw_setenv -f /mnt/d 2>&-"), 0);
  ASSERT_EQ(MountScript(
      "/sbin/fw_setenv",
      "printf '[%s]' \"$0\" \"$@\" > /mnt/fw_setenv.args\n"
      "cat /sys/block/mmcblk0boot0/force_ro > /mnt/fw_setenv.switch\n"
      "[ -f /mnt/reply ] && { cat /mnt/reply; exit 1; }\n"
      "/usr/bin/fw_setenv \"$@\" && echo OK\n"), "");
}

std::string Stored() {
  std::string value;
  Shell("/usr/bin/fw_printenv -n barcode", &value);
  return value;
}

TEST(SetBarcodeASN, StoresWhenTheToolSaysOKWithTheSwitchReleased) {
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_HOST_PROGRAM("/usr/bin/fw_setenv", "libubootenv-tool");
  RunInSandbox([] {
    SetUpDevice(std::string("a=1 barcode=") + kRaw + " rootwait\n");
    EXPECT_TRUE(SetBarcodeASN(" B987654321\t"));
    EXPECT_EQ(ReadFile(kArgs), "[/sbin/fw_setenv][barcode][" + kNew + "]");
    EXPECT_EQ(ReadFile("/mnt/fw_setenv.switch"), "0");
    EXPECT_EQ(ReadFile(kSwitch), "1");
    EXPECT_EQ(Stored(), kNew + "\n");
    const std::string asn = "$(touch${IFS}/mnt/x);\"`id`\"*";
    EXPECT_TRUE(SetBarcodeASN(asn));
    EXPECT_EQ(Stored(), "ASN=" + asn + ",BREV=R02\n");
    EXPECT_NE(access("/mnt/x", F_OK), 0);
    // The exit status does not count, only an "OK" in the output.
    for (const auto& reply : {std::make_pair("Environment OK", true),
                              {"", false}, {"ok\n", false}, {"O K", false}}) {
      ASSERT_EQ(WriteFile("/mnt/reply", reply.first), "");
      EXPECT_EQ(SetBarcodeASN("B987654321"), reply.second) << reply.first;
      EXPECT_EQ(ReadFile(kSwitch), "1");
    }
  });
}

TEST(SetBarcodeASN, RefusesOrThrowsLeavingTheSwitchSet) {
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_HOST_PROGRAM("/usr/bin/fw_setenv", "libubootenv-tool");
  RunInSandbox([] {
    SetUpDevice(std::string("barcode=") + kRaw + " quiet\n");
    for (const std::string& asn : {std::string(" B98765432 "), kC31,
                                   std::string("B9876543'; touch /mnt/x; '"),
                                   std::string("B9876\0" "54321", 11),
                                   std::string("A12 NOHWID init=/bin/sh"),
                                   std::string("B9876\t54321"),
                                   std::string("B98765\n4321"),
                                   std::string("B9876\x1b" "54321"),
                                   std::string("B9876\x7f" "54321")})
      EXPECT_FALSE(SetBarcodeASN(asn)) << asn;
    ASSERT_EQ(MountFile("/proc/cmdline", "barcode=ASN=A1,BREV=it's\n"), "");
    EXPECT_FALSE(SetBarcodeASN("B987654321"));
    EXPECT_NE(access(kArgs, F_OK), 0);
    EXPECT_NE(access("/mnt/x", F_OK), 0);
    EXPECT_EQ(ReadFile(kSwitch), "Z");
    ASSERT_EQ(MountFile("/proc/cmdline", std::string("barcode=") + kRaw), "");
    auto thrown =
        ThrownWithDescriptorLimit(1, [] { SetBarcodeASN("B987654321"); });
    ASSERT_TRUE(thrown);
    EXPECT_THAT([&] { std::rethrow_exception(thrown); },
                testing::ThrowsMessage<std::runtime_error>("popen() failed!"));
    EXPECT_EQ(ReadFile(kSwitch), "1");
    EXPECT_EQ(Stored(), "OLD\n");
  });
}

// qel-devinfo on a barcode with a byte that is no UTF-8 and the kernel's
// newline, without an RPMB device and, in the JSON run, with too few
// descriptors for the version script: what could be read is still shown.
TEST(QelDevinfo, ShowsWhatItReadAndFailsWhenAQueryFailed) {
#ifndef QEL_DEVINFO
  GTEST_SKIP() << "qel-devinfo is not built";
#else
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_EQ(MountFile("/proc/cmdline", "barcode=A1234567\xff" "89\n") +
                MountFile("/sys/bus/mmc/devices/mmc0:0001/cid",
                          "0123456789abcdef0123456789abcdef\n") +
                MountScript("/usr/bin/ubi_get_volume_versions.sh",
                            "printf 'v1 \\377\\n\\n'\n"), "");
    const std::string noDevice =
        "# Failed to read data: invalid device fd [ID_IO]\n"
        "qel-devinfo: deviceId: error 2\n";
    std::string out;
    EXPECT_EQ(Shell(QEL_DEVINFO " 2>/mnt/err", &out), 1);
    EXPECT_EQ(out, "device ID:         (error 2)\nNOHWID flag:      no\n"
                   "serial number:    456789ABCDEF (76310993685999)\n"
                   "barcode:          ASN=A1234567\xff" "89,\n"
                   "ASN:              A1234567\xff" "89 (key 0)\n"
                   "firmware version: v1 \xff\n");
    EXPECT_EQ(ReadFile("/mnt/err"), noDevice);
    if (!TargetEmulator().empty()) return;  // it needs descriptors of its own
    // One descriptor free (3): enough for a file, not for the script's pipe.
    EXPECT_EQ(Shell("exec 2>/mnt/err 3>&-; ulimit -n 4; exec " QEL_DEVINFO
                    " --json", &out), 1);
    EXPECT_EQ(out, "{\n  \"deviceId\": \"\",\n  \"deviceIdError\": 2,\n"
                   "  \"noHwid\": false,\n"
                   "  \"serialNumber\": \"456789ABCDEF\",\n"
                   "  \"serialNumberValue\": 76310993685999,\n"
                   "  \"barcode\": \"ASN=A1234567\uFFFD" "89,\",\n"
                   "  \"asn\": \"A1234567\uFFFD" "89\",\n  \"asnKey\": 0,\n"
                   "  \"firmwareVersion\": \"\",\n  \"failed\": [\n"
                   "    \"deviceId\",\n    \"firmwareVersion\"\n  ]\n}\n");
    EXPECT_EQ(ReadFile("/mnt/err"),
              noDevice + "qel-devinfo: firmwareVersion: popen() failed!\n");
  });
#endif
}

}  // namespace
