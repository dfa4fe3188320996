#ifndef QEL_DEVSIM_OPTIONS_H_
#define QEL_DEVSIM_OPTIONS_H_

#include <string>
#include <vector>

#include "network.h"

namespace qel_devsim {

// What the simulated device looks like; the defaults make a device whose
// every identity query succeeds.
struct Options {
  std::string cmdline;  // the whole kernel command line when cmdlineGiven
  bool cmdlineGiven = false;
  std::string barcode = "ASN=QEL0000001,BREV=R01";
  bool nohwid = false;
  std::string serial = "DE51A0000001";
  std::string cid;         // the whole CID when given; else from serial
  std::string hwid = "QEL-DEVSIM-0001";
  std::string rpmbImage;   // a file of 256-byte blocks instead of the record
  std::string rpmbResult;  // the device's result code for every read
  std::string firmware = "qel-devsim 1.0";
  std::string i2c = "0";   // bus numbers, "" for none
  bool network = false;
  std::vector<Neighbour> neighbours;
  std::string syslogFile;  // "" shows syslog on stderr
  std::string envFile;     // "" keeps the environment for this run only
  std::string keepDir;
  std::string armhfLibs;   // where the armhf emulators are
  std::vector<std::string> program;
};

// Fills `options` from the command line; "" when the program may run,
// "help" when the usage was asked for, else what is wrong.
std::string ParseOptions(int argc, char** argv, Options* options);

extern const char kUsage[];

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_OPTIONS_H_
