#if QEL_TEST_HAVE_ZLIB
#include <zlib.h>
#endif

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "qel_util/hw.h"

using qel_util::Crc32;

TEST(Crc32, CheckValues) {
  EXPECT_EQ(Crc32(nullptr, 0), 0u);
  EXPECT_EQ(Crc32("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(Crc32(std::vector<char>(252).data(), 252), 0xA66359F1u);
}

TEST(Crc32, MatchesZlibOnRandomBuffers) {
#if QEL_TEST_HAVE_ZLIB
  std::mt19937 random(20240611);
  std::uniform_int_distribution<size_t> anyLength(0, 65536);
  std::vector<uint8_t> buffer(65536 + 8);
  for (int i = 0; i <= 600; ++i) {
    // Every short length, then any up to 64 KiB, at every alignment.
    const size_t n = i <= 300 ? i : i == 301 ? 65536 : anyLength(random);
    const uint8_t* data = buffer.data() + i % 8;
    for (auto& b : buffer) b = static_cast<uint8_t>(random());
    ASSERT_EQ(Crc32(data, static_cast<unsigned>(n)),
              crc32(0L, data, static_cast<uInt>(n))) << "length " << n;
  }
#else
  GTEST_SKIP() << "no zlib for this target to compare with";
#endif
}
