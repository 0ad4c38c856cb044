#include "symforge/src/standard/function_layout.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <tuple>

namespace symforge_internal {

namespace {

using Field = uint32_t PlacedFunction::*;

// Sorts the functions, and ends each where the next one begins. Of several that begin together the
// first with code is kept. One without code inside of another one would end that, and is left out.
void cutOverlaps(std::vector<PlacedFunction>& functions, Field start, Field size) {
  const auto before = [start](const PlacedFunction& a, const PlacedFunction& b) {
    return a.*start < b.*start;
  };
  if (!std::is_sorted(functions.begin(), functions.end(), before)) {
    std::stable_sort(functions.begin(), functions.end(), before);
  }
  size_t kept = 0;
  for (PlacedFunction& f : functions) {
    f.*size = std::min(f.*size, UINT32_MAX - f.*start);  // no code beyond the address space
    if (kept != 0) {
      PlacedFunction& last = functions[kept - 1];
      const uint32_t distance = f.*start - last.*start;
      const bool coversStart = distance < last.*size;
      if (coversStart && (distance == 0 || f.*size == 0)) continue;
      last.*size = std::min(last.*size, distance);
      if (distance == 0) --kept;
    }
    functions[kept++] = f;
  }
  functions.resize(kept);
}

}  // namespace

void FunctionLayout::place() {
  fold();
  addSeparatedCode();
  placeInFinalImage();
  placePublics();
}

void FunctionLayout::fold() {
  const std::vector<CollectedFunction>& functions = m_collector.functions();
  std::vector<Key> keys;
  keys.reserve(functions.size());
  for (const CollectedFunction& f : functions) {
    keys.push_back({f.rva, f.typeIndex, static_cast<uint32_t>(keys.size())});
  }
  std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
    return std::tie(a.rva, a.typeIndex, a.function) < std::tie(b.rva, b.typeIndex, b.function);
  });
  m_functions.reserve(functions.size());
  for (size_t first = 0, end = 0; first < keys.size(); first = end) {
    while (end < keys.size() && keys[end].rva == keys[first].rva) prefetch(keys, end++);
    placeRun(Run(keys).subspan(first, end - first));
  }
}

// What placeRun() needs for a key soon. Public symbols of a rewritten image have other RVAs;
// nothing is gained there.
void FunctionLayout::prefetch(std::span<const Key> keys, size_t i) const {
  constexpr size_t kAhead = 8;
  if (i + 2 * kAhead < keys.size()) m_publics.prefetchIndex(keys[i + 2 * kAhead].rva);
  if (i + kAhead >= keys.size()) return;
  const Key& next = keys[i + kAhead];
  m_publics.prefetchSymbol(next.rva);
  __builtin_prefetch(&m_collector.functions()[next.function]);
}

// A public symbol at the address of a function is the same function, unless there are several.
void FunctionLayout::placeRun(Run run) {
  const uint32_t rva = m_sections.finalRva(run.front().rva);
  PublicFunction* const global = m_publics.find(rva);
  PlacedFunction placed;
  const bool hasCode = choose(run, placed);
  const CollectedFunction& function = m_collector.functions()[placed.function];
  placed.rva = rva;
  placed.linkedRva = function.rva;
  placed.linkedSize = function.length;
  placed.shared =
      (global != nullptr && global->shared) || (run.size() > 1 && isShared(run, placed.function));
  placed.paramSize = paramSize(function, rva);
  if (global != nullptr) global->covered = true;
  if (hasCode) {
    m_functions.push_back(placed);
  } else {
    m_placedPublics.push_back({function.name.data, rva, placed.paramSize, placed.shared});
  }
}

