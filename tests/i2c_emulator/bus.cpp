#include "bus.h"

#include <cerrno>

namespace i2c_emulator {

namespace {

constexpr uint32_t kMagic = 0x12c0b05u;
constexpr uint16_t kTemperature = 0x1980;  // 25.5 degrees, 9-bit format

void EepromWrite(Bus& bus, const uint8_t* data, size_t length) {
  if (length == 0) return;
  bus.eepromPointer = data[0];
  // Within a write the pointer rolls over inside its 8-byte page.
  for (size_t i = 1; i < length; ++i) {
    bus.eeprom[bus.eepromPointer] = data[i];
    bus.eepromPointer = static_cast<uint8_t>((bus.eepromPointer & ~7u) |
                                             ((bus.eepromPointer + 1) & 7u));
  }
}

void EepromRead(Bus& bus, uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i) data[i] = bus.eeprom[bus.eepromPointer++];
}

uint16_t* SensorWord(Bus& bus) {
  if (bus.sensorPointer == 2) return &bus.sensorHysteresis;
  if (bus.sensorPointer == 3) return &bus.sensorLimit;
  return nullptr;
}

void SensorWrite(Bus& bus, const uint8_t* data, size_t length) {
  if (length == 0) return;
  bus.sensorPointer = data[0] & 3;
  if (length < 2) return;
  if (bus.sensorPointer == 1) {
    bus.sensorConfig = data[1];
  } else if (uint16_t* word = SensorWord(bus); word && length >= 3) {
    *word = static_cast<uint16_t>((data[1] << 8 | data[2]) & 0xff80);
  }
}

// A register read past its width repeats the register.
void SensorRead(Bus& bus, uint8_t* data, size_t length) {
  if (bus.sensorPointer == 1) {
    for (size_t i = 0; i < length; ++i) data[i] = bus.sensorConfig;
    return;
  }
  uint16_t* word = SensorWord(bus);
  uint16_t value = word ? *word : kTemperature;
  for (size_t i = 0; i < length; ++i)
    data[i] = static_cast<uint8_t>(i % 2 == 0 ? value >> 8 : value);
}

void ClaimedWrite(Bus& bus, const uint8_t* data, size_t length) {
  if (length == 0) return;
  bus.claimedPointer = data[0];
  for (size_t i = 1; i < length; ++i)
    bus.claimedChip[bus.claimedPointer++] = data[i];
}

void ClaimedRead(Bus& bus, uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i)
    data[i] = bus.claimedChip[bus.claimedPointer++];
}

}  // namespace

void PowerOn(Bus& bus) {
  if (bus.magic == kMagic) return;
  for (int i = 0; i < 256; ++i)
    bus.eeprom[i] = static_cast<uint8_t>(i ^ kEepromFill);
  bus.eepromPointer = 0;
  bus.sensorPointer = 0;
  bus.sensorConfig = 0;
  bus.sensorHysteresis = 0x4b00;  // 75 degrees
  bus.sensorLimit = 0x5000;       // 80 degrees
  for (auto& byte : bus.claimedChip) byte = 0;
  bus.claimedPointer = 0;
  bus.magic = kMagic;
}

bool Claimed(uint16_t address) { return address == kClaimedAddress; }

int Transfer(Bus& bus, i2c_msg* messages, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    i2c_msg& m = messages[i];
    bool read = (m.flags & I2C_M_RD) != 0;
    switch (m.addr) {
      case kEepromAddress:
        read ? EepromRead(bus, m.buf, m.len) : EepromWrite(bus, m.buf, m.len);
        break;
      case kSensorAddress:
        read ? SensorRead(bus, m.buf, m.len) : SensorWrite(bus, m.buf, m.len);
        break;
      case kClaimedAddress:
        read ? ClaimedRead(bus, m.buf, m.len) : ClaimedWrite(bus, m.buf, m.len);
        break;
      default:
        return -ENXIO;  // nobody acknowledged the address
    }
  }
  return 0;
}

}  // namespace i2c_emulator
