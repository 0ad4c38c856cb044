// Benchmarks of the containers in base/ and of the string table against those of libraries, on the
// work that they do here. Those of Abseil and Boost take part where their headers are installed.
// `bytes` is the resident memory of one entry. Memory and time include the release of the entries.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/block_map.h"
#include "base/open_addressing_index.h"
#include "common/symb_strings.h"

#if __has_include(<absl/container/btree_map.h>)
#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#define SYMFORGE_HAS_ABSL
#endif
#if __has_include(<boost/unordered/unordered_flat_map.hpp>)
#include <boost/container/flat_map.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered_map.hpp>
#define SYMFORGE_HAS_BOOST
#endif

namespace {

size_t resident_bytes() {
  malloc_trim(0);
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<size_t>(pages) * 4096;
}

// Sets `bytes` to the memory that `filled` has added since `before`, per entry.
void set_bytes(benchmark::State& state, size_t before, size_t entries) {
  const size_t now = resident_bytes();
  state.counters["bytes"] =
      static_cast<double>(now - std::min(now, before)) / static_cast<double>(entries);
}

// ---- Address maps: what a text module stores for a function, by its last address
// --------------------

struct Range {
  uint64_t base;
  uint64_t delta;
  const void* entry;
};

std::vector<uint64_t> addresses(size_t count, bool shuffled) {
  std::mt19937_64 random(1);
  std::vector<uint64_t> keys(count);
  uint64_t address = 0x1000;
  for (uint64_t& key : keys) key = address += 16 + random() % 256;
  if (shuffled) std::shuffle(keys.begin(), keys.end(), random);
  return keys;
}

template <typename Map>
void store(Map& map, uint64_t key) {
  map.emplace_hint(map.end(), key, Range{key - 8, 0, nullptr});
}
void store(symforge_internal::BlockMap<uint64_t, Range>& map, uint64_t key) {
  map.insert(key, {key - 8, 0, nullptr});
}
template <typename Iterator>
uint64_t base_of(const Iterator& it) {
  return it->second.base;
}
uint64_t base_of(const symforge_internal::BlockMap<uint64_t, Range>::const_iterator& it) {
  return it.value().base;
}

template <typename Map>
void fill_addresses(benchmark::State& state, bool shuffled) {
  const std::vector<uint64_t> keys = addresses(static_cast<size_t>(state.range(0)), shuffled);
  for (auto _ : state) {
    Map map;
    for (const uint64_t key : keys) store(map, key);
    benchmark::DoNotOptimize(map.size());
  }
  const size_t before = resident_bytes();
  Map map;
  for (const uint64_t key : keys) store(map, key);
  set_bytes(state, before, keys.size());
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
template <typename Map>
void fill_ascending(benchmark::State& state) {
  fill_addresses<Map>(state, false);
}
template <typename Map>
void fill_shuffled(benchmark::State& state) {
  fill_addresses<Map>(state, true);
}
template <typename Map>
void find_addresses(benchmark::State& state) {
  const std::vector<uint64_t> keys = addresses(static_cast<size_t>(state.range(0)), false);
  Map map;
  for (const uint64_t key : keys) store(map, key);
  std::mt19937_64 random(2);
  std::vector<uint64_t> wanted(1 << 20);
  for (uint64_t& key : wanted) key = random() % keys.back();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(base_of(map.lower_bound(wanted[i++ % wanted.size()])));
  }
  state.SetItemsProcessed(state.iterations());
}

#define ADDRESS_MAP(...)                                                                        \
  BENCHMARK_TEMPLATE(fill_ascending, __VA_ARGS__)->Arg(1000000)->Unit(benchmark::kMillisecond); \
  BENCHMARK_TEMPLATE(find_addresses, __VA_ARGS__)->Arg(1000000)
#define SHUFFLED(...) \
  BENCHMARK_TEMPLATE(fill_shuffled, __VA_ARGS__)->Arg(100000)->Unit(benchmark::kMillisecond)

using BlockMap = symforge_internal::BlockMap<uint64_t, Range>;
using StdMap = std::map<uint64_t, Range>;
ADDRESS_MAP(BlockMap);
ADDRESS_MAP(StdMap);
SHUFFLED(BlockMap);
SHUFFLED(StdMap);
#ifdef SYMFORGE_HAS_ABSL
using AbslBtreeMap = absl::btree_map<uint64_t, Range>;
ADDRESS_MAP(AbslBtreeMap);
SHUFFLED(AbslBtreeMap);
#endif
#ifdef SYMFORGE_HAS_BOOST
using BoostFlatMap = boost::container::flat_map<uint64_t, Range>;
ADDRESS_MAP(BoostFlatMap);
SHUFFLED(BoostFlatMap);
#endif

// ---- Indexes: from numbers in a file to positions in a vector
// ---------------------------------------

// Each number occurs about three times, as files and callees do.
std::vector<uint32_t> numbers(size_t count) {
  std::mt19937 random(3);
  std::vector<uint32_t> keys(count);
  for (uint32_t& key : keys) key = 0x1000 + 7 * (random() % static_cast<uint32_t>(count / 3));
  return keys;
}

template <typename Index>
void fill_index(Index& index, const std::vector<uint32_t>& keys) {
  uint32_t next = 0;
  for (const uint32_t key : keys) {
    uint32_t& place = index[key];
    if (place == 0) place = ++next;
  }
}
template <typename Index>
void index_numbers(benchmark::State& state) {
  const std::vector<uint32_t> keys = numbers(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Index index;
    fill_index(index, keys);
    benchmark::DoNotOptimize(index[keys.front()]);
  }
  const size_t before = resident_bytes();
  Index index;
  fill_index(index, keys);
  set_bytes(state, before, keys.size() / 3);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define INDEX(...) BENCHMARK_TEMPLATE(index_numbers, __VA_ARGS__)->Arg(30000)->Arg(3000000)

using OpenAddressingIndex = symforge_internal::OpenAddressingIndex;
using StdUnorderedMap = std::unordered_map<uint32_t, uint32_t>;
INDEX(OpenAddressingIndex);
INDEX(StdUnorderedMap);
#ifdef SYMFORGE_HAS_ABSL
using AbslFlatHashMap = absl::flat_hash_map<uint32_t, uint32_t>;
INDEX(AbslFlatHashMap);
#endif
#ifdef SYMFORGE_HAS_BOOST
// With the random multiplier of OpenAddressingIndex, so that no file can make its keys collide.
struct SeededHash {
  size_t operator()(uint32_t key) const { return key * multiplier; }
  uint64_t multiplier = symforge_internal::hash_multiplier();
};
using BoostSeededFlatMap = boost::unordered_flat_map<uint32_t, uint32_t, SeededHash>;
INDEX(BoostSeededFlatMap);
using BoostUnorderedMap = boost::unordered_map<uint32_t, uint32_t>;
using BoostUnorderedFlatMap = boost::unordered_flat_map<uint32_t, uint32_t>;
INDEX(BoostUnorderedMap);
INDEX(BoostUnorderedFlatMap);
#endif

// ---- String tables: distinct strings, sorted, with an offset for each reference
// ---------------------

// Names of functions, and a few texts that most functions refer to.
std::vector<std::string> strings(size_t functions) {
  std::vector<std::string> texts;
  char text[160];
  for (size_t i = 0; i < functions; ++i) {
    snprintf(text, sizeof(text),
             "company::product::component%zu::Class%zu<wchar_t>::method_%zu(int,char const *)",
             i / 1000, i / 50, i);
    texts.emplace_back(text);
    texts.emplace_back(".cfa: $rsp 8 + .ra: .cfa 8 - ^");
    snprintf(text, sizeof(text), ".cfa: $rsp %zu + $rbx: .cfa 16 - ^", i % 32 * 8 + 16);
    texts.emplace_back(text);
  }
  return texts;
}

class OwnTable {
 public:
  void add(std::string_view text) { strings_.add(text); }
  uint64_t finish() {
    strings_.place(184);
    return strings_.table_bytes();
  }

 private:
  symforge_internal::SymbStrings strings_;
};

// The same of a hash table and std::sort.
template <typename Map>
class LibraryTable {
 public:
  void add(std::string_view text) {
    const auto [at, is_new] = numbers_.try_emplace(text, static_cast<uint32_t>(distinct_.size()));
    if (is_new) distinct_.push_back(text);
    references_.push_back(at->second);
  }
  uint64_t finish() {
    Map().swap(numbers_);
    std::vector<uint32_t> order(distinct_.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<uint32_t>(i);
    std::sort(order.begin(), order.end(),
              [this](uint32_t a, uint32_t b) { return distinct_[a] < distinct_[b]; });
    std::vector<uint64_t> offsets(distinct_.size());
    uint64_t bytes = 0;
    for (const uint32_t number : order) {
      offsets[number] = 184 + bytes;
      bytes += distinct_[number].size() + 1;
    }
    benchmark::DoNotOptimize(offsets.data());
    return bytes;
  }

 private:
  Map numbers_;
  std::vector<std::string_view> distinct_;
  std::vector<uint32_t> references_;
};

template <typename Table>
void string_table(benchmark::State& state) {
  const std::vector<std::string> texts = strings(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Table table;
    for (const std::string& text : texts) table.add(text);
    benchmark::DoNotOptimize(table.finish());
  }
  const size_t before = resident_bytes();
  Table table;
  for (const std::string& text : texts) table.add(text);
  set_bytes(state, before, static_cast<size_t>(state.range(0)));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The part of the hash table alone.
template <typename Table>
void number_strings(benchmark::State& state) {
  const std::vector<std::string> texts = strings(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Table table;
    for (const std::string& text : texts) table.add(text);
    benchmark::DoNotOptimize(&table);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define STRING_TABLE(...)                                                                      \
  BENCHMARK_TEMPLATE(number_strings, __VA_ARGS__)->Arg(300000)->Unit(benchmark::kMillisecond); \
  BENCHMARK_TEMPLATE(string_table, __VA_ARGS__)->Arg(300000)->Unit(benchmark::kMillisecond)

using StdStringTable = LibraryTable<std::unordered_map<std::string_view, uint32_t>>;
STRING_TABLE(OwnTable);
STRING_TABLE(StdStringTable);
#ifdef SYMFORGE_HAS_ABSL
using AbslStringTable = LibraryTable<absl::flat_hash_map<std::string_view, uint32_t>>;
STRING_TABLE(AbslStringTable);
#endif
#ifdef SYMFORGE_HAS_BOOST
using BoostStringTable = LibraryTable<
    boost::unordered_flat_map<std::string_view, uint32_t, std::hash<std::string_view>>>;
STRING_TABLE(BoostStringTable);
#endif

}  // namespace
