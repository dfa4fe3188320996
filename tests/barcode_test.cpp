// The barcode and its ASN: the text rules on raw barcodes, the readers on a
// kernel command line of the test's own, and the writer against the real
// boot-loader environment tools on a file-backed environment.

#include <sys/stat.h>

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

struct Parsed {
  std::string asn;
  int key;
  std::string newBarcode;
};

Parsed Parse(const std::string& raw, const std::string& newAsn = "") {
  Parsed p{"", -1, "stale"};
  p.asn = qel_util::system::ParseBarcodeASN(raw, &p.key, newAsn, p.newBarcode);
  return p;
}

void ExpectParsed(const std::string& raw, const std::string& newAsn,
                  const std::string& asn, int key,
                  const std::string& newBarcode) {
  const Parsed p = Parse(raw, newAsn);
  EXPECT_EQ(p.asn, asn) << "raw \"" << raw << "\"";
  EXPECT_EQ(p.key, key) << "raw \"" << raw << "\"";
  EXPECT_EQ(p.newBarcode, newBarcode) << "raw \"" << raw << "\"";
}

bool Cmdline(const std::string& line) {
  return MountFile("/proc/cmdline", line);
}

std::string Asn(int* key) {
  *key = -1;
  return GetBarcodeASN(key);
}

// --- The text rules ---------------------------------------------------------

struct Row {
  const char* raw;
  const char* newAsn;
  const char* asn;
  int key;
  const char* newBarcode;
  const char* keyed;  // GetBarcode
};

const Row kRows[] = {
    {"", "", "", 0, "", ""},
    {"", "B987654321", "", 0, "ASN=B987654321", ""},
    {"ASN=A123456789,BREV=R02", "", "A123456789", 1, "",
     "ASN=A123456789,BREV=R02"},
    {"ASN=A123456789,BREV=R02", "B987654321", "A123456789", 1,
     "ASN=B987654321,BREV=R02", "ASN=A123456789,BREV=R02"},
    {"ASN2= A123456789]", "", "A123456789", 2, "", "ASN2= A123456789]"},
    {"A123456789,R02", "B987654321", "A123456789", 0, "B987654321,R02",
     "ASN=A123456789,BREV=R02"},
    {"A123456789", "", "A123456789", 0, "", "ASN=A123456789,"},
};

TEST(BarcodeText, WorkedExamples) {
  for (const Row& row : kRows) {
    ExpectParsed(row.raw, row.newAsn, row.asn, row.key, row.newBarcode);
    EXPECT_EQ(qel_util::system::KeyedBarcode(row.raw), row.keyed) << row.raw;
  }
}

TEST(BarcodeText, KeyNumbers) {
  ExpectParsed("ASN=A1", "", "A1", 1, "");
  ExpectParsed("ASN7=A1", "", "A1", 7, "");
  ExpectParsed("ASN12=A1", "", "A1", 12, "");
  ExpectParsed("ASNX=A1", "", "A1", 0, "");
  ExpectParsed("A1,R02", "", "A1", 0, "");
}

TEST(BarcodeText, FirstAsnAnywhereMakesItKeyed) {
  // Inside another entry's value; the "=" found may be a later entry's.
  ExpectParsed("BREV=RASN2,ASN=A1", "", "A1", 2, "");
  ExpectParsed("BREV=R02,ASN=A1,ASN=A2", "", "A1", 1, "");
  EXPECT_EQ(qel_util::system::KeyedBarcode("XASNY,R02"), "XASNY,R02");
}

TEST(BarcodeText, AsnWithoutEqualsSignHasNoValue) {
  ExpectParsed("ASN:A123456789,BREV:R02", "B987654321", "", 0, "");
}

TEST(BarcodeText, ClosingBracket) {
  ExpectParsed("ASN=A123456789]", "", "A123456789", 1, "");
  ExpectParsed("ASN=A1]]", "", "A1]", 1, "");
  ExpectParsed("ASN=]", "", "", 1, "");
  ExpectParsed("ASN=A1 ]", "", "A1 ", 1, "");  // trimmed before, not after
  // A bracketed barcode stays closed when its ASN is replaced.
  ExpectParsed("[BREV=R02,ASN=A123456789]", "B987654321", "A123456789", 1,
               "[BREV=R02,ASN=B987654321]");
  ExpectParsed("ASN2= A123456789] ,BREV=R02", "B987654321", "A123456789", 2,
               "ASN2=B987654321],BREV=R02");
  // Plain barcodes keep theirs.
  ExpectParsed("A123456789]", "B987654321", "A123456789]", 0, "B987654321");
}

TEST(BarcodeText, KeyedValueIsTrimmedPlainIsNot) {
  ExpectParsed("ASN= A1\t,BREV=R02", "", "A1", 1, "");
  ExpectParsed(" A1 ,R02", "", " A1 ", 0, "");
}

