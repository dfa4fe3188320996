// Prints how each IPv4 address given on the command line is reached:
// "<address> <result>" per line, where 2 means through a role interface
// (ap, client or mesh and a digit), 1 through another interface and 0 not
// known.

#include <cstdio>
#include <exception>

#include "qel_util/net.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s ADDRESS...\n", argv[0]);
    return 2;
  }
  try {
    for (int i = 1; i < argc; ++i)
      std::printf("%s %d\n", argv[i], qel_util::CheckIPv4Address(argv[i]));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
