#include "qel_util/system.h"
#include "system/text.h"

namespace qel_util {
namespace system {

std::string fwVersionString() {
  // The script's text is the device image's business; only the line end it
  // happens to print is dropped.
  std::string version = exec("/usr/bin/ubi_get_volume_versions.sh");
  EraseTrailingSpace(version);
  return version;
}

}  // namespace system
}  // namespace qel_util