TEST(BarcodeText, NewAsnLengthIsCountedAfterTrimming) {
  const std::string raw = "ASN=A123456789,BREV=R02";
  const std::string ten = "B987654321", thirty(30, 'C');
  ExpectParsed(raw, "  " + ten + "\t\n", "A123456789", 1,
               "ASN=" + ten + ",BREV=R02");
  ExpectParsed(raw, thirty, "A123456789", 1, "ASN=" + thirty + ",BREV=R02");
  ExpectParsed(raw, " " + thirty + " ", "A123456789", 1,
               "ASN=" + thirty + ",BREV=R02");
  ExpectParsed(raw, "B98765432", "A123456789", 1, "");
  ExpectParsed(raw, " B98765432 ", "A123456789", 1, "");
  ExpectParsed(raw, std::string(31, 'C'), "A123456789", 1, "");
  ExpectParsed("", std::string(31, 'C'), "", 0, "");
}

TEST(BarcodeText, KernelNewlineAtTheEnd) {
  // "barcode=" as the last kernel parameter keeps the kernel's newline.
  EXPECT_EQ(qel_util::system::BarcodeFromCmdline("a=1 barcode=ASN=A1\n"),
            "ASN=A1\n");
  ExpectParsed("ASN=A123456789\n", "", "A123456789", 1, "");
  ExpectParsed("A123456789\n", "", "A123456789\n", 0, "");
  ExpectParsed("A123456789,R02\n", "B987654321", "A123456789", 0,
               "B987654321,R02\n");
  // The replaced value takes the newline with it.
  ExpectParsed("ASN2= A123456789]\n", "B987654321", "A123456789", 2,
               "ASN2=B987654321]");
}

TEST(BarcodeText, BarcodeParameter) {
  using qel_util::system::BarcodeFromCmdline;
  EXPECT_EQ(BarcodeFromCmdline("console=ttyS0 quiet\n"), "");
  EXPECT_EQ(BarcodeFromCmdline("barcode=A1 barcode=A2"), "A1");
  EXPECT_EQ(BarcodeFromCmdline("oldbarcode=X1 barcode=Y2"), "X1");
  EXPECT_EQ(BarcodeFromCmdline("barcode=A1\tB2 quiet"), "A1\tB2");
  EXPECT_EQ(BarcodeFromCmdline("barcode= A1"), "");
}

// --- The readers, on the kernel command line ------------------------------

TEST(BarcodeReaders, WorkedExamplesFromTheKernelCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    for (const Row& row : kRows) {
      // A space would end the kernel parameter.
      if (std::string(row.raw).find(' ') != std::string::npos) continue;
      ASSERT_TRUE(Cmdline(std::string("console=ttyS0 barcode=") + row.raw +
                          " rootwait\n"));
      int key;
      EXPECT_EQ(Asn(&key), row.asn) << row.raw;
      EXPECT_EQ(key, row.key) << row.raw;
      EXPECT_EQ(GetBarcode(), row.keyed) << row.raw;
      EXPECT_EQ(GetBarcodeASN(nullptr), row.asn) << row.raw;
    }
  });
}

TEST(BarcodeReaders, NoBarcodeOrNoCommandLine) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cmdline("console=ttyS0 quiet\n"));
    int key;
    EXPECT_EQ(Asn(&key), "");
    EXPECT_EQ(key, 0);
    EXPECT_EQ(GetBarcode(), "");
    ASSERT_TRUE(Cmdline(""));
    EXPECT_EQ(Asn(&key), "");
    EXPECT_EQ(key, 0);
    EXPECT_EQ(GetBarcode(), "");
  });
}

TEST(BarcodeReaders, BarcodeAsTheLastKernelParameter) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    int key;
    ASSERT_TRUE(Cmdline("quiet barcode=ASN=A123456789,BREV=R02\n"));
    EXPECT_EQ(GetBarcode(), "ASN=A123456789,BREV=R02\n");
    EXPECT_EQ(Asn(&key), "A123456789");
    ASSERT_TRUE(Cmdline("quiet barcode=BREV=R02,ASN7=A123456789\n"));
    EXPECT_EQ(Asn(&key), "A123456789");
    EXPECT_EQ(key, 7);
    ASSERT_TRUE(Cmdline("quiet barcode=A123456789,R02\n"));
    EXPECT_EQ(GetBarcode(), "ASN=A123456789,BREV=R02\n");
    EXPECT_EQ(Asn(&key), "A123456789");
    ASSERT_TRUE(Cmdline("quiet barcode=A123456789\n"));
    EXPECT_EQ(GetBarcode(), "ASN=A123456789\n,");
    EXPECT_EQ(Asn(&key), "A123456789\n");
    EXPECT_EQ(key, 0);
  });
}

