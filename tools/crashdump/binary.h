// One program or library named by a crash dump, read through elfutils'
// libdwfl, with its debug information wherever that is found.

#ifndef QEL_CRASHDUMP_BINARY_H_
#define QEL_CRASHDUMP_BINARY_H_

#include <elfutils/libdwfl.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace qel_crashdump {

// Where debug information is looked for by build-id, in this order: each
// folder's .build-id/NN/REST.debug (a folder laid out like /usr/lib/debug,
// where the -dbgsym packages put theirs).
struct DebugSearch {
  std::vector<std::string> folders;
};

// A function at a code address: the innermost inlined one first, then the
// one it was inlined into, and so on out to the real function.
struct SourceFrame {
  std::string function;  // demangled
  std::string file;      // empty when the debug information names none
  int line = 0;
};

// Whether a code address is the return address of a call in the binary.
enum class CallSite { kYes, kNo, kUnknown };

class Binary {
 public:
  // Opens `file` at its link-time addresses; error() tells when it failed.
  Binary(const std::string& file, const DebugSearch& search);
  ~Binary();
  Binary(const Binary&) = delete;
  Binary& operator=(const Binary&) = delete;

  // Why the file cannot be read; empty when it can.
  const std::string& error() const { return m_error; }
  // Modification time of the file, in nanoseconds since the epoch.
  std::int64_t modified() const { return m_modified; }
  // A position-dependent executable loads at its link-time addresses.
  bool fixedAddress() const { return m_fixedAddress; }
  // The GNU build-id in hexadecimal; empty when the file has none.
  std::string buildId() const;
  // Whether debug information for the file was found (in it or apart).
  bool hasDebugInfo();

  // The link-time address and size of the symbol `name` (dynamic or
  // full symbol table); false when the file has no such symbol.
  bool FindSymbol(const std::string& name, std::uint64_t* address,
                  std::uint64_t* size) const;
  // Whether `address` lies in a loaded, executable segment.
  bool IsCode(std::uint64_t address) const;
  // The functions, files and lines at `address`; empty when the debug
  // information covers no function there.
  std::vector<SourceFrame> Describe(std::uint64_t address);
  // Whether `returnAddress` follows a call, by the debug information's
  // call sites of the function holding `returnAddress` - 1; kUnknown when
  // that function records none (code built without optimisation) or its
  // compiler records only some (clang).
  CallSite IsReturnAddress(std::uint64_t returnAddress);

 private:
  std::string m_debugPath;
  char* m_debugPathPointer = nullptr;
  Dwfl_Callbacks m_callbacks{};
  Dwfl* m_dwfl = nullptr;
  Dwfl_Module* m_module = nullptr;
  std::string m_error;
  std::int64_t m_modified = 0;
  bool m_fixedAddress = false;
};

// A file time as nanoseconds since the epoch.
std::int64_t NanosecondsOf(const timespec& time);

// The demangled form of a C++ symbol; anything else as it is.
std::string Demangle(const std::string& symbol);

}  // namespace qel_crashdump

#endif  // QEL_CRASHDUMP_BINARY_H_
