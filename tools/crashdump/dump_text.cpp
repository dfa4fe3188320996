#include "crashdump/dump_text.h"

#include <regex>

namespace qel_crashdump {
namespace {

std::uint64_t Hex(const std::string& digits) {
  return std::stoull(digits, nullptr, 16);
}

}  // namespace

DumpLine ParseDumpLine(const std::string& line) {
  static const std::regex kHeader(
      R"(SIG[A-Z0-9]+ \([A-Z][a-z]{2} \d{2} \d{2}:\d{2}:\d{2}, pid -?\d+\))");
  static const std::regex kFrame(
      R"(([^\s()\[\]]+)\(([^()\s]*?)(?:\+0x([0-9a-fA-F]{1,16}))?\)\s?\[0x([0-9a-fA-F]{1,16})\])");
  static const std::regex kBareFrame(R"((?:^|\s)(\[0x([0-9a-fA-F]{1,16})\])\s*$)");
  DumpLine result;
  std::smatch match;
  if (std::regex_search(line, match, kHeader)) {
    result.kind = LineKind::kHeader;
    result.text = match.str(0);
  } else if (std::regex_search(line, match, kFrame)) {
    result.kind = LineKind::kFrame;
    result.frame.text = match.str(0);
    result.frame.binary = match.str(1);
    result.frame.symbol = match.str(2);
    result.frame.offset = match[3].matched ? Hex(match.str(3)) : 0;
    result.frame.address = Hex(match.str(4));
  } else if (std::regex_search(line, match, kBareFrame)) {
    result.kind = LineKind::kFrame;
    result.frame.text = match.str(1);
    result.frame.address = Hex(match.str(2));
  } else if (line == "------") {
    result.kind = LineKind::kSeparator;
    result.text = line;
  }
  return result;
}

}  // namespace qel_crashdump
