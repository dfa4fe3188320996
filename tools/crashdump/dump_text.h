// The text of a crash dump: the records of a dump file, or the LOG_CRIT
// lines that carried them to syslog, one line at a time.

#ifndef QEL_CRASHDUMP_DUMP_TEXT_H_
#define QEL_CRASHDUMP_DUMP_TEXT_H_

#include <cstdint>
#include <string>

namespace qel_crashdump {

// One stack frame as backtrace_symbols_fd writes it:
// "FILE(SYMBOL+0xOFFSET)[0xADDRESS]", "FILE(+0xOFFSET)[0xADDRESS]" (offset
// from the file's load address) or "[0xADDRESS]" alone.
struct FrameText {
  std::string text;     // the frame as it stands in the dump
  std::string binary;   // FILE; empty for a bare address
  std::string symbol;   // SYMBOL, mangled; empty for an offset-only frame
  std::uint64_t offset = 0;
  std::uint64_t address = 0;
};

enum class LineKind {
  kHeader,     // "SIGSEGV (Mar 07 14:03:59, pid 812)", a record's first line
  kFrame,
  kSeparator,  // "------", a record's last line in the dump file
  kOther,      // anything else: syslog lines of other programs, blank lines
};

struct DumpLine {
  LineKind kind = LineKind::kOther;
  std::string text;  // the header or separator as it stands
  FrameText frame;
};

// Classifies one line of a dump file or of syslog; in a syslog line the
// dump's text is found after the line's own prefix.
DumpLine ParseDumpLine(const std::string& line);

}  // namespace qel_crashdump

#endif  // QEL_CRASHDUMP_DUMP_TEXT_H_
