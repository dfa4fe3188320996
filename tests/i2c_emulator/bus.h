#ifndef QEL_TESTS_I2C_EMULATOR_BUS_H_
#define QEL_TESTS_I2C_EMULATOR_BUS_H_

// One emulated I2C bus: the chips on it and what the adapter does with a
// transfer. Errors are negative errno values, as the kernel's.

#include <linux/i2c.h>

#include <cstddef>
#include <cstdint>

namespace i2c_emulator {

// 24c02 EEPROM: 256 bytes in 8-byte pages behind an address pointer.
constexpr uint16_t kEepromAddress = 0x50;
// LM75-style sensor: pointer register selecting temperature (read only,
// 25.5 degrees), configuration, hysteresis and over-temperature.
constexpr uint16_t kSensorAddress = 0x48;
// Held by a kernel driver: I2C_SLAVE refuses it, transfers still reach it.
constexpr uint16_t kClaimedAddress = 0x36;

// The fresh EEPROM holds byte i ^ 0x5a at offset i.
constexpr uint8_t kEepromFill = 0x5a;

struct Bus {
  uint32_t magic;
  uint8_t eeprom[256];
  uint8_t eepromPointer;
  uint8_t sensorPointer;
  uint8_t sensorConfig;
  uint16_t sensorHysteresis;
  uint16_t sensorLimit;
  uint8_t claimedChip[256];
  uint8_t claimedPointer;
};

// Puts the bus into its power-on state unless it already is set up.
void PowerOn(Bus& bus);

bool Claimed(uint16_t address);

// One combined transfer; 0 or -ENXIO when a message is not acknowledged.
int Transfer(Bus& bus, i2c_msg* messages, size_t count);

}  // namespace i2c_emulator

#endif  // QEL_TESTS_I2C_EMULATOR_BUS_H_
