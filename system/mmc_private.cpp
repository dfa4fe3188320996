#include <fcntl.h>
#include <linux/major.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "qel_util/system.h"

namespace qel_util {
namespace {

using DataFrame = MmcPrivate::DataFrame;

// The frame travels to the device byte for byte, so its layout must be the
// one of the eMMC standard on every ABI the library is built for.
static_assert(sizeof(DataFrame) == 512, "RPMB frame is 512 bytes");
static_assert(offsetof(DataFrame, keyMac) == 196, "keyMac offset");
static_assert(offsetof(DataFrame, data) == 228, "data offset");
static_assert(offsetof(DataFrame, nonce) == 484, "nonce offset");
static_assert(offsetof(DataFrame, writeCounter) == 500, "writeCounter offset");
static_assert(offsetof(DataFrame, address) == 504, "address offset");
static_assert(offsetof(DataFrame, blockCount) == 506, "blockCount offset");
static_assert(offsetof(DataFrame, result) == 508, "result offset");
static_assert(offsetof(DataFrame, reqResp) == 510, "reqResp offset");
// An armhf caller and a 64-bit kernel (or emulator) must agree on the
// command: its data pointer travels in a 64-bit field on every ABI.
static_assert(sizeof(mmc_ioc_cmd) == 72 && offsetof(mmc_ioc_cmd, data_ptr) == 64,
              "MMC_IOC_CMD layout is the same on 32 and 64 bits");

constexpr const char* kDevice = "/dev/mmcblk0rpmb";
constexpr uint16_t kAuthenticatedDataRead = 0x0004;
constexpr unsigned kOpWriteMultipleBlock = 25;
constexpr unsigned kOpReadMultipleBlock = 18;
// R1 response to an addressed data-transfer command: MMC_RSP_PRESENT |
// MMC_RSP_CRC | MMC_RSP_OPCODE | MMC_CMD_ADTC. The kernel keeps these
// constants out of its user headers.
constexpr unsigned kFlagsR1Adtc = 0x01 | 0x04 | 0x10 | 0x20;
constexpr int kLogUserErr = LOG_USER | LOG_ERR;

uint16_t LoadBigEndian16(const uint8_t (&field)[2]) {
  return static_cast<uint16_t>(field[0] << 8 | field[1]);
}

void StoreBigEndian16(uint8_t (&field)[2], uint16_t value) {
  field[0] = static_cast<uint8_t>(value >> 8);
  field[1] = static_cast<uint8_t>(value);
}

void SetDataCommand(mmc_ioc_cmd& cmd, bool write, unsigned opcode,
                    unsigned blocks, const void* frames) {
  cmd.write_flag = write ? 1 : 0;
  cmd.opcode = opcode;
  cmd.arg = 0;
  cmd.flags = kFlagsR1Adtc;
  cmd.blksz = sizeof(DataFrame);
  cmd.blocks = blocks;
  mmc_ioc_cmd_set_data(cmd, frames);
}

}  // namespace

MmcPrivate::MmcPrivate()
    : m_resultMask(0x007F), m_fd(open(kDevice, O_RDWR)), m_blockLimit(512) {}

MmcPrivate::~MmcPrivate() {
  if (m_fd >= 0) close(m_fd);
}

int MmcPrivate::RunCommand(const DataFrame* request,
                           std::vector<DataFrame>& responses) {
  if (m_fd < 0) return -EBADF;
  if (request == nullptr) return -EINVAL;
  if (responses.empty()) return -EINVAL;
  std::memset(responses.data(), 0, responses.size() * sizeof(DataFrame));
  const uint16_t type = LoadBigEndian16(request->reqResp);

  // The header and its two commands in one zero-filled allocation, laid out
  // as struct mmc_ioc_multi_cmd with its flexible array.
  const size_t size = sizeof(mmc_ioc_multi_cmd) + 2 * sizeof(mmc_ioc_cmd);
  auto* multi = static_cast<mmc_ioc_multi_cmd*>(std::calloc(1, size));
  if (multi == nullptr) return -ENOMEM;
  if (type != kAuthenticatedDataRead) {
    std::free(multi);
    return -EINVAL;
  }
  multi->num_of_cmds = 2;
  SetDataCommand(multi->cmds[0], true, kOpWriteMultipleBlock, 1, request);
  SetDataCommand(multi->cmds[1], false, kOpReadMultipleBlock,
                 responses.size() * sizeof(DataFrame) / 512,
                 responses.data());
  const int rc = ioctl(m_fd, MMC_IOC_MULTI_CMD, multi);
  std::free(multi);
  return rc;
}

std::string MmcPrivate::GetErrorString(ResultType result) {
  switch (result) {
    case GeneralFailure: return "General failure";
    case AuthenticationFailure: return "Authentication failure";
    case CounterFailure: return "Counter failure";
    case AddressFailure: return "Address failure";
    case WriteFailure: return "Write failure";
    case ReadFailure: return "Read failure";
    case NoAuthenticationKey: return "No authentication Key";
    default: return "Unknown";
  }
}

void MmcPrivate::PrintErrorMsg(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list forSyslog;
  va_copy(forSyslog, args);
  std::vfprintf(stderr, format, args);
  vsyslog(kLogUserErr, format, forSyslog);
  va_end(forSyslog);
  va_end(args);
}

int MmcPrivate::ReadData(unsigned short address, unsigned short count,
                         std::vector<unsigned char>& buffer) {
  if (m_fd < 0) {
    PrintErrorMsg("# Failed to read data: invalid device fd [ID_IO]\n");
    return GeneralFailure;
  }
  // The sum is compared in int, so 0xFFFF + 1 cannot wrap below the limit.
  if (count == 0 || address >= m_blockLimit ||
      address + count >= m_blockLimit) {
    PrintErrorMsg("# Failed to read data: out of range [ID_IO]\n");
    return GeneralFailure;
  }
  DataFrame request{};
  StoreBigEndian16(request.reqResp, kAuthenticatedDataRead);
  StoreBigEndian16(request.address, address);
  std::vector<DataFrame> responses(count, DataFrame{});

  const int rc = RunCommand(&request, responses);
  if (rc != 0) {
    PrintErrorMsg("# Failed to read data: error %d [ID_IO]\n", rc);
    return GeneralFailure;
  }
  buffer.clear();
  const int result = LoadBigEndian16(responses.back().result) & m_resultMask;
  if (result != Ok) {
    PrintErrorMsg("# Failed to read data: internal error '%s' [ID_IO]\n",
                  GetErrorString(static_cast<ResultType>(result)).c_str());
    return result;
  }
  buffer.reserve(count * sizeof request.data);
  for (const DataFrame& frame : responses)
    buffer.insert(buffer.end(), std::begin(frame.data), std::end(frame.data));
  return Ok;
}

}  // namespace qel_util