TEST(BarcodeReaders, FirstBarcodeParameterCounts) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cmdline("oldbarcode=X123456789 barcode=ASN=A123456789\n"));
    EXPECT_EQ(GetBarcode(), "ASN=X123456789,");
    int key;
    EXPECT_EQ(Asn(&key), "X123456789");
    EXPECT_EQ(key, 0);
  });
}

TEST(BarcodeReaders, OnlyTheFirst383BytesOfTheCommandLineAreSeen) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::string pad(368, 'p');
    ASSERT_TRUE(Cmdline(pad + " barcode=ASN=A123456789,BREV=R02\n"));
    EXPECT_EQ(GetBarcode(), "ASN=A1");  // cut at byte 383
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

bool Exists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

using Args = std::vector<std::string>;

TEST(SetBarcodeASN, StoresTheNewBarcodeWithTheSwitchReleased) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("console=ttyS0 barcode=ASN=A123456789,BREV=R02 rootwait\n");
    ASSERT_EQ(Stored(), "OLD\n");
    EXPECT_TRUE(SetBarcodeASN(" B987654321\t"));
    EXPECT_EQ(ToolArgs(),
              (Args{"/sbin/fw_setenv", "barcode", "ASN=B987654321,BREV=R02"}));
    // One byte each time: "0" while the tool ran, "1" afterwards.
    EXPECT_EQ(ReadFile("/mnt/fw_setenv.switch"), "0xyz");
    EXPECT_EQ(ReadFile(kSwitch), "1xyz");
    EXPECT_EQ(Stored(), "ASN=B987654321,BREV=R02\n");
    EXPECT_EQ(Stored("bootdelay"), "3\n");
    // The readers still tell the barcode of the running kernel.
    EXPECT_EQ(GetBarcode(), "ASN=A123456789,BREV=R02");

    // A second call starts from that same barcode again.
    EXPECT_TRUE(SetBarcodeASN("C111111111"));
    EXPECT_EQ(Stored(), "ASN=C111111111,BREV=R02\n");
  });
}

TEST(SetBarcodeASN, KeepsTheFormOfTheCurrentBarcode) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("quiet\n");
    EXPECT_TRUE(SetBarcodeASN("B987654321"));
    EXPECT_EQ(Stored(), "ASN=B987654321\n");

    ASSERT_TRUE(Cmdline("quiet barcode=A123456789,R02 rootwait\n"));
    EXPECT_TRUE(SetBarcodeASN("B987654321"));
    EXPECT_EQ(Stored(), "B987654321,R02\n");

    ASSERT_TRUE(Cmdline("quiet barcode=[BREV=R02,ASN5=A123456789]\n"));
    EXPECT_TRUE(SetBarcodeASN(std::string(30, 'D')));
    EXPECT_EQ(Stored(), "[BREV=R02,ASN5=" + std::string(30, 'D') + "]\n");
  });
}

TEST(SetBarcodeASN, ShellCharactersArriveLiterally) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789,BREV=R02 quiet\n");
    const std::string asn = "$(touch /mnt/x);\"`id`\" *";
    EXPECT_TRUE(SetBarcodeASN(asn));
    EXPECT_EQ(Stored(), "ASN=" + asn + ",BREV=R02\n");
    EXPECT_FALSE(Exists("/mnt/x"));
  });
}

TEST(SetBarcodeASN, RefusesWithoutRunningOrTouchingAnything) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789,BREV=R02 quiet\n");
    for (const std::string& asn :
         {std::string("B98765432"), std::string(" B98765432 "),
          std::string(31, 'C'), std::string(""), std::string("B98765'4321"),
          std::string("B9876543'; touch /mnt/x; '")}) {
      EXPECT_FALSE(SetBarcodeASN(asn)) << asn;
    }
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
    for (const char* reply : {"OK", "Environment OK, saved\n", "xOKx"}) {
      ASSERT_TRUE(WriteFile(kReply, reply));
      EXPECT_TRUE(SetBarcodeASN("B987654321")) << reply;
    }
    for (const char* reply : {"", "ok\n", "O K", "Error: cannot write\n"}) {
      ASSERT_TRUE(WriteFile(kReply, reply));
      EXPECT_FALSE(SetBarcodeASN("B987654321")) << reply;
      EXPECT_EQ(ReadFile(kSwitch), "1xyz");
    }
  });
}

TEST(SetBarcodeASN, RunsWithoutTheSwitchAndDoesNotCreateIt) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    SetUpDevice("barcode=ASN=A123456789 quiet\n", false);
    EXPECT_TRUE(SetBarcodeASN("B987654321"));
    EXPECT_EQ(Stored(), "ASN=B987654321\n");
    EXPECT_FALSE(Exists(kSwitch));
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
