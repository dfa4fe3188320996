#include "crashdump/binary.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qel_crashdump {
namespace {

std::string AttributeText(Dwarf_Die* die, unsigned int name) {
  Dwarf_Attribute attribute;
  const char* text = dwarf_formstring(dwarf_attr_integrate(die, name, &attribute));
  return text != nullptr ? text : "";
}

// A function's name as a person reads it: the demangled linkage name with
// its namespaces and parameters; for a function that has none in the debug
// information (one in an anonymous namespace) the symbol `symbol` at its
// address, when that is the function itself and not one it was inlined
// into; else the plain name (C functions, main).
std::string FunctionName(Dwarf_Die* die, const char* symbol) {
  std::string linkage = AttributeText(die, DW_AT_linkage_name);
  if (linkage.empty()) linkage = AttributeText(die, DW_AT_MIPS_linkage_name);
  if (linkage.empty() && symbol != nullptr && dwarf_tag(die) == DW_TAG_subprogram)
    linkage = std::string(symbol).substr(0, std::strcspn(symbol, "@"));
  if (!linkage.empty()) return Demangle(linkage);
  std::string name = AttributeText(die, DW_AT_name);
  return name.empty() ? "??" : name;
}

// Counts the call sites below `die` (inlined code and blocks included) and
// tells whether one of them returns to `target`.
void FindCallSites(Dwarf_Die* die, Dwarf_Addr target, int* sites, bool* found) {
  Dwarf_Die child;
  if (dwarf_child(die, &child) != 0) return;
  do {
    const int tag = dwarf_tag(&child);
    if (tag == DW_TAG_call_site || tag == DW_TAG_GNU_call_site) {
      ++*sites;
      Dwarf_Attribute attribute;
      Dwarf_Addr returnPc = 0;
      const unsigned int name =
          tag == DW_TAG_call_site ? DW_AT_call_return_pc : DW_AT_low_pc;
      if (dwarf_formaddr(dwarf_attr(&child, name, &attribute), &returnPc) == 0 &&
          returnPc == target)
        *found = true;
    } else {
      FindCallSites(&child, target, sites, found);
    }
  } while (dwarf_siblingof(&child, &child) == 0);
}

}  // namespace

std::int64_t NanosecondsOf(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

std::string Demangle(const std::string& symbol) {
  int status = 0;
  char* readable = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
  if (readable == nullptr) return symbol;
  std::string result = readable;
  std::free(readable);
  return result;
}

Binary::Binary(const std::string& file, const DebugSearch& search) {
  for (const std::string& folder : search.folders)
    m_debugPath += (m_debugPath.empty() ? "" : ":") + folder;
  m_debugPathPointer = m_debugPath.data();
  m_callbacks.find_elf = dwfl_build_id_find_elf;
  m_callbacks.find_debuginfo = dwfl_standard_find_debuginfo;
  m_callbacks.debuginfo_path = &m_debugPathPointer;

  struct stat status;
  if (stat(file.c_str(), &status) != 0) {
    m_error = file + ": " + std::strerror(errno);
    return;
  }
  m_modified = NanosecondsOf(status.st_mtim);
  m_dwfl = dwfl_begin(&m_callbacks);
  if (m_dwfl == nullptr) {
    m_error = dwfl_errmsg(-1);
    return;
  }
  dwfl_report_begin(m_dwfl);
  m_module = dwfl_report_elf(m_dwfl, file.c_str(), file.c_str(), -1, 0, false);
  dwfl_report_end(m_dwfl, nullptr, nullptr);
  if (m_module == nullptr) {
    m_error = file + ": " + dwfl_errmsg(-1);
    return;
  }
  GElf_Addr bias = 0;
  Elf* elf = dwfl_module_getelf(m_module, &bias);
  GElf_Ehdr header;
  if (elf == nullptr || gelf_getehdr(elf, &header) == nullptr) {
    m_error = file + ": not an ELF file";
    m_module = nullptr;
    return;
  }
  m_fixedAddress = header.e_type == ET_EXEC;
}

Binary::~Binary() {
  if (m_dwfl != nullptr) dwfl_end(m_dwfl);
}

std::string Binary::buildId() const {
  const unsigned char* bits = nullptr;
  GElf_Addr where = 0;
  const int length = m_module ? dwfl_module_build_id(m_module, &bits, &where) : 0;
  std::string hex;
  for (int i = 0; i < length; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", bits[i]);
    hex += digits;
  }
  return hex;
}

bool Binary::hasDebugInfo() {
  Dwarf_Addr bias = 0;
  return m_module != nullptr && dwfl_module_getdwarf(m_module, &bias) != nullptr;
}

bool Binary::FindSymbol(const std::string& name, std::uint64_t* address,
                        std::uint64_t* size) const {
  const int count = dwfl_module_getsymtab(m_module);
  for (int i = 1; i < count; ++i) {
    GElf_Sym symbol;
    GElf_Addr value = 0;
    GElf_Word section = 0;
    Elf* elf = nullptr;
    Dwarf_Addr bias = 0;
    const char* found = dwfl_module_getsym_info(m_module, i, &symbol, &value,
                                                &section, &elf, &bias);
    // The full symbol table names versioned aliases "NAME@VERSION".
    if (found != nullptr && section != SHN_UNDEF &&
        std::strncmp(found, name.c_str(), name.size()) == 0 &&
        (found[name.size()] == '\0' || found[name.size()] == '@')) {
      // The symbol's own value: on 32-bit ARM it carries the Thumb bit, as
      // does the offset that the dump counts from it.
      *address = symbol.st_value;
      *size = symbol.st_size;
      return true;
    }
  }
  return false;
}

bool Binary::IsCode(std::uint64_t address) const {
  GElf_Addr bias = 0;
  Elf* elf = dwfl_module_getelf(m_module, &bias);
  size_t count = 0;
  if (elf == nullptr || elf_getphdrnum(elf, &count) != 0) return false;
  for (size_t i = 0; i < count; ++i) {
    GElf_Phdr segment;
    if (gelf_getphdr(elf, static_cast<int>(i), &segment) == nullptr) continue;
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0 &&
        address >= segment.p_vaddr + bias &&
        address < segment.p_vaddr + bias + segment.p_memsz)
      return true;
  }
  return false;
}

