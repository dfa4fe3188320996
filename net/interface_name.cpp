#include "net/interface_name.h"

#include <net/if.h>

#include <cctype>
#include <cstring>
#include <initializer_list>

namespace qel_util {

namespace {

bool IsPlainNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::isdigit(static_cast<unsigned char>(c)) || c == '_' || c == '.' ||
         c == ':' || c == '-';
}

}  // namespace

int ClassifyInterface(const char* name) {
  if (name == nullptr) return 0;
  for (const char* role : {"ap", "client", "mesh"}) {
    size_t length = std::strlen(role);
    if (std::strncmp(name, role, length) == 0)
      return std::isdigit(static_cast<unsigned char>(name[length])) ? 2 : 1;
  }
  return 1;
}

bool IsPlainInterfaceName(const char* name) {
  if (name == nullptr) return false;
  size_t length = 0;
  for (; name[length] != '\0'; ++length) {
    if (length == IFNAMSIZ - 1 || !IsPlainNameCharacter(name[length]))
      return false;
  }
  return length != 0;
}

}  // namespace qel_util
