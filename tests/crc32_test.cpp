// CRC-32 against the published check values and against zlib's crc32 on
// random data (when the build has zlib for the target).

#if QEL_TEST_HAVE_ZLIB
#include <zlib.h>
#endif

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "qel_util/hw.h"

namespace {

using qel_util::Crc32;

#if QEL_TEST_HAVE_ZLIB
constexpr bool kHaveZlib = true;

unsigned int Reference(const std::vector<uint8_t>& bytes) {
  return static_cast<unsigned int>(
      crc32(0L, bytes.data(), static_cast<uInt>(bytes.size())));
}
#else
constexpr bool kHaveZlib = false;

unsigned int Reference(const std::vector<uint8_t>&) { return 0; }
#endif

#define QEL_REQUIRE_ZLIB()                                      \
  do {                                                          \
    if (!kHaveZlib)                                             \
      GTEST_SKIP() << "no zlib for this target to compare with"; \
  } while (0)

TEST(Crc32, EmptyBufferIsZeroWithoutReadingThePointer) {
  EXPECT_EQ(Crc32(nullptr, 0), 0x00000000u);
  const char byte = 'x';
  EXPECT_EQ(Crc32(&byte, 0), 0x00000000u);
}

TEST(Crc32, CheckValues) {
  EXPECT_EQ(Crc32("123456789", 9), 0xCBF43926u);
  const uint8_t zero = 0x00, a = 0x61;
  EXPECT_EQ(Crc32(&zero, 1), 0xD202EF8Du);
  EXPECT_EQ(Crc32(&a, 1), 0xE8B7BE43u);
  const uint8_t ones[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(Crc32(ones, 4), 0xFFFFFFFFu);
  // An all-zero hardware-ID record needs this in its CRC field.
  const std::vector<uint8_t> zeros(252, 0);
  EXPECT_EQ(Crc32(zeros.data(), 252), 0xA66359F1u);
}

TEST(Crc32, MatchesZlibOnRandomBuffers) {
  QEL_REQUIRE_ZLIB();
  std::mt19937 random(20240611);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);  // every tail case
  for (size_t n : {1023, 1024, 4095, 4096, 4097, 65535, 65536})
    lengths.push_back(n);
  std::uniform_int_distribution<size_t> anyLength(0, 65536);
  for (int i = 0; i < 200; ++i) lengths.push_back(anyLength(random));

  for (size_t length : lengths) {
    std::vector<uint8_t> buffer(length);
    for (auto& b : buffer) b = static_cast<uint8_t>(byte(random));
    ASSERT_EQ(Crc32(buffer.data(), static_cast<unsigned int>(length)),
              Reference(buffer))
        << "length " << length;
  }
}

TEST(Crc32, SeesEveryBitAndPosition) {
  // A checksum that skipped a byte or a bit would miss one of these flips.
  std::vector<uint8_t> buffer(64, 0x5A);
  const unsigned int base = Crc32(buffer.data(), 64);
  for (size_t i = 0; i < buffer.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      buffer[i] ^= static_cast<uint8_t>(1u << bit);
      EXPECT_NE(Crc32(buffer.data(), 64), base) << i << ":" << bit;
      if (kHaveZlib) {
        EXPECT_EQ(Crc32(buffer.data(), 64), Reference(buffer));
      }
      buffer[i] ^= static_cast<uint8_t>(1u << bit);
    }
  }
}

TEST(Crc32, UnalignedStartsAgreeWithZlib) {
  QEL_REQUIRE_ZLIB();
  std::vector<uint8_t> buffer(1000);
  for (size_t i = 0; i < buffer.size(); ++i)
    buffer[i] = static_cast<uint8_t>(i * 7 + 3);
  for (size_t offset = 0; offset < 8; ++offset) {
    std::vector<uint8_t> tail(buffer.begin() + offset, buffer.end());
    EXPECT_EQ(Crc32(buffer.data() + offset,
                    static_cast<unsigned int>(tail.size())),
              Reference(tail));
  }
}

}  // namespace
