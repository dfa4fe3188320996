#include <array>
#include <cstdint>

#include "qel_util/hw.h"

namespace qel_util {
namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit)
      value = (value & 1) ? (value >> 1) ^ 0xEDB88320u : value >> 1;
    table[i] = value;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = MakeTable();
static_assert(kTable[1] == 0x77073096u && kTable[255] == 0x2D02EF8Du,
              "reflected CRC-32 table");

}  // namespace

unsigned int Crc32(const void* data, unsigned int length) {
  if (length == 0) return 0;
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned int i = 0; i < length; ++i)
    crc = kTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

}  // namespace qel_util
