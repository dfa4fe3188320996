#include "crashdump/symbolizer.h"

#include <cstdio>
#include <set>
#include <utility>

namespace qel_crashdump {
namespace {

// The library's fatal-signal handler: the frame two below it (past the C
// library's signal return trampoline) is the interrupted instruction
// itself; every other frame is a return address, just after its call.
constexpr char kFaultHandler[] = "_ZN8qel_util10DaemonImpl12CatchExitAppEi";
// Shared objects and position-independent programs load at page
// boundaries.
constexpr std::uint64_t kPageSize = 4096;
constexpr char kNotTheSame[] = ": not the binary that crashed";

// A frame placed in its binary, or the reason it cannot be.
struct Placed {
  Binary* binary = nullptr;
  std::uint64_t address = 0;  // link-time address in `binary`
  std::string problem;
};

std::string Hex(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string Place(const SourceFrame& frame) {
  if (frame.file.empty()) return "??";
  return frame.file + ":" + std::to_string(frame.line);
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

Symbolizer::Symbolizer(SymbolizerOptions options) : m_options(std::move(options)) {}

Binary& Symbolizer::Open(const std::string& path) {
  std::unique_ptr<Binary>& binary = m_binaries[path];
  if (!binary) {
    const bool underRoot = !m_options.sysroot.empty() && path[0] == '/';
    binary = std::make_unique<Binary>(underRoot ? m_options.sysroot + path : path,
                                      m_options.debugSearch);
  }
  return *binary;
}

std::string Symbolizer::Mismatch(Binary& binary, std::uint64_t address,
                                 std::uint64_t loadAddress, size_t loadAddresses,
                                 bool returnAddress) const {
  if (loadAddresses > 1)
    return "its frames disagree on where it was loaded" + std::string(kNotTheSame);
  if (binary.fixedAddress() ? loadAddress != 0 : loadAddress % kPageSize != 0)
    return "it cannot have been loaded where this frame puts it" + std::string(kNotTheSame);
  if (!binary.IsCode(address)) return Hex(address) + " is not in its code" + kNotTheSame;
  if (m_options.dumpWritten != 0 && binary.modified() > m_options.dumpWritten)
    return "it was changed after the dump was written";
  if (!binary.hasDebugInfo()) {
    const std::string id = binary.buildId();
    return id.empty() ? "no debug information, and no build-id to find it by"
                      : "no debug information for build-id " + id;
  }
  if (returnAddress && binary.IsReturnAddress(address) == CallSite::kNo)
    return "no call returns to " + Hex(address) + kNotTheSame;
  return "";
}

std::vector<std::string> Symbolizer::Describe(const std::vector<FrameText>& frames) {
  std::vector<Placed> placed(frames.size());
  std::map<const Binary*, std::set<std::uint64_t>> loadAddresses;
  size_t fault = frames.size();
  for (size_t i = 0; i < frames.size(); ++i) {
    const FrameText& frame = frames[i];
    Placed& place = placed[i];
    if (frame.symbol == kFaultHandler && fault == frames.size()) fault = i + 2;
    if (frame.binary.empty()) {
      place.problem = "the dump names no file";
      continue;
    }
    Binary& binary = Open(frame.binary);
    if (!binary.error().empty()) {
      place.problem = binary.error();
      continue;
    }
    place.binary = &binary;
    if (frame.symbol.empty()) {
      place.address = frame.offset;
    } else {
      std::uint64_t start = 0, size = 0;
      if (!binary.FindSymbol(frame.symbol, &start, &size)) {
        place.problem = "it has no symbol " + frame.symbol + kNotTheSame;
        continue;
      }
      if (size != 0 && frame.offset > size) {
        place.problem = frame.symbol + " is only " + Hex(size) + " bytes long" + kNotTheSame;
        continue;
      }
      place.address = start + frame.offset;
    }
    loadAddresses[&binary].insert(frame.address - place.address);
  }

  // A binary is the one that crashed, or not: one frame that does not fit
  // it tells against all its frames in the record.
  std::set<const Binary*> foreign;
  for (size_t i = 0; i < frames.size(); ++i) {
    Placed& place = placed[i];
    if (place.problem.empty() && place.binary != nullptr)
      place.problem = Mismatch(*place.binary, place.address, frames[i].address - place.address,
                               loadAddresses[place.binary].size(), i != fault);
    if (place.problem.find(kNotTheSame) != std::string::npos) foreign.insert(place.binary);
  }

  std::vector<std::string> lines;
  for (size_t i = 0; i < frames.size(); ++i) {
    Placed& place = placed[i];
    if (place.problem.empty() && foreign.count(place.binary) != 0)
      place.problem = "other frames of it do not fit" + std::string(kNotTheSame);
    std::vector<SourceFrame> functions;
    if (place.problem.empty()) {
      functions = place.binary->Describe(i != fault ? place.address - 1 : place.address);
      if (functions.empty())
        place.problem = "its debug information covers no function at " + Hex(place.address);
    }

    const std::string number = "#" + std::to_string(i) + "  ";
    if (functions.empty()) {
      lines.push_back(number + frames[i].text + " -- " + place.problem);
      continue;
    }
    lines.push_back(number + functions[0].function + " at " + Place(functions[0]) + " (" +
                    BaseName(frames[i].binary) + ")");
    for (size_t j = 1; j < functions.size(); ++j)
      lines.push_back("    inlined into " + functions[j].function + " at " + Place(functions[j]));
  }
  return lines;
}

}  // namespace qel_crashdump
