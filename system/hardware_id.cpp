#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "qel_util/hw.h"
#include "qel_util/system.h"
#include "system/kernel_cmdline.h"

namespace qel_util {
namespace {

// Layout of the record in the data field of RPMB block 0.
constexpr size_t kCrcSize = 4;
constexpr size_t kRecordSize = 256;

constexpr int kNotInitialized = 1;
constexpr int kReadFailed = 2;
constexpr int kBadCrc = 3;
constexpr int kNoKey = 10;

uint32_t LoadLittleEndian32(const unsigned char* bytes) {
  return static_cast<uint32_t>(bytes[0]) |
         static_cast<uint32_t>(bytes[1]) << 8 |
         static_cast<uint32_t>(bytes[2]) << 16 |
         static_cast<uint32_t>(bytes[3]) << 24;
}

}  // namespace

MmcPrivateData::MmcPrivateData()
    : m_key("HWID="), m_address(0), m_blockCount(1) {}

MmcPrivateData::~MmcPrivateData() = default;

int MmcPrivateData::GetHardwareID(std::string& id) {
  id.clear();
  MmcPrivate mmc;
  std::vector<unsigned char> record;
  const int rc = mmc.ReadData(m_address, m_blockCount, record);
  if (rc == MmcPrivate::NoAuthenticationKey) return kNotInitialized;
  if (rc != MmcPrivate::Ok) return kReadFailed;

  if (Crc32(record.data() + kCrcSize, kRecordSize - kCrcSize) !=
      LoadLittleEndian32(record.data())) {
    std::fputs("# Failed to get HW ID: invalid CRC\n", stderr);
    return kBadCrc;
  }
  // The terminator makes the text end inside the record whatever it holds.
  record[kRecordSize - 1] = 0;
  const char* text = reinterpret_cast<const char*>(record.data() + kCrcSize);
  const char* key = std::strstr(text, m_key.c_str());
  if (key == nullptr) return kNoKey;
  id = key + m_key.size();
  return 0;
}

namespace system {

std::string GetDeviceID(int& error) {
  error = 0;
  std::string id;
  MmcPrivateData record;
  const int rc = record.GetHardwareID(id);
  if (rc == kNotInitialized) {
    error = 1;
    syslog(LOG_WARNING, "HWID: not initialized");
  } else if (rc != 0) {
    error = 2;
    syslog(LOG_ERR, "HWID: invalid ID, err %d", rc);
  }
  return id;
}

std::string GetDeviceID() {
  int error;
  return GetDeviceID(error);
}

bool hasFlagNOHWID() {
  return ReadKernelCmdline().find("NOHWID") != std::string::npos;
}

}  // namespace system
}  // namespace qel_util
