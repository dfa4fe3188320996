#ifndef QEL_UTIL_NET_ABSTRACT_ADDRESS_H_
#define QEL_UTIL_NET_ABSTRACT_ADDRESS_H_

#include <sys/un.h>

#include <string>

namespace qel_util {

// Every bind and every send uses the whole structure, so the zero bytes after
// the name are part of the address: only peers that build their addresses
// the same way meet.
constexpr unsigned int kAbstractAddressLength = sizeof(sockaddr_un);

// The abstract address of a socket name. The name's first character is a
// marker, overwritten by the leading zero byte; at most 106 characters after
// it count, and the rest of the path is zero.
sockaddr_un AbstractAddress(const std::string& name);

}  // namespace qel_util

#endif  // QEL_UTIL_NET_ABSTRACT_ADDRESS_H_
