#include "common/symb_strings.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace symforge_internal {

namespace {

constexpr uint64_t kHashBits = 0xFFFFFFFF00000000;

// ---- Sorting. Words of 8 bytes are compared as numbers, and only strings with equal words go on
// to the next word. Names of a program share long prefixes, so this saves most of the comparisons.

struct SortKey {
  uint64_t word;  // the 8 bytes at the current depth, big-endian
  uint32_t string;
};

// Bytes after the end count as 0, which no string contains, so a prefix sorts first.
uint64_t word_at(std::string_view text, size_t depth) {
  uint64_t word = 0;
  if (depth < text.size()) {
    std::memcpy(&word, text.data() + depth, std::min<size_t>(sizeof(word), text.size() - depth));
  }
  return __builtin_bswap64(word);
}

bool ends_in(uint64_t word) { return (word & 0xFF) == 0; }

// Keys whose strings are equal up to `depth`.
struct Run {
  size_t begin;
  size_t end;
  size_t depth;
};

class StringSorter {
 public:
  explicit StringSorter(const std::vector<std::string_view>& strings)
      : strings_(strings), keys_(strings.size()) {
    for (size_t i = 0; i < keys_.size(); ++i) keys_[i].string = static_cast<uint32_t>(i);
  }

  std::vector<uint32_t> sorted() {
    std::vector<Run> runs = {{0, keys_.size(), 0}};
    while (!runs.empty()) {
      const Run run = runs.back();
      runs.pop_back();
      sort(run, runs);
    }
    std::vector<uint32_t> order(keys_.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = keys_[i].string;
    return order;
  }

 private:
  // Sorts by the words at the run's depth. Appends the groups that are still equal to `runs`.
  void sort(const Run& run, std::vector<Run>& runs) {
    const auto begin = keys_.begin() + static_cast<ptrdiff_t>(run.begin);
    const auto end = keys_.begin() + static_cast<ptrdiff_t>(run.end);
    bool differ = false;
    for (auto key = begin; key != end; ++key) {
      prefetch(key, end, run.depth);
      key->word = word_at(strings_[key->string], run.depth);
      differ |= key->word != begin->word;
    }
    if (differ) {
      std::sort(begin, end, [](const SortKey& a, const SortKey& b) { return a.word < b.word; });
    }
    for (auto first = begin; first != end;) {
      auto run_end = first + 1;
      while (run_end != end && run_end->word == first->word) ++run_end;
      // Distinct strings cannot be equal in the word in which they end.
      if (run_end - first > 1 && !ends_in(first->word)) {
        runs.push_back({static_cast<size_t>(first - keys_.begin()),
                        static_cast<size_t>(run_end - keys_.begin()), run.depth + 8});
      }
      first = run_end;
    }
  }

  // The strings of a long run are all over the text.
  void prefetch(std::vector<SortKey>::const_iterator key, std::vector<SortKey>::const_iterator end,
                size_t depth) const {
    if (end - key > 2 * kAhead) __builtin_prefetch(&strings_[key[2 * kAhead].string]);
    if (end - key > kAhead) __builtin_prefetch(strings_[key[kAhead].string].data() + depth);
  }

  static constexpr ptrdiff_t kAhead = 12;
  const std::vector<std::string_view>& strings_;
  std::vector<SortKey> keys_;
};

}  // namespace

void SymbStrings::add(std::string_view text) {
  if (distinct_.size() * 2 >= index_.size()) grow_index();
  const size_t mask = index_.size() - 1;
  const uint64_t hash = hash_(text);
  size_t slot = (hash >> 32) & mask;
  for (; index_[slot] != 0; slot = (slot + 1) & mask) {
    if ((index_[slot] & kHashBits) != (hash & kHashBits)) continue;
    const auto number = static_cast<uint32_t>(index_[slot]) - 1;
    if (distinct_[number] != text) continue;
    references_.push_back(number);
    return;
  }
  if (distinct_.size() == UINT32_MAX - 1) throw std::length_error("too many distinct strings");
  distinct_.push_back(text);
  index_[slot] = (hash & kHashBits) | distinct_.size();
  references_.push_back(static_cast<uint32_t>(distinct_.size() - 1));
}

// Slots are chosen by the part of the hash that they store, so growing does not read the strings.
void SymbStrings::grow_index() {
  std::vector<uint64_t> grown(std::max<size_t>(1024, index_.size() * 2));
  const size_t mask = grown.size() - 1;
  for (const uint64_t entry : index_) {
    if (entry == 0) continue;
    size_t slot = (entry >> 32) & mask;
    while (grown[slot] != 0) slot = (slot + 1) & mask;
    grown[slot] = entry;
  }
  index_ = std::move(grown);
}

void SymbStrings::place(uint64_t table_offset) {
  std::vector<uint64_t>().swap(index_);
  order_ = StringSorter(distinct_).sorted();
  offsets_.resize(distinct_.size());
  for (const uint32_t number : order_) {
    offsets_[number] = table_offset + table_bytes_;
    table_bytes_ += distinct_[number].size() + 1;
  }
}

void SymbStrings::write(char* table) const {
  constexpr size_t kAhead = 12;
  for (size_t i = 0; i < order_.size(); ++i) {
    if (i + 2 * kAhead < order_.size()) __builtin_prefetch(&distinct_[order_[i + 2 * kAhead]]);
    if (i + kAhead < order_.size()) __builtin_prefetch(distinct_[order_[i + kAhead]].data());
    const std::string_view text = distinct_[order_[i]];
    if (!text.empty()) std::memcpy(table, text.data(), text.size());
    table += text.size() + 1;
  }
}

}  // namespace symforge_internal
