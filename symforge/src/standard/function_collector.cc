#include "symforge/src/standard/function_collector.h"

#include <algorithm>
#include <span>
#include <utility>

namespace symforge_internal {

namespace {

constexpr SymbolKinds kKinds{S_LPROC32,    S_GPROC32,     S_THUNK32,       S_SEPCODE,
                             S_INLINESITE, S_INLINESITE2, S_INLINESITE_END};

}  // namespace

std::vector<bool> FunctionCollector::repeatedStreams(const ModuleStreams& modules) {
  std::vector<bool> repeated(modules.size());
  std::vector<bool> seen(size_t{1} << 16);
  for (size_t i = 0; i < modules.size(); ++i) {
    const uint16_t stream = modules[i].streamNumber();
    repeated[i] = seen[stream];
    seen[stream] = true;
  }
  return repeated;
}

void FunctionCollector::collect(const ModuleStreams& modules) {
  collectPart(modules, repeatedStreams(modules), 0, modules.size());
}

void FunctionCollector::collectPart(const ModuleStreams& modules, const std::vector<bool>& repeated,
                                    size_t first, size_t end) {
  m_lines.resize(modules.size());
  const SymbolRoom room = roomForSymbols(std::span(modules).subspan(first, end - first));
  m_functions.reserve(room.functions);
  if (m_withInlines) m_sites.reserve(room.siteEntries);
  for (size_t i = first; i < end; ++i) {
    const size_t before = m_functions.size();
    if (!repeated[i]) collectModule(modules[i], static_cast<uint32_t>(i));
    if (m_functions.size() == before) ++m_empty;
  }
}

void FunctionCollector::join(std::span<FunctionCollector> parts) {
  size_t functions = 0;
  size_t sites = 0;
  for (const FunctionCollector& part : parts) {
    functions += part.m_functions.size();
    sites += part.m_sites.size();
  }
  m_functions.reserve(functions);
  m_sites.reserve(sites);
  for (FunctionCollector& part : parts) {
    const auto before = static_cast<uint32_t>(m_sites.size());
    for (CollectedFunction& function : part.m_functions) {
      function.firstSite += before;
      m_functions.push_back(std::move(function));
    }
    m_sites.insert(m_sites.end(), part.m_sites.begin(), part.m_sites.end());
    m_separated.insert(m_separated.end(), part.m_separated.begin(), part.m_separated.end());
    m_lines.resize(part.m_lines.size());
    for (size_t i = 0; i < part.m_lines.size(); ++i) {
      if (!part.m_lines[i].empty()) m_lines[i] = std::move(part.m_lines[i]);
    }
    m_damaged += part.m_damaged;
    m_empty += part.m_empty;
    part.m_functions = std::vector<CollectedFunction>();
    part.m_sites = std::vector<uint32_t>();
  }
}

void FunctionCollector::collectModule(const ModuleStream& module, uint32_t number) {
  try {
    m_takesSites = false;
    module.forEachSymbol(kKinds,
                         [&](const SymbolHeader& symbol, StreamReader& body, uint32_t offset) {
                           addSymbol(symbol, body, offset, module.budget(), number);
                         });
    collectLines(module, number);
  } catch (const pdb_exception&) {
    ++m_damaged;
  }
  endFunction();
}

void FunctionCollector::addSymbol(const SymbolHeader& symbol, StreamReader& body, uint32_t offset,
                                  FileBudget& budget, uint32_t module) {
  switch (symbol.type) {
    case S_LPROC32:
    case S_GPROC32: {
      budget.functions.spend(1);
      const DataPtr<ProcSym32> procedure = body.read<ProcSym32>();
      CollectedFunction* function = addFunction(procedure->seg, procedure->off, module, body);
      m_takesSites = m_withInlines && function != nullptr;
      if (function == nullptr) break;
      function->length = procedure->len;
      function->typeIndex = procedure->typind;
      break;
    }
    case S_THUNK32: {
      budget.functions.spend(1);
      const DataPtr<ThunkSym32> thunk = body.read<ThunkSym32>();
      CollectedFunction* function = addFunction(thunk->seg, thunk->off, module, body);
      m_takesSites = false;
      if (function == nullptr) break;
      function->length = thunk->parent != 0 ? uint32_t{thunk->len} : 0;
      break;
    }
    case S_SEPCODE: {
      budget.functions.spend(1);
      const DataPtr<SepCodeSym> part = body.read<SepCodeSym>();
      if (!m_sections.hasSection(part->sec) || !m_sections.hasSection(part->parentSec)) break;
      m_separated.push_back({m_sections.sectionBase(part->sec) + part->off, part->length,
                             m_sections.sectionBase(part->parentSec) + part->parentOff, module});
      break;
    }
    case S_INLINESITE:
    case S_INLINESITE2:
      if (m_takesSites) m_sites.push_back(offset);
      break;
    case S_INLINESITE_END:
      if (m_takesSites) m_sites.push_back(kSiteEnd);
      break;
  }
}

// The result is valid until the next call; null for a section that does not exist.
CollectedFunction* FunctionCollector::addFunction(uint32_t section, uint32_t offset,
                                                  uint32_t module, StreamReader& body) {
  if (!m_sections.hasSection(section)) return nullptr;
  DataPtr<char> name = body.readString();
  endFunction();
  CollectedFunction& function = m_functions.emplace_back();
  function.name = std::move(name);
  function.rva = m_sections.sectionBase(section) + offset;
  function.module = module;
  function.firstSite = static_cast<uint32_t>(m_sites.size());
  return &function;
}

// Inline sites belong to the last procedure before them; its end is not looked at.
void FunctionCollector::endFunction() {
  if (m_functions.empty()) return;
  CollectedFunction& last = m_functions.back();
  last.siteCount = static_cast<uint32_t>(m_sites.size()) - last.firstSite;
}

void FunctionCollector::collectLines(const ModuleStream& module, uint32_t number) {
  std::vector<LineBlock>& blocks = m_lines[number];
  module.readModule(kLinesSubsection, [&](StreamReader& reader, uint32_t end) {
    const uint32_t payload = reader.getOffset();
    const DataPtr<CV_LineSection> section = reader.read<CV_LineSection>();
    if (!m_sections.hasSection(section->sec)) return;
    blocks.push_back({m_sections.sectionBase(section->sec) + section->off, payload, end});
  });
  const auto before = [](const LineBlock& a, const LineBlock& b) { return a.rva < b.rva; };
  if (!std::is_sorted(blocks.begin(), blocks.end(), before)) {
    std::stable_sort(blocks.begin(), blocks.end(), before);
  }
  blocks.shrink_to_fit();
}

std::span<const LineBlock> LineBlockFinder::find(uint32_t module, uint32_t rva, uint64_t end) {
  const std::vector<LineBlock>& blocks = m_lines[module];
  size_t& next = m_next[module];
  const bool isFirst =
      next < blocks.size() && blocks[next].rva >= rva && (next == 0 || blocks[next - 1].rva < rva);
  if (!isFirst) {
    const auto before = [](const LineBlock& block, uint32_t wanted) { return block.rva < wanted; };
    next = static_cast<size_t>(std::lower_bound(blocks.begin(), blocks.end(), rva, before) -
                               blocks.begin());
  }
  const size_t first = next;
  while (next < blocks.size() && blocks[next].rva < end) ++next;
  return {blocks.data() + first, next - first};
}

}  // namespace symforge_internal
