// FunctionCollector: what the modules say of functions: procedures, thunks, parts that the compiler
// separated from their function, blocks of lines and inline sites. Only places are kept: names,
// lines and annotations stay in the mapped file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/section_map.h"

namespace symforge_internal {

// A procedure or thunk. RVAs are those of the image as it was linked.
struct CollectedFunction {
  DataPtr<char> name;  // NUL-terminated
  uint32_t rva = 0;
  uint32_t length = 0;     // bytes of code; 0 for a thunk that is nested in nothing
  uint32_t typeIndex = 0;  // 0: none
  uint32_t module = 0;     // position in the list of modules
  uint32_t firstSite = 0;  // of siteCount entries of sites()
  uint32_t siteCount = 0;
};

// A part of a function that the compiler moved away from it.
struct SeparatedCode {
  uint32_t rva = 0;
  uint32_t length = 0;
  uint32_t functionRva = 0;  // some address of the function
  uint32_t module = 0;
};

// A subsection with the lines of some code.
struct LineBlock {
  uint32_t rva = 0;      // of the first byte that the offsets of its records count from
  uint32_t payload = 0;  // offset in the module's stream
  uint32_t end = 0;      // offset one past the payload
};

class FunctionCollector {
 public:
  // Marks the end of the last open inline site in sites().
  static constexpr uint32_t kSiteEnd = 0;

  // `sections` must outlive this. `withInlines`: whether inline sites are noted.
  FunctionCollector(const SectionMap& sections, bool withInlines)
      : m_sections(sections), m_withInlines(withInlines) {}
  FunctionCollector(FunctionCollector&&) = default;

  // Reads all modules, whose streams must exist. A module whose streams end too early or are
  // damaged loses what is left of it. Code in sections that the image does not have is left out. To
  // be called once.
  void collect(const ModuleStreams& modules);

  // The same in parts, of which each is read by a collector of its own: the modules at `first` ...
  // `end` - 1. Then the parts are joined, in the order of the modules. To be called once.
  void collectPart(const ModuleStreams& modules, const std::vector<bool>& repeated, size_t first,
                   size_t end);
  void join(std::span<FunctionCollector> parts);

  // The modules that share the stream of an earlier one: they would be read again and again.
  static std::vector<bool> repeatedStreams(const ModuleStreams& modules);

  // In the order of the modules and their symbols.
  const std::vector<CollectedFunction>& functions() const { return m_functions; }
  const std::vector<SeparatedCode>& separatedCode() const { return m_separated; }

  // The symbols of the inline sites of a function, as offsets in the module's stream, in their
  // order; kSiteEnd for the end of a site.
  std::span<const uint32_t> sites(const CollectedFunction& function) const {
    return {m_sites.data() + function.firstSite, function.siteCount};
  }

  // The line blocks of each module, in the order of their RVAs and, where these are equal, of the
  // file.
  const std::vector<std::vector<LineBlock>>& lineBlocks() const { return m_lines; }

  // Modules of which nothing or not everything could be read.
  uint32_t damagedModules() const { return m_damaged; }
  uint32_t modulesWithoutFunctions() const { return m_empty; }

 private:
  void collectModule(const ModuleStream& module, uint32_t number);
  void addSymbol(const SymbolHeader& symbol, StreamReader& body, uint32_t offset,
                 FileBudget& budget, uint32_t module);
  CollectedFunction* addFunction(uint32_t section, uint32_t offset, uint32_t module,
                                 StreamReader& body);
  void endFunction();
  void collectLines(const ModuleStream& module, uint32_t number);

  const SectionMap& m_sections;
  const bool m_withInlines;
  std::vector<CollectedFunction> m_functions;
  std::vector<SeparatedCode> m_separated;
  std::vector<uint32_t> m_sites;
  std::vector<std::vector<LineBlock>> m_lines;  // by module
  bool m_takesSites = false;                    // sites are those of the last function
  uint32_t m_damaged = 0;
  uint32_t m_empty = 0;
};

// Finds line blocks; fastest for ascending addresses.
class LineBlockFinder {
 public:
  // All modules must have been read, and `collector` must outlive this.
  explicit LineBlockFinder(const FunctionCollector& collector)
      : m_lines(collector.lineBlocks()), m_next(m_lines.size()) {}

  // Those of a module that begin in `rva` ... `end` - 1.
  std::span<const LineBlock> find(uint32_t module, uint32_t rva, uint64_t end);

 private:
  const std::vector<std::vector<LineBlock>>& m_lines;
  std::vector<size_t> m_next;  // by module: after those that were found last
};

}  // namespace symforge_internal