std::vector<SourceFrame> Binary::Describe(std::uint64_t address) {
  std::vector<SourceFrame> frames;
  Dwarf_Addr bias = 0;
  Dwarf_Die* unit = dwfl_module_addrdie(m_module, address, &bias);
  if (unit == nullptr) return frames;
  std::string file;
  int line = 0;
  if (Dwfl_Line* where = dwfl_module_getsrc(m_module, address)) {
    const char* name = dwfl_lineinfo(where, nullptr, &line, nullptr, nullptr, nullptr);
    if (name != nullptr) file = name;
  }
  Dwarf_Files* files = nullptr;
  size_t fileCount = 0;
  if (dwarf_getsrcfiles(unit, &files, &fileCount) != 0) files = nullptr;
  Dwarf_Die* scopes = nullptr;
  const int count = dwarf_getscopes(unit, address - bias, &scopes);
  for (int i = 0; i < count; ++i) {
    const int tag = dwarf_tag(&scopes[i]);
    if (tag != DW_TAG_subprogram && tag != DW_TAG_inlined_subroutine &&
        tag != DW_TAG_entry_point)
      continue;
    frames.push_back({FunctionName(&scopes[i], dwfl_module_addrname(m_module, address)),
                      file, line});
    if (tag != DW_TAG_inlined_subroutine) break;
    // The caller's place is where the inlined code was called from.
    Dwarf_Attribute attribute;
    Dwarf_Word callFile = 0, callLine = 0;
    const char* name = nullptr;
    if (files != nullptr &&
        dwarf_formudata(dwarf_attr(&scopes[i], DW_AT_call_file, &attribute), &callFile) == 0)
      name = dwarf_filesrc(files, callFile, nullptr, nullptr);
    file = name != nullptr ? name : "";
    line = dwarf_formudata(dwarf_attr(&scopes[i], DW_AT_call_line, &attribute),
                           &callLine) == 0
               ? static_cast<int>(callLine)
               : 0;
  }
  std::free(scopes);
  return frames;
}

CallSite Binary::IsReturnAddress(std::uint64_t returnAddress) {
  Dwarf_Addr bias = 0;
  Dwarf_Die* unit = dwfl_module_addrdie(m_module, returnAddress - 1, &bias);
  // GCC records every call of an optimised function; clang only some, so
  // a missing one proves nothing there.
  if (unit == nullptr || AttributeText(unit, DW_AT_producer).compare(0, 4, "GNU ") != 0)
    return CallSite::kUnknown;
  Dwarf_Die* scopes = nullptr;
  const int count = dwarf_getscopes(unit, returnAddress - 1 - bias, &scopes);
  int function = -1;
  for (int i = 0; i < count; ++i)
    if (dwarf_tag(&scopes[i]) == DW_TAG_subprogram) function = i;
  int sites = 0;
  bool found = false;
  if (function >= 0) FindCallSites(&scopes[function], returnAddress - bias, &sites, &found);
  std::free(scopes);
  if (found) return CallSite::kYes;
  return sites == 0 ? CallSite::kUnknown : CallSite::kNo;
}

}  // namespace qel_crashdump
