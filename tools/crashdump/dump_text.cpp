#include "crashdump/dump_text.h"

#include <cctype>

namespace qel_crashdump {
namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// The text [begin, end) of `line` as "0x" and 1 to 16 hexadecimal digits.
bool ReadHex(const std::string& line, size_t begin, size_t end, std::uint64_t* value) {
  if (end < begin + 3 || end > begin + 18 || line.compare(begin, 2, "0x") != 0) return false;
  for (size_t i = begin + 2; i < end; ++i)
    if (std::isxdigit(static_cast<unsigned char>(line[i])) == 0) return false;
  *value = std::stoull(line.substr(begin + 2, end - begin - 2), nullptr, 16);
  return true;
}

// Whether `line` holds, from `at`, the text of `shape`: in it 'A' stands for
// one or more capital letters or digits, 'U' for a capital letter, 'a' for a
// small one, '9' for a digit and 'N' for a number that may be negative.
// Gives the end of the match, or npos.
size_t MatchShape(const std::string& line, size_t at, const char* shape) {
  for (; *shape != '\0'; ++shape) {
    const unsigned char c = at < line.size() ? line[at] : '\0';
    switch (*shape) {
      case 'A':
        if (!std::isupper(c) && !IsDigit(c)) return std::string::npos;
        while (at < line.size() && (std::isupper(static_cast<unsigned char>(line[at])) ||
                                    IsDigit(line[at])))
          ++at;
        continue;
      case 'N':
        if (c == '-') ++at;
        if (at >= line.size() || !IsDigit(line[at])) return std::string::npos;
        while (at < line.size() && IsDigit(line[at])) ++at;
        continue;
      case 'U':
        if (!std::isupper(c)) return std::string::npos;
        break;
      case 'a':
        if (!std::islower(c)) return std::string::npos;
        break;
      case '9':
        if (!IsDigit(c)) return std::string::npos;
        break;
      default:
        if (c != static_cast<unsigned char>(*shape)) return std::string::npos;
    }
    ++at;
  }
  return at;
}

// A frame at the end of `line`; false when there is none.
bool ParseFrame(const std::string& line, FrameText* frame) {
  const size_t close = line.find_last_not_of(" \t\r");
  if (close == std::string::npos || line[close] != ']') return false;
  const size_t open = line.rfind('[', close);
  if (open == std::string::npos || !ReadHex(line, open + 1, close, &frame->address))
    return false;
  // backtrace_symbols_fd writes "FILE(...)[0x...]", backtrace_symbols (and
  // so syslog) "FILE(...) [0x...]".
  const size_t end = open > 0 && line[open - 1] == ' ' ? open - 1 : open;
  if (end == 0 || line[end - 1] != ')') {
    if (open != 0 && line[open - 1] != ' ') return false;
    frame->text = line.substr(open, close + 1 - open);
    return true;
  }
  const size_t paren = line.rfind('(', end - 1);
  if (paren == std::string::npos) return false;
  const size_t blank = line.find_last_of(' ', paren);
  const size_t start = blank == std::string::npos ? 0 : blank + 1;
  if (start == paren) return false;
  const size_t plus = line.rfind('+', end - 1);
  if (plus != std::string::npos && plus > paren) {
    if (!ReadHex(line, plus + 1, end - 1, &frame->offset)) return false;
    frame->symbol = line.substr(paren + 1, plus - paren - 1);
  } else {
    frame->symbol = line.substr(paren + 1, end - 1 - paren - 1);
  }
  frame->binary = line.substr(start, paren - start);
  frame->text = line.substr(start, close + 1 - start);
  return true;
}

}  // namespace

DumpLine ParseDumpLine(const std::string& line) {
  DumpLine result;
  for (size_t at = line.find("SIG"); at != std::string::npos; at = line.find("SIG", at + 1)) {
    const size_t end = MatchShape(line, at, "SIGA (Uaa 99 99:99:99, pid N)");
    if (end != std::string::npos) {
      result.kind = LineKind::kHeader;
      result.text = line.substr(at, end - at);
      return result;
    }
  }
  if (ParseFrame(line, &result.frame)) {
    result.kind = LineKind::kFrame;
  } else if (line == "------") {
    result.kind = LineKind::kSeparator;
    result.text = line;
  }
  return result;
}

}  // namespace qel_crashdump
