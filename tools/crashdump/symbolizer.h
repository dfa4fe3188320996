// Turns the frames of one crash dump record into functions, source files
// and lines, or says for each frame why it cannot.

#ifndef QEL_CRASHDUMP_SYMBOLIZER_H_
#define QEL_CRASHDUMP_SYMBOLIZER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crashdump/binary.h"
#include "crashdump/dump_text.h"

namespace qel_crashdump {

struct SymbolizerOptions {
  std::string sysroot;      // the root the dump's absolute paths lie under
  DebugSearch debugSearch;  // where debug information is looked for
  std::int64_t dumpWritten = 0;  // when the dump was last written (ns); 0 unknown
};

class Symbolizer {
 public:
  explicit Symbolizer(SymbolizerOptions options);

  // The text for the frames of one record, innermost first: for each frame
  // "#N  FUNCTION at FILE:LINE (BINARY)" with a further line for each
  // function it was inlined into, or "#N  FRAME -- REASON" with the frame
  // as the dump gives it when it cannot be told.
  std::vector<std::string> Describe(const std::vector<FrameText>& frames);

 private:
  // The binary named `path` in the dump, opened once.
  Binary& Open(const std::string& path);

  // Why the frame at link-time `address` of `binary`, loaded at
  // `loadAddress` (one of `loadAddresses` that the record's frames give
  // it), cannot be told; empty when it can.
  std::string Mismatch(Binary& binary, std::uint64_t address, std::uint64_t loadAddress,
                       size_t loadAddresses, bool returnAddress) const;

  SymbolizerOptions m_options;
  std::map<std::string, std::unique_ptr<Binary>> m_binaries;
};

}  // namespace qel_crashdump

#endif  // QEL_CRASHDUMP_SYMBOLIZER_H_
