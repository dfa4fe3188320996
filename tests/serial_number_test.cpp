// The serial number from the eMMC's CID register.

#include <string>

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"

namespace {

using qel_test::MountFile;
using qel_test::RunInSandbox;
using qel_util::system::serialNumber;
using qel_util::system::serialNumberString;

bool Cid(const std::string& content) {
  return MountFile("/sys/bus/mmc/devices/mmc0:0001/cid", content);
}

TEST(SerialNumber, LastTwelveDigitsInUpperCase) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid("0123456789abcdef0123456789abcdef\n"));
    EXPECT_EQ(serialNumberString(), "456789ABCDEF");
    EXPECT_EQ(serialNumber(), 0x456789ABCDEFull);
    EXPECT_EQ(serialNumber(), 76310993685999ull);

    ASSERT_TRUE(Cid("fe0123456789ffffffffffff\n"));
    EXPECT_EQ(serialNumberString(), "FFFFFFFFFFFF");
    EXPECT_EQ(serialNumber(), 0xFFFFFFFFFFFFull);
  });
}

TEST(SerialNumber, ShortLinesStayWhole) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid("abc\n"));
    EXPECT_EQ(serialNumberString(), "ABC");
    EXPECT_EQ(serialNumber(), 0xABCull);
    ASSERT_TRUE(Cid("456789abcdef"));  // no newline, exactly twelve
    EXPECT_EQ(serialNumberString(), "456789ABCDEF");
    // Leading white space is kept; the number skips it.
    ASSERT_TRUE(Cid("  abc\n"));
    EXPECT_EQ(serialNumberString(), "  ABC");
    EXPECT_EQ(serialNumber(), 0xABCull);
  });
}

TEST(SerialNumber, TrailingWhiteSpaceNeverPushesDigitsOut) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid("0123456789abcdef0123456789abcdef \t\v\f\r\n"));
    EXPECT_EQ(serialNumberString(), "456789ABCDEF");
  });
}

TEST(SerialNumber, OnlyTheFirstLineAndItsFirst126Characters) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid("abc\n0123456789abcdef\n"));
    EXPECT_EQ(serialNumberString(), "ABC");
    std::string line;
    for (int i = 0; i < 20; ++i) line += "0123456789";
    ASSERT_TRUE(Cid(line + "\n"));
    EXPECT_EQ(serialNumberString(), "456789012345");  // bytes 114..125
  });
}

TEST(SerialNumber, NumberStopsAtTheFirstNonHexDigit) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid("0123456789abcdefXYZ\n"));
    EXPECT_EQ(serialNumberString(), "789ABCDEFXYZ");
    EXPECT_EQ(serialNumber(), 0x789ABCDEFull);
    ASSERT_TRUE(Cid("serial\n"));
    EXPECT_EQ(serialNumberString(), "SERIAL");
    EXPECT_EQ(serialNumber(), 0ull);
  });
}

TEST(SerialNumber, NothingToRead) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(Cid(""));
    EXPECT_EQ(serialNumberString(), "");
    EXPECT_EQ(serialNumber(), 0ull);
    ASSERT_TRUE(Cid(" \t\n"));
    EXPECT_EQ(serialNumberString(), "");
    EXPECT_EQ(serialNumber(), 0ull);
  });
}

TEST(SerialNumber, NoCidFile) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(qel_test::MountTmpfs("/sys/bus"));  // no eMMC at all
    EXPECT_EQ(serialNumberString(), "");
    EXPECT_EQ(serialNumber(), 0ull);
  });
}

}  // namespace
