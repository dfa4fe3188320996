// A service program reduced to what proves the link: the convenience header
// compiles on its own and calls into the shared library resolve and work.

#include <cstdio>

#include <qel_util/qel_util.h>

int main() {
  const char kCheck[] = "123456789";
  unsigned int crc = qel_util::Crc32(kCheck, sizeof kCheck - 1);
  std::string trimmed = qel_util::system::TrimSpace(" \tqel\n");
  std::printf("%08x %s\n", crc, trimmed.c_str());
  return crc == 0xcbf43926u && trimmed == "qel" ? 0 : 1;
}
