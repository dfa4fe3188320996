#ifndef QEL_UTIL_SYSTEM_TEXT_H_
#define QEL_UTIL_SYSTEM_TEXT_H_

#include <string>

namespace qel_util {
namespace system {

// Drops the characters at the end of `text` that isspace() classes as white
// space (taken as unsigned bytes), for text read from files and tools whose
// line ends vary.
void EraseTrailingSpace(std::string& text);

}  // namespace system
}  // namespace qel_util

#endif  // QEL_UTIL_SYSTEM_TEXT_H_
