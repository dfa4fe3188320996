#include "net/abstract_address.h"

#include <sys/socket.h>

#include <cstring>

namespace qel_util {

static_assert(kAbstractAddressLength == 110,
              "peers on the device expect a 110-byte address");

sockaddr_un AbstractAddress(const std::string& name) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  // One byte short of the path, so the path always ends in a zero byte.
  std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
  address.sun_path[0] = '\0';
  return address;
}

}  // namespace qel_util
