// The barcode and its ASN: the text rules on raw barcodes, the readers on a
// kernel command line of the test's own, and the writer against the real
// boot-loader environment tools on a file-backed environment.

#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/descriptor_limit.h"
#include "support/sandbox.h"
#include "system/barcode.h"

namespace {

using ::testing::ThrowsMessage;
using qel_test::MountFile;
using qel_test::MountScript;
using qel_test::ReadFile;
using qel_test::RunInSandbox;
using qel_test::Shell;
using qel_test::WriteFile;
using qel_util::system::GetBarcode;
using qel_util::system::GetBarcodeASN;
using qel_util::system::SetBarcodeASN;

const char kSwitch[] = "/sys/block/mmcblk0boot0/force_ro";
const char kArgs[] = "/mnt/fw_setenv.args";
const char kReply[] = "/mnt/fw_setenv.reply";

struct Row {
  const char* raw;
  const char* newAsn;
  const char* asn;
  int key;
  const char* newBarcode;
};

void ExpectParsed(const Row& row) {
  int key = -1;
  std::string newBarcode = "stale";
  EXPECT_EQ(qel_util::system::ParseBarcodeASN(row.raw, &key, row.newAsn,
                                              newBarcode),
            row.asn)
      << "raw \"" << row.raw << "\" new \"" << row.newAsn << "\"";
  EXPECT_EQ(key, row.key) << row.raw;
  EXPECT_EQ(newBarcode, row.newBarcode) << row.raw;
}

bool Cmdline(const std::string& line) {
  return MountFile("/proc/cmdline", line);
}

// --- The text rules ---------------------------------------------------------

struct Example {
  Row row;
  const char* keyed;  // GetBarcode
};

const Example kExamples[] = {
    {{"", "", "", 0, ""}, ""},
    {{"", "B987654321", "", 0, "ASN=B987654321"}, ""},
    {{"ASN=A123456789,BREV=R02", "", "A123456789", 1, ""},
     "ASN=A123456789,BREV=R02"},
    {{"ASN=A123456789,BREV=R02", "B987654321", "A123456789", 1,
      "ASN=B987654321,BREV=R02"},
     "ASN=A123456789,BREV=R02"},
    {{"ASN2= A123456789]", "", "A123456789", 2, ""}, "ASN2= A123456789]"},
    {{"A123456789,R02", "B987654321", "A123456789", 0, "B987654321,R02"},
     "ASN=A123456789,BREV=R02"},
    {{"A123456789", "", "A123456789", 0, ""}, "ASN=A123456789,"},
};

TEST(BarcodeText, WorkedExamples) {
  for (const Example& example : kExamples) {
    ExpectParsed(example.row);
    EXPECT_EQ(qel_util::system::KeyedBarcode(example.row.raw), example.keyed);
  }
  EXPECT_EQ(qel_util::system::KeyedBarcode("XASNY,R02"), "XASNY,R02");
}

TEST(BarcodeText, KeysBracketsTrimmingAndNewAsnLengths) {
  const std::string c30(30, 'C'), c31(31, 'C');
  const std::string raw = "ASN=A123456789,BREV=R02";
  const std::string sp30 = " " + c30 + " ", with30 = "ASN=" + c30 + ",BREV=R02";
  const Row rows[] = {
      {"ASN=A1", "", "A1", 1, ""},
      {"ASN7=A1", "", "A1", 7, ""},
      {"ASN12=A1", "", "A1", 12, ""},
      {"ASNX=A1", "", "A1", 0, ""},
      {"A1,R02", "", "A1", 0, ""},
      // The first "ASN" anywhere; the "=" found may be a later entry's.
      {"BREV=RASN2,ASN=A1", "", "A1", 2, ""},
      {"BREV=R02,ASN=A1,ASN=A2", "", "A1", 1, ""},
      {"ASN:A123456789,BREV:R02", "B987654321", "", 0, ""},
      {"ASN=A123456789]", "", "A123456789", 1, ""},
      {"ASN=A1]]", "", "A1]", 1, ""},
      {"ASN=]", "", "", 1, ""},
      {"ASN=A1 ]", "", "A1 ", 1, ""},  // trimmed before, not after
      {"[BREV=R02,ASN=A123456789]", "B987654321", "A123456789", 1,
       "[BREV=R02,ASN=B987654321]"},
      {"ASN2= A123456789] ,BREV=R02", "B987654321", "A123456789", 2,
       "ASN2=B987654321],BREV=R02"},
      {"A123456789]", "B987654321", "A123456789]", 0, "B987654321"},
      {"ASN= A1\t,BREV=R02", "", "A1", 1, ""},
      {" A1 ,R02", "", " A1 ", 0, ""},
      // The new ASN's length, 10 to 30, is counted after trimming.
      {raw.c_str(), "  B987654321\t\n", "A123456789", 1,
       "ASN=B987654321,BREV=R02"},
      {raw.c_str(), c30.c_str(), "A123456789", 1, with30.c_str()},
      {raw.c_str(), sp30.c_str(), "A123456789", 1, with30.c_str()},
      {raw.c_str(), "B98765432", "A123456789", 1, ""},
      {raw.c_str(), " B98765432 ", "A123456789", 1, ""},
      {raw.c_str(), c31.c_str(), "A123456789", 1, ""},
      {"", c31.c_str(), "", 0, ""},
      // The kernel's newline when "barcode=" is the last parameter; a
      // replaced value takes it with it.
      {"ASN=A123456789\n", "", "A123456789", 1, ""},
      {"A123456789\n", "", "A123456789\n", 0, ""},
      {"A123456789,R02\n", "B987654321", "A123456789", 0, "B987654321,R02\n"},
      {"ASN2= A123456789]\n", "B987654321", "A123456789", 2,
       "ASN2=B987654321]"},
  };
  for (const Row& row : rows) ExpectParsed(row);
}

TEST(BarcodeText, BarcodeParameter) {
  const std::pair<const char*, const char*> cases[] = {
      {"a=1 barcode=ASN=A1\n", "ASN=A1\n"},
      {"console=ttyS0 quiet\n", ""},
      {"barcode=A1 barcode=A2", "A1"},
      {"oldbarcode=X1 barcode=Y2", "X1"},
      {"barcode=A1\tB2 quiet", "A1\tB2"},
      {"barcode= A1", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(qel_util::system::BarcodeFromCmdline(c.first), c.second);
}

// --- The readers, on the kernel command line ------------------------------

void ExpectReaders(const std::string& cmdline, const std::string& barcode,
                   const std::string& asn, int key) {
  ASSERT_TRUE(Cmdline(cmdline));
  int got = -1;
  EXPECT_EQ(GetBarcodeASN(&got), asn) << cmdline;
  EXPECT_EQ(got, key) << cmdline;
  EXPECT_EQ(GetBarcodeASN(nullptr), asn) << cmdline;
  EXPECT_EQ(GetBarcode(), barcode) << cmdline;
}

TEST(BarcodeReaders, FromTheKernelCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    for (const Example& example : kExamples) {
      const Row& row = example.row;
      // A space would end the kernel parameter.
      if (std::string(row.raw).find(' ') != std::string::npos) continue;
      ExpectReaders(std::string("console=ttyS0 barcode=") + row.raw +
                        " rootwait\n",
                    example.keyed, row.asn, row.key);
    }
    ExpectReaders("console=ttyS0 quiet\n", "", "", 0);
    ExpectReaders("", "", "", 0);
    ExpectReaders("quiet barcode=ASN=A123456789,BREV=R02\n",
                  "ASN=A123456789,BREV=R02\n", "A123456789", 1);
    ExpectReaders("quiet barcode=BREV=R02,ASN7=A123456789\n",
                  "BREV=R02,ASN7=A123456789\n", "A123456789", 7);
    ExpectReaders("quiet barcode=A123456789,R02\n",
                  "ASN=A123456789,BREV=R02\n", "A123456789", 0);
    ExpectReaders("quiet barcode=A123456789\n", "ASN=A123456789\n,",
                  "A123456789\n", 0);
    ExpectReaders("oldbarcode=X123456789 barcode=ASN=A123456789\n",
                  "ASN=X123456789,", "X123456789", 0);
    // Only the first 383 bytes of the line are seen.
    ExpectReaders(std::string(368, 'p') + " barcode=ASN=A123456789,BREV=R02\n",
                  "ASN=A1", "A1", 1);
  });
}

// --- The writer -------------------------------------------------------------

// A device with the boot-loader environment in a 4 KiB file, initialised by
// the real tools, and "/sbin/fw_setenv" a wrapper around the real tool that
// records its arguments and the switch as it found it, and says "OK" on
// success as the device's tool does (or replies with kReply when present).
void SetUpDevice(const std::string& cmdline, bool withSwitch = true) {
  ASSERT_TRUE(Cmdline(cmdline));
  if (withSwitch) {
    ASSERT_TRUE(MountFile(kSwitch, "Zxyz"));
  }
  ASSERT_TRUE(WriteFile("/mnt/uboot.env", std::string(4096, '\0')));
  ASSERT_TRUE(MountFile("/etc/fw_env.config", "/mnt/uboot.env 0x0 0x1000\n"));
  ASSERT_TRUE(WriteFile("/mnt/default.env", "barcode=OLD\nbootdelay=3\n"));
  ASSERT_EQ(Shell("/usr/bin/fw_setenv -f /mnt/default.env bootdelay 3 "
                  "2>/dev/null"),
            0);
  ASSERT_TRUE(MountScript("/sbin/fw_setenv",
                          "printf '%s\\0' \"$0\" \"$@\" > /mnt/fw_setenv.args\n"
                          "cat /sys/block/mmcblk0boot0/force_ro "
                          "> /mnt/fw_setenv.switch 2>/dev/null\n"
                          "if [ -f /mnt/fw_setenv.reply ]; then\n"
                          "  cat /mnt/fw_setenv.reply; exit 1\n"
                          "fi\n"
                          "/usr/bin/fw_setenv \"$@\" && echo OK\n"));
}

// The arguments the tool was run with, "$0" first; empty when it never ran.
std::vector<std::string> ToolArgs() {
  std::vector<std::string> args;
  const std::string text = ReadFile(kArgs);
  for (size_t begin = 0, end; (end = text.find('\0', begin)) != text.npos;
       begin = end + 1)
    args.push_back(text.substr(begin, end - begin));
  return args;
}

std::string Stored(const char* name = "barcode") {
  std::string value;
  Shell(std::string("/usr/bin/fw_printenv -n ") + name + " 2>/dev/null",
        &value);
  return value;
}

bool Exists(const char* path) { return access(path, F_OK) == 0; }

TEST(SetBarcodeASN, StoresTheNewBarcodeWithTheSwitchReleased) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("console=ttyS0 barcode=ASN=A123456789,BREV=R02 rootwait\n");
    ASSERT_EQ(Stored(), "OLD\n");
    EXPECT_TRUE(SetBarcodeASN(" B987654321\t"));
    EXPECT_EQ(ToolArgs(),
              (std::vector<std::string>{"/sbin/fw_setenv", "barcode", "ASN=B987654321,BREV=R02"}));
    // One byte each time: "0" while the tool ran, "1" afterwards.
    EXPECT_EQ(ReadFile("/mnt/fw_setenv.switch"), "0xyz");
    EXPECT_EQ(ReadFile(kSwitch), "1xyz");
    EXPECT_EQ(Stored(), "ASN=B987654321,BREV=R02\n");
    EXPECT_EQ(Stored("bootdelay"), "3\n");
    // The readers still tell the barcode of the running kernel, and the
    // next call starts from it again; shell characters arrive literally.
    EXPECT_EQ(GetBarcode(), "ASN=A123456789,BREV=R02");
    const std::string asn = "$(touch /mnt/x);\"`id`\" *";
    EXPECT_TRUE(SetBarcodeASN(asn));
    EXPECT_EQ(Stored(), "ASN=" + asn + ",BREV=R02\n");
    EXPECT_FALSE(Exists("/mnt/x"));
  });
}

