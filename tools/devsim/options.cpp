#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdlib>

#include "device_files.h"

namespace qel_devsim {
namespace {

// "HWID=" and the ID fill the record's 252 bytes behind its CRC, less the
// last one, where the reader ends the text.
constexpr size_t kMaxHwid = 252 - 5 - 1;

// Numbers as I2cAdapter names its devices ("/dev/i2c-%u", nine digits at
// most): "07" or "" would be a bus that no program can open.
bool IsBusList(const std::string& list) {
  for (size_t at = 0; at < list.size();) {
    const size_t comma = std::min(list.find(',', at), list.size());
    const std::string bus = list.substr(at, comma - at);
    if (bus.empty() || bus.size() > 9 || (bus[0] == '0' && bus.size() > 1) ||
        bus.find_first_not_of("0123456789") != std::string::npos)
      return false;
    at = comma + 1;
    if (at == list.size()) return false;  // a trailing comma
  }
  return true;
}

}  // namespace

const char kUsage[] =
    "usage: qel-devsim [OPTION...] [--] PROGRAM [ARG...]\n"
    "Runs PROGRAM as if on the device, in private namespaces (no sandbox: as\n"
    "root, PROGRAM keeps root's power over the host's files). The exit status\n"
    "is PROGRAM's (125: the simulator failed, 126: PROGRAM cannot run, 127:\n"
    "not found). A second SIGINT or SIGTERM kills PROGRAM.\n"
    "  --barcode TEXT     barcode= on the kernel command line of a fresh\n"
    "                     boot-loader environment ('' for none)\n"
    "  --nohwid           NOHWID on the kernel command line\n"
    "  --cmdline TEXT     the whole kernel command line instead\n"
    "  --serial HEX       serial number: last 12 hex digits of the eMMC CID\n"
    "  --cid HEX          the whole CID register (32 hex digits)\n"
    "  --hwid TEXT        hardware ID in the RPMB record of block 0 (<= 246 bytes)\n"
    "  --rpmb-image FILE  RPMB contents: 256 data bytes per block\n"
    "  --rpmb-result N    device result of every RPMB read (7: no key)\n"
    "  --fw-version TEXT  what the firmware version script prints\n"
    "  --i2c N[,N...]     emulated I2C buses ('' for none; default 0)\n"
    "  --network          bridge br0, role interfaces and neighbours\n"
    "  --neighbour IP=role|other|none  a neighbour (implies --network)\n"
    "  --syslog FILE      write syslog lines to FILE, not to stderr\n"
    "  --env FILE         keep the boot-loader environment in FILE\n"
    "  --keep DIR         keep /var/run and /home/root/log in DIR/run, DIR/log\n"
    "  --armhf-libs DIR   the armhf emulators for an armhf PROGRAM\n"
    "  --help             this text; see qel-devsim(1)\n";

std::string ParseOptions(int argc, char** argv, Options* o) {
  enum { kBarcode = 256, kNohwid, kCmdline, kSerial, kCid, kHwid, kImage,
         kResult, kFirmware, kI2c, kNetwork, kNeighbour, kSyslog, kEnv, kKeep,
         kArmhf, kHelp };
  static const option kLong[] = {
      {"barcode", 1, nullptr, kBarcode}, {"nohwid", 0, nullptr, kNohwid},
      {"cmdline", 1, nullptr, kCmdline}, {"serial", 1, nullptr, kSerial},
      {"cid", 1, nullptr, kCid}, {"hwid", 1, nullptr, kHwid},
      {"rpmb-image", 1, nullptr, kImage}, {"rpmb-result", 1, nullptr, kResult},
      {"fw-version", 1, nullptr, kFirmware}, {"i2c", 1, nullptr, kI2c},
      {"network", 0, nullptr, kNetwork}, {"neighbour", 1, nullptr, kNeighbour},
      {"syslog", 1, nullptr, kSyslog}, {"env", 1, nullptr, kEnv},
      {"keep", 1, nullptr, kKeep}, {"armhf-libs", 1, nullptr, kArmhf},
      {"help", 0, nullptr, kHelp}, {nullptr, 0, nullptr, 0}};
  bool lineParts = false;
  opterr = 0;
  optind = 1;
  for (int c; (c = getopt_long(argc, argv, "+", kLong, nullptr)) != -1;) {
    const std::string arg = optarg ? optarg : "";
    switch (c) {
      case kBarcode: o->barcode = arg; lineParts = true; break;
      case kNohwid: o->nohwid = lineParts = true; break;
      case kCmdline: o->cmdline = arg; o->cmdlineGiven = true; break;
      case kSerial:
        if (!IsHex(arg) || arg.size() > 12) return "--serial wants 1 to 12 hex digits";
        o->serial = arg;
        break;
      case kCid:
        if (!IsHex(arg, 32)) return "--cid wants 32 hex digits";
        o->cid = arg + "\n";
        break;
      case kHwid:
        if (arg.size() > kMaxHwid)
          return "--hwid wants at most " + std::to_string(kMaxHwid) + " bytes";
        o->hwid = arg;
        break;
      case kImage: o->rpmbImage = arg; break;
      case kResult: {
        char* end = nullptr;
        const long result = std::strtol(arg.c_str(), &end, 0);
        if (arg.empty() || *end || result < 0 || result > 0xffff)
          return "--rpmb-result wants a number from 0 to 0xffff";
        o->rpmbResult = arg;
        break;
      }
      case kFirmware: o->firmware = arg; break;
      case kI2c:
        if (!IsBusList(arg))
          return "--i2c wants bus numbers from 0 to 999999999 (no leading"
                 " zeros) separated by commas";
        o->i2c = arg;
        break;
      case kNeighbour: {
        Neighbour n;
        const std::string why = ParseNeighbour(arg, &n);
        if (!why.empty()) return "--neighbour: " + why;
        o->neighbours.push_back(n);
      }
        [[fallthrough]];
      case kNetwork: o->network = true; break;
      case kSyslog: o->syslogFile = arg; break;
      case kEnv: o->envFile = arg; break;
      case kKeep: o->keepDir = arg; break;
      case kArmhf: o->armhfLibs = arg; break;
      case kHelp: return "help";
      default:
        return std::string("unknown option or missing value: ") + argv[optind - 1];
    }
  }
  if (o->cmdlineGiven && lineParts)
    return "--cmdline gives the whole command line: put barcode= and NOHWID in it";
  if (o->network && o->neighbours.empty()) o->neighbours = DefaultNeighbours();
  for (int i = optind; i < argc; ++i) o->program.push_back(argv[i]);
  return o->program.empty() ? "no PROGRAM given" : "";
}

}  // namespace qel_devsim
