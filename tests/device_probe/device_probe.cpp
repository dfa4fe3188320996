// Calls the library from its own process, so that a test can start it with
// the emulators preloaded or under qel-devsim:
//   device_probe read ADDRESS COUNT FILE  ReadData into 1000 bytes 0xEE;
//                                         prints "<result> <size>", buffer
//                                         to FILE
//   device_probe hwid                     prints "<code> [<id>]"
//   device_probe deviceid                 prints "<error> [<id>]"
//   device_probe setasn ASN               SetBarcodeASN; prints 1 or 0

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qel_util/system.h"

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  std::string id = "left over";
  int code = -1;
  if (command == "read" && argc == 5) {
    std::vector<unsigned char> buffer(1000, 0xEE);
    code = qel_util::MmcPrivate().ReadData(
        static_cast<unsigned short>(std::strtoul(argv[2], nullptr, 0)),
        static_cast<unsigned short>(std::strtoul(argv[3], nullptr, 0)), buffer);
    std::printf("%d %zu\n", code, buffer.size());
    FILE* out = std::fopen(argv[4], "wb");
    if (out == nullptr) return 2;
    std::fwrite(buffer.data(), 1, buffer.size(), out);
    return std::fclose(out) == 0 ? 0 : 2;
  }
  if (command == "hwid") {
    code = qel_util::MmcPrivateData().GetHardwareID(id);
  } else if (command == "setasn" && argc == 3) {
    return std::printf("%d\n", qel_util::system::SetBarcodeASN(argv[2])) < 0;
  } else if (command == "deviceid") {
    id = qel_util::system::GetDeviceID(code);
  } else {
    return 2;
  }
  std::printf("%d [%s]\n", code, id.c_str());
  return 0;
}