TEST(SetBarcodeASN, KeepsTheFormOfTheCurrentBarcodeAndAMissingSwitch) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("quiet\n", false);
    EXPECT_TRUE(SetBarcodeASN("B987654321"));
    EXPECT_EQ(Stored(), "ASN=B987654321\n");
    ASSERT_TRUE(Cmdline("quiet barcode=A123456789,R02 rootwait\n"));
    EXPECT_TRUE(SetBarcodeASN("B987654321"));
    EXPECT_EQ(Stored(), "B987654321,R02\n");
    ASSERT_TRUE(Cmdline("quiet barcode=[BREV=R02,ASN5=A123456789]\n"));
    EXPECT_TRUE(SetBarcodeASN(std::string(30, 'D')));
    EXPECT_EQ(Stored(), "[BREV=R02,ASN5=" + std::string(30, 'D') + "]\n");
    EXPECT_FALSE(Exists(kSwitch));
  });
}

TEST(SetBarcodeASN, RefusesWithoutRunningOrTouchingAnything) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789,BREV=R02 quiet\n");
    for (const std::string asn : {"B98765432", " B98765432 ", "", "B98765'4321",
                                  "B9876543'; touch /mnt/x; '"})
      EXPECT_FALSE(SetBarcodeASN(asn)) << asn;
    EXPECT_FALSE(SetBarcodeASN(std::string(31, 'C')));
    // A quote from the kernel's barcode is refused the same way, and so is
    // a barcode whose "ASN" has no value.
    ASSERT_TRUE(Cmdline("barcode=ASN=A123456789,BREV=it's quiet\n"));
    EXPECT_FALSE(SetBarcodeASN("B987654321"));
    ASSERT_TRUE(Cmdline("barcode=ASN:A123456789,BREV:R02 quiet\n"));
    EXPECT_FALSE(SetBarcodeASN("B987654321"));
    EXPECT_FALSE(Exists(kArgs));
    EXPECT_FALSE(Exists("/mnt/x"));
    EXPECT_EQ(ReadFile(kSwitch), "Zxyz");
    EXPECT_EQ(Stored(), "OLD\n");
  });
}

