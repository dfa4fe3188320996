#ifndef QEL_UTIL_QEL_UTIL_H_
#define QEL_UTIL_QEL_UTIL_H_

/// \file
/// Convenience header: every family of the library.

#include "qel_util/daemon.h"
#include "qel_util/hw.h"
#include "qel_util/ipc.h"
#include "qel_util/net.h"
#include "qel_util/system.h"

/// Everything of libqel_util. Failures are returned (bool, int codes, -1, ""
/// or 0), never thrown; the one exception is system::exec's
/// std::runtime_error, which also leaves the functions that run a command.
namespace qel_util {}

#endif  // QEL_UTIL_QEL_UTIL_H_
