#ifndef QEL_UTIL_QEL_UTIL_H_
#define QEL_UTIL_QEL_UTIL_H_

// Convenience header: every family of the library.
#include "qel_util/daemon.h"
#include "qel_util/hw.h"
#include "qel_util/ipc.h"
#include "qel_util/net.h"
#include "qel_util/system.h"

#endif  // QEL_UTIL_QEL_UTIL_H_
