#ifndef QEL_UTIL_EXPORT_H_
#define QEL_UTIL_EXPORT_H_

// The library is built with hidden visibility; only declarations marked with
// QEL_UTIL_EXPORT are part of its ABI.
#if defined(QEL_UTIL_STATIC)
#define QEL_UTIL_EXPORT
#else
#define QEL_UTIL_EXPORT __attribute__((visibility("default")))
#endif

#endif  // QEL_UTIL_EXPORT_H_