// Which function is shown, and its block of lines. False when none has code or a type.
bool FunctionLayout::choose(Run run, PlacedFunction& placed) {
  const std::vector<CollectedFunction>& functions = m_collector.functions();
  const auto isFunction = [&](const Key& key) {
    return functions[key.function].length != 0 || key.typeIndex != 0;
  };
  const auto hasCode = [&](const Key& key) { return functions[key.function].length != 0; };
  auto first = std::find_if(run.begin(), run.end(), hasCode);
  if (first == run.end()) first = std::find_if(run.begin(), run.end(), isFunction);
  if (first == run.end()) {
    placed.function = run.front().function;
    return false;
  }
  placed.function = first->function;
  if (run.size() == 1) return true;
  auto shown = first;
  while (shown != run.end() && (!hasCode(*shown) || blocksAt(shown->function) == 0)) ++shown;
  if (shown == run.end()) shown = first;
  placed.function = shown->function;

  // Functions of one module and their blocks come in the same order.
  const uint32_t module = functions[shown->function].module;
  const auto ordinal = std::count_if(run.begin(), run.end(), [&](const Key& key) {
    return key.function < shown->function && functions[key.function].module == module;
  });
  const size_t blocks = blocksAt(shown->function);
  placed.block = blocks == 0 ? 0 : static_cast<uint32_t>(std::min<size_t>(ordinal, blocks - 1));
  return true;
}

// How many blocks of lines of the function's module begin at its address.
size_t FunctionLayout::blocksAt(uint32_t function) {
  const CollectedFunction& of = m_collector.functions()[function];
  return m_lineBlocks.find(of.module, of.rva, uint64_t{of.rva} + 1).size();
}

bool FunctionLayout::isShared(Run run, uint32_t shown) {
  const std::vector<CollectedFunction>& functions = m_collector.functions();
  return std::any_of(run.begin(), run.end(), [&](const Key& key) {
    return key.function != shown && !sameName(functions[key.function], functions[shown]);
  });
}

// A record without a type has no parameters in its name.
bool FunctionLayout::sameName(const CollectedFunction& a, const CollectedFunction& b) {
  if (std::strcmp(a.name.data, b.name.data) != 0) return false;
  if (a.typeIndex == b.typeIndex || a.typeIndex == 0 || b.typeIndex == 0) return true;
  m_oneName.clear();
  m_otherName.clear();
  m_names.appendFunction({}, a.typeIndex, m_oneName);
  m_names.appendFunction({}, b.typeIndex, m_otherName);
  return m_oneName == m_otherName;
}

// The parts of a function are numbered in the order of their symbols.
void FunctionLayout::addSeparatedCode() {
  const size_t count = m_functions.size();
  std::vector<uint16_t> chunks(m_collector.separatedCode().empty() ? 0 : count);
  for (const SeparatedCode& part : m_collector.separatedCode()) {
    const auto after = std::upper_bound(
        m_functions.begin(), m_functions.begin() + static_cast<ptrdiff_t>(count), part.functionRva,
        [](uint32_t rva, const PlacedFunction& f) { return rva < f.linkedRva; });
    if (after == m_functions.begin() || part.length == 0) continue;
    const auto index = static_cast<size_t>(after - m_functions.begin()) - 1;
    PlacedFunction placed = m_functions[index];
    if (chunks[index] <= kMaxChunks) ++chunks[index];
    placed.chunk = chunks[index];
    placed.linkedRva = part.rva;
    placed.linkedSize = part.length;
    placed.rva = m_sections.finalRva(part.rva);
    placed.block = 0;
    placed.shared = false;
    m_functions.push_back(placed);
  }
}

// In the linked image first, as this is where lines and annotations are.
void FunctionLayout::placeInFinalImage() {
  cutOverlaps(m_functions, &PlacedFunction::linkedRva, &PlacedFunction::linkedSize);
  for (PlacedFunction& f : m_functions) f.size = f.linkedSize;
  if (!m_sections.isRewritten()) return;
  std::erase_if(m_functions, [this](const PlacedFunction& f) {
    return m_sections.movedCode(f.linkedRva).removed;
  });
  cutOverlaps(m_functions, &PlacedFunction::rva, &PlacedFunction::size);
}

void FunctionLayout::placePublics() {
  for (const PublicFunction& symbol : m_publics.symbols()) {
    if (symbol.covered || symbol.segment == 0) continue;
    m_placedPublics.push_back({symbol.name.data, symbol.rva, 0, symbol.shared});
  }
  std::stable_sort(m_placedPublics.begin(), m_placedPublics.end(),
                   [](const PlacedPublic& a, const PlacedPublic& b) { return a.rva < b.rva; });
}

uint32_t FunctionLayout::paramSize(const CollectedFunction& function, uint32_t rva) {
  uint32_t bytes = 0;
  if (!m_frames.findParamSize(rva, function.length, bytes)) {
    decoratedParamSize(m_publics.find(rva), bytes);
  }
  return bytes;
}

}  // namespace symforge_internal
