#include "symforge/src/emit/function_list.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "base/limits.h"

namespace symforge_internal {

namespace {

constexpr uint64_t startOf(uint32_t segment, uint32_t rva) { return uint64_t{segment} << 32 | rva; }

// The sort key of a record, and its position. The moves of std::sort depend only on the results of
// comparisons, so sorting these, a fifth of a record's size, leaves equal keys in the same order as
// sorting the records.
struct SortKey {
  uint64_t start;
  uint32_t typeIndex;
  uint32_t position;

  bool operator<(const SortKey& other) const {
    return start != other.start ? start < other.start : typeIndex < other.typeIndex;
  }
};

void addKeys(const Functions& functions, std::vector<SortKey>& order) {
  for (const FunctionRecord& f : functions) {
    order.push_back({startOf(f.segment, f.rva), f.typeIndex, static_cast<uint32_t>(order.size())});
  }
}

// Moves each record to its place, following the cycles of the permutation: every record is moved
// once, and there is no second list.
void permute(Functions& functions, std::vector<SortKey>& order) {
  for (uint32_t start = 0; start < order.size(); ++start) {
    if (order[start].position == start) continue;
    FunctionRecord displaced = std::move(functions[start]);
    uint32_t to = start;
    for (;;) {
      const uint32_t from = std::exchange(order[to].position, to);
      if (from == start) break;
      functions[to] = std::move(functions[from]);
      to = from;
    }
    functions[to] = std::move(displaced);
  }
}

// Public functions join the list in the order of a hash table. That order matters only for records
// with equal keys; public functions have distinct offsets, and a function at the same place covers
// them unless it has no section.
bool orderShows(const Functions& functions, const std::vector<PublicFunction>& symbols) {
  const auto lacksSection = [](const auto& record) { return record.segment == 0; };
  return std::any_of(functions.begin(), functions.end(), lacksSection) &&
         std::any_of(symbols.begin(), symbols.end(), lacksSection);
}

// Positions by RVA. Only the table's order of iteration matters, which depends on the order of
// insertion.
std::unordered_map<uint32_t, uint32_t> hashOrder(const std::vector<PublicFunction>& symbols) {
  std::unordered_map<uint32_t, uint32_t> order;
  std::vector<uint32_t> chains;  // entries of each bucket
  for (const PublicFunction& symbol : symbols) {
    order.emplace(symbol.rva, static_cast<uint32_t>(order.size()));
    if (chains.size() != order.bucket_count()) {
      chains.assign(order.bucket_count(), 0);
      for (const auto& entry : order) ++chains[order.bucket(entry.first)];
    } else if (++chains[order.bucket(symbol.rva)] > limits::kHashChain) {
      throw LimitExceeded("The addresses of public symbols collide");
    }
  }
  return order;
}

}  // namespace

void sortFunctions(Functions& functions) {
  std::vector<SortKey> order;
  order.reserve(functions.size());
  addKeys(functions, order);
  std::sort(order.begin(), order.end());
  permute(functions, order);
}

void joinSorted(std::span<Functions> parts, size_t more, Functions& functions) {
  std::vector<size_t> starts;  // of the parts
  size_t count = 0;
  for (const Functions& part : parts) {
    starts.push_back(count);
    count += part.size();
  }
  std::vector<SortKey> order;
  order.reserve(count);
  for (const Functions& part : parts) addKeys(part, order);
  std::sort(order.begin(), order.end());
  functions.clear();
  functions.reserve(count + more);
  for (const SortKey& key : order) {
    const auto after = std::upper_bound(starts.begin(), starts.end(), key.position);
    const auto part = static_cast<size_t>(after - starts.begin()) - 1;
    functions.push_back(std::move(parts[part][key.position - starts[part]]));
  }
}

void dropDuplicates(Functions& functions) {
  if (functions.empty()) return;
  FunctionRecord* kept = &functions.front();
  for (size_t i = 1; i < functions.size(); ++i) {
    FunctionRecord& next = functions[i];
    const bool sameStart = kept->segment == next.segment && kept->rva == next.rva;
    if (sameStart && (kept->lines.data != nullptr || next.lines.data == nullptr)) {
      next.segment = FunctionRecord::kDropped;
      continue;
    }
    if (sameStart) kept->segment = FunctionRecord::kDropped;
    kept = &next;
  }
}

void mergeGlobals(Functions& functions, PublicFunctions& globals) {
  std::vector<PublicFunction>& symbols = globals.symbols();
  const auto append = [&](PublicFunction& symbol) {
    if (symbol.covered) return;
    FunctionRecord& func = functions.emplace_back();
    func.name = std::move(symbol.name);
    func.segment = symbol.segment;
    func.rva = symbol.rva;
  };
  const auto left = std::count_if(symbols.begin(), symbols.end(),
                                  [](const PublicFunction& symbol) { return !symbol.covered; });
  functions.reserve(functions.size() + static_cast<size_t>(left));
  if (orderShows(functions, symbols)) {
    for (const auto& entry : hashOrder(symbols)) append(symbols[entry.second]);
    sortFunctions(functions);
    return;
  }
  // No two of the records that are left have the same address, so there is only one order.
  std::erase_if(functions, [](const FunctionRecord& f) { return f.dropped(); });
  const auto sorted = static_cast<ptrdiff_t>(functions.size());
  for (PublicFunction& symbol : symbols) append(symbol);
  std::sort(functions.begin() + sorted, functions.end());
  std::inplace_merge(functions.begin(), functions.begin() + sorted, functions.end());
}

FunctionIndex::FunctionIndex(const Functions& functions) {
  m_starts.reserve(functions.size());
  for (const FunctionRecord& f : functions) m_starts.push_back(startOf(f.segment, f.rva));
}

size_t FunctionIndex::lowerBound(uint32_t segment, uint32_t rva) {
  const uint64_t start = startOf(segment, rva);
  const size_t next = m_last + 1;
  if (next < m_starts.size() && m_starts[m_last] < start && start <= m_starts[next])
    return m_last = next;
  const auto found = std::lower_bound(m_starts.begin(), m_starts.end() - 1, start);
  return m_last = static_cast<size_t>(found - m_starts.begin());
}

}  // namespace symforge_internal
