// qel-devinfo: prints what the device knows about itself (device ID, NOHWID
// flag, serial number, barcode, ASN, firmware version), as text or as JSON.

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

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
};

DeviceInfo Collect() {
  DeviceInfo info;
  info.deviceId = sys::GetDeviceID(info.deviceIdError);
  info.noHwid = sys::hasFlagNOHWID();
  info.serial = sys::serialNumberString();
  info.serialNumber = sys::serialNumber();
  info.barcode = sys::GetBarcode();
  info.asn = sys::GetBarcodeASN(&info.asnKey);
  info.firmware = sys::fwVersionString();
  return info;
}

// Length of the well-formed UTF-8 sequence at `s`, 0 when it is not one.
size_t Utf8Length(const unsigned char* s, size_t left) {
  size_t length;
  unsigned min;
  if (s[0] < 0x80) return 1;
  if ((s[0] & 0xE0) == 0xC0) length = 2, min = 0x80;
  else if ((s[0] & 0xF0) == 0xE0) length = 3, min = 0x800;
  else if ((s[0] & 0xF8) == 0xF0) length = 4, min = 0x10000;
  else return 0;
  if (length > left) return 0;
  unsigned code = s[0] & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
    code = code << 6 | (s[i] & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
    return 0;
  return length;
}

// A JSON string literal. The identity texts come from files and tools that
// promise no encoding: bytes that are no UTF-8 are written as the code
// points of the same value, so the output is always valid JSON.
std::string JsonString(const std::string& text) {
  std::string out = "\"";
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = s[i];
    const size_t length = Utf8Length(s + i, text.size() - i);
    char escaped[8];
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F || length == 0) {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out.append(text, i, length);
      i += length;
      continue;
    }
    ++i;
  }
  return out + "\"";
}

void PrintJson(const DeviceInfo& info) {
  std::printf(
      "{\n"
      "  \"deviceId\": %s,\n"
      "  \"deviceIdError\": %d,\n"
      "  \"noHwid\": %s,\n"
      "  \"serialNumber\": %s,\n"
      "  \"serialNumberValue\": %llu,\n"
      "  \"barcode\": %s,\n"
      "  \"asn\": %s,\n"
      "  \"asnKey\": %d,\n"
      "  \"firmwareVersion\": %s\n"
      "}\n",
      JsonString(info.deviceId).c_str(), info.deviceIdError,
      info.noHwid ? "true" : "false", JsonString(info.serial).c_str(),
      info.serialNumber, JsonString(info.barcode).c_str(),
      JsonString(info.asn).c_str(), info.asnKey,
      JsonString(info.firmware).c_str());
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
               "and the firmware version.\n",
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
  try {
    const DeviceInfo info = Collect();
    json ? PrintJson(info) : PrintText(info);
  } catch (const std::exception& e) {
    // Only running the firmware script can fail this way.
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
  return 0;
}
