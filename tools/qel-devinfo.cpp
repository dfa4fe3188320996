// qel-devinfo: prints what the device knows about itself (device ID, NOHWID
// flag, serial number, barcode, ASN, firmware version), as text or as JSON.
// Every query is made even when another one fails; what could be read is
// printed, each failure is named on stderr (and under "failed" in JSON), and
// the exit status is 0 only when every query succeeded.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "qel_util/system.h"

namespace {

namespace sys = qel_util::system;

struct DeviceInfo {
  std::string deviceId;
  int deviceIdError = 0;
  bool noHwid = false;
  std::string serial;
  unsigned long long serialNumber = 0;
  std::string barcode;
  std::string asn;
  int asnKey = 0;
  std::string firmware;
  std::vector<std::string> failed;  // the JSON names of the failed queries
};

// The barcode comes from the kernel command line, whose closing newline the
// library keeps when the barcode is its last parameter; it is no part of
// the value and would only break the output's lines.
std::string WithoutNewline(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
  return text;
}

// Runs one query, which returns "" on success or what went wrong. A failure
// or an exception is reported and the remaining queries still run.
template <typename Query>
void Ask(DeviceInfo& info, const char* name, Query query) {
  std::string problem;
  try {
    problem = query();
  } catch (const std::exception& e) {
    problem = e.what();
  }
  if (problem.empty()) return;
  std::fprintf(stderr, "qel-devinfo: %s: %s\n", name, problem.c_str());
  info.failed.push_back(name);
}

DeviceInfo Collect() {
  DeviceInfo info;
  Ask(info, "deviceId", [&] {
    info.deviceId = sys::GetDeviceID(info.deviceIdError);
    return info.deviceIdError == 0
               ? std::string()
               : "error " + std::to_string(info.deviceIdError);
  });
  Ask(info, "noHwid", [&] {
    info.noHwid = sys::hasFlagNOHWID();
    return std::string();
  });
  Ask(info, "serialNumber", [&] {
    info.serial = sys::serialNumberString();
    info.serialNumber = sys::serialNumber();
    return info.serial.empty() ? std::string("unreadable") : std::string();
  });
  Ask(info, "barcode", [&] {
    info.barcode = WithoutNewline(sys::GetBarcode());
    return std::string();
  });
  Ask(info, "asn", [&] {
    info.asn = WithoutNewline(sys::GetBarcodeASN(&info.asnKey));
    return std::string();
  });
  Ask(info, "firmwareVersion", [&] {
    info.firmware = sys::fwVersionString();
    return std::string();
  });
  return info;
}

void PrintJson(const DeviceInfo& info) {
  const nlohmann::ordered_json json = {
      {"deviceId", info.deviceId},
      {"deviceIdError", info.deviceIdError},
      {"noHwid", info.noHwid},
      {"serialNumber", info.serial},
      {"serialNumberValue", info.serialNumber},
      {"barcode", info.barcode},
      {"asn", info.asn},
      {"asnKey", info.asnKey},
      {"firmwareVersion", info.firmware},
      {"failed", info.failed},
  };
  // The identity texts come from files and tools that promise no encoding:
  // a byte that is no UTF-8 becomes U+FFFD, so the output stays valid JSON.
  std::printf("%s\n",
              json.dump(2, ' ', false,
                        nlohmann::ordered_json::error_handler_t::replace)
                  .c_str());
}

void PrintText(const DeviceInfo& info) {
  std::printf("device ID:        %s (error %d)\n", info.deviceId.c_str(),
              info.deviceIdError);
  std::printf("NOHWID flag:      %s\n", info.noHwid ? "yes" : "no");
  std::printf("serial number:    %s (%llu)\n", info.serial.c_str(),
              info.serialNumber);
  std::printf("barcode:          %s\n", info.barcode.c_str());
  std::printf("ASN:              %s (key %d)\n", info.asn.c_str(),
              info.asnKey);
  std::printf("firmware version: %s\n", info.firmware.c_str());
}

int Usage(const char* program, FILE* out, int status) {
  std::fprintf(out,
               "usage: %s [--json]\n"
               "Prints the device ID (with its error code), the NOHWID flag, "
               "the serial number,\nthe barcode, the ASN with its key number "
               "and the firmware version. Exit status\n0 when every query "
               "succeeded, 1 when any failed (named on stderr).\n",
               program);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) json = true;
    else if (std::strcmp(argv[i], "--help") == 0 ||
             std::strcmp(argv[i], "-h") == 0)
      return Usage(argv[0], stdout, 0);
    else
      return Usage(argv[0], stderr, 2);
  }
  const DeviceInfo info = Collect();
  json ? PrintJson(info) : PrintText(info);
  return info.failed.empty() ? 0 : 1;
}
