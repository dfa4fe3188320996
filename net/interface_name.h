#ifndef QEL_UTIL_NET_INTERFACE_NAME_H_
#define QEL_UTIL_NET_INTERFACE_NAME_H_

// What the device's interface naming tells about an interface.

namespace qel_util {

// 0 for a null name, 2 for a role interface ("ap", "client" or "mesh" with a
// decimal digit right behind), 1 for any other name.
int ClassifyInterface(const char* name);

// Whether `name` may go into a shell command as it is: 1 to IFNAMSIZ - 1
// characters, each a letter, a digit or one of "_.:-". The kernel accepts far
// more in a name (";", "$", "`", "|", ...), none of which a command line may
// see unquoted.
bool IsPlainInterfaceName(const char* name);

}  // namespace qel_util

#endif  // QEL_UTIL_NET_INTERFACE_NAME_H_
