#ifndef QEL_UTIL_EXPORT_H_
#define QEL_UTIL_EXPORT_H_

/// \file
/// The export macro. The library is built with hidden visibility; only
/// declarations marked with QEL_UTIL_EXPORT are part of its ABI.

/// Marks a declaration as part of the library's ABI. Empty when the static
/// library is used (QEL_UTIL_STATIC, set by its CMake target).
#if defined(QEL_UTIL_STATIC)
#define QEL_UTIL_EXPORT
#else
#define QEL_UTIL_EXPORT __attribute__((visibility("default")))
#endif

#endif  // QEL_UTIL_EXPORT_H_
