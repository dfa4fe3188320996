// The serial number from the eMMC's CID register.

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"

TEST(SerialNumber, LastTwelveCharactersOfTheFirstLineInUpperCase) {
  QEL_REQUIRE_SANDBOX();
  const struct { std::string cid, text; unsigned long long number; } cases[] = {
      {"0123456789abcdef0123456789abcdef\n", "456789ABCDEF", 0x456789ABCDEFull},
      {"fe0123456789ffffffffffff", "FFFFFFFFFFFF", 0xFFFFFFFFFFFFull},
      {"abcdef0123456789abcdef \t\v\f\r\n", "456789ABCDEF", 0x456789ABCDEFull},
      {"  abc\n0123456789abcdef\n", "  ABC", 0xABCull},
      {std::string(114, '7') + "456789abcdef" + std::string(80, '7'),
       "456789ABCDEF", 0x456789ABCDEFull},  // a line is read to 126 bytes
      {"0123456789abcdefXYZ\n", "789ABCDEFXYZ", 0x789ABCDEFull},
  };
  qel_test::RunInSandbox([&cases] {
    for (const auto& c : cases) {
      ASSERT_EQ(qel_test::MountFile("/sys/bus/mmc/devices/mmc0:0001/cid",
                                      c.cid), "");
      EXPECT_EQ(qel_util::system::serialNumberString(), c.text) << c.cid;
      EXPECT_EQ(qel_util::system::serialNumber(), c.number) << c.cid;
    }
    ASSERT_EQ(qel_test::MountTmpfs("/sys/bus"), "");  // no eMMC at all
    EXPECT_EQ(qel_util::system::serialNumberString(), "");
    EXPECT_EQ(qel_util::system::serialNumber(), 0ull);
  });
}
