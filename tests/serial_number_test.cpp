// The serial number from the eMMC's CID register.

#include <string>

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"

namespace {

using qel_util::system::serialNumber;
using qel_util::system::serialNumberString;

TEST(SerialNumber, LastTwelveCharactersOfTheFirstLineInUpperCase) {
  QEL_REQUIRE_SANDBOX();
  struct Case {
    std::string cid, text;
    unsigned long long number;
  };
  std::string digits200;
  for (int i = 0; i < 20; ++i) digits200 += "0123456789";
  const Case cases[] = {
      {"0123456789abcdef0123456789abcdef\n", "456789ABCDEF", 76310993685999ull},
      {"fe0123456789ffffffffffff\n", "FFFFFFFFFFFF", 0xFFFFFFFFFFFFull},
      // Trailing white space never pushes digits out.
      {"0123456789abcdef0123456789abcdef \t\v\f\r\n", "456789ABCDEF",
       0x456789ABCDEFull},
      {"abc\n", "ABC", 0xABCull},
      {"456789abcdef", "456789ABCDEF", 0x456789ABCDEFull},
      {"  abc\n", "  ABC", 0xABCull},  // kept, but the number skips it
      {"abc\n0123456789abcdef\n", "ABC", 0xABCull},
      {digits200 + "\n", "456789012345", 0x456789012345ull},  // bytes 114..125
      // The number stops at the first character that is not a hex digit.
      {"0123456789abcdefXYZ\n", "789ABCDEFXYZ", 0x789ABCDEFull},
      {"serial\n", "SERIAL", 0},
      {"", "", 0},
      {" \t\n", "", 0},
  };
  qel_test::RunInSandbox([&cases] {
    for (const Case& c : cases) {
      ASSERT_TRUE(qel_test::MountFile("/sys/bus/mmc/devices/mmc0:0001/cid",
                                      c.cid));
      EXPECT_EQ(serialNumberString(), c.text) << c.cid;
      EXPECT_EQ(serialNumber(), c.number) << c.cid;
    }
    ASSERT_TRUE(qel_test::MountTmpfs("/sys/bus"));  // no eMMC at all
    EXPECT_EQ(serialNumberString(), "");
    EXPECT_EQ(serialNumber(), 0ull);
  });
}

}  // namespace