TEST(SetBarcodeASN, SuccessIsTheToolSayingOK) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789 quiet\n");
    // The exit status does not count (the wrapper exits 1 with a reply).
    const std::pair<const char*, bool> replies[] = {
        {"OK", true}, {"Environment OK, saved\n", true}, {"xOKx", true},
        {"", false}, {"ok\n", false}, {"O K", false},
        {"Error: cannot write\n", false}};
    for (const auto& reply : replies) {
      ASSERT_TRUE(WriteFile(kReply, reply.first));
      EXPECT_EQ(SetBarcodeASN("B987654321"), reply.second) << reply.first;
      EXPECT_EQ(ReadFile(kSwitch), "1xyz");
    }
  });
}

TEST(SetBarcodeASN, SetsTheSwitchAgainWhenTheToolCannotStart) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789 quiet\n");
    // Room for the switch's descriptor but not for popen's pipe.
    auto thrown = qel_test::ThrownWithDescriptorLimit(
        1, [] { SetBarcodeASN("B987654321"); });
    ASSERT_TRUE(thrown);
    EXPECT_THAT([&] { std::rethrow_exception(thrown); },
                ThrowsMessage<std::runtime_error>("popen() failed!"));
    EXPECT_EQ(ReadFile(kSwitch), "1xyz");
    EXPECT_FALSE(Exists(kArgs));
    EXPECT_EQ(Stored(), "OLD\n");
  });
}

}  // namespace
