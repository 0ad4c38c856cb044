// The tables of a SYMB block as lookups read them.
//
// No access reads outside the block, whatever it contains: tables and strings are clipped to the
// block. In a block that has passed symb_check_safety(), the limits of common/lookup_limits.h bound
// the cost.
//
// Addresses are relative to the module. Functions, lines and initial rules compare the low 32 bits
// of an address, everything else the whole 64-bit address.

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "common/lookup_limits.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "processor/resolved_address.h"
#include "processor/symb_index.h"
#include "processor/symb_search.h"

namespace google_breakpad {

using symforge_internal::symb_load;

// Records inside the block.
struct SymbTable {
  const char* records = nullptr;
  uint64_t count = 0;

  SymbSearch search_for(uint64_t key) const { return {records, 0, count, key}; }
};

// Holds no data, so an object is made for each lookup.
class SymbTables {
 public:
  // The block has at least the size of a symb_header_v1. `index` is null or made from it.
  SymbTables(const char* base, uint64_t size, const SymbIndex* index = nullptr)
      : base_(base), size_(size), index_(index) {}

  // A field of the header, by offset.
  template <typename T = uint64_t>
  T header(size_t field) const {
    return symb_load<T>(base_ + field);
  }
  uint32_t version() const { return header<uint32_t>(offsetof(symb_header_metadata, version)); }
  bool has_functions() const {
    return header(offsetof(symb_header_v1, function_count)) != 0 &&
           header(offsetof(symb_header_v1, functions)) != 0;
  }

  // The part of a table inside the block.
  template <typename Record>
  SymbTable table(uint64_t offset, uint64_t count) const {
    if (offset > size_) return {base_, 0};
    return {base_ + offset, std::min(count, (size_ - offset) / sizeof(Record))};
  }
  // A table of the header, by the offset of its field.
  template <typename Record>
  SymbTable header_table(size_t field) const {
    return table<Record>(header(field), header(field + sizeof(uint64_t)));
  }
  template <typename Function>
  SymbTable functions() const {
    return header_table<Function>(offsetof(symb_header_v1, functions));
  }
  SymbTable files() const { return header_table<symb_file>(offsetof(symb_header_v1, files)); }
  SymbTable publics() const {
    return header_table<symb_public>(offsetof(symb_header_v1, public_functions));
  }
  SymbTable initial_rules() const {
    return header_table<symb_cfi_rule>(offsetof(symb_header_v1, cfi_initial_rules));
  }
  SymbTable delta_rules() const {
    return header_table<symb_cfi_delta_rule>(offsetof(symb_header_v1, cfi_delta_rules));
  }

  // Whether there is an index of a table of the header.
  bool is_indexed(AddressIndex SymbIndex::*index) const { return built_index(index) != nullptr; }
  // Runs one search, or several that wait for memory at once, over the whole of a table of the
  // header. `index` is the index of that table.
  template <typename Step>
  void run(SymbSearch& search, AddressIndex SymbIndex::*index) const {
    if (const AddressIndex* built = built_index(index)) {
      built->search<Step>(search);
    } else {
      search_by_guess<Step>(search);
    }
  }
  // The same in two steps, for several searches that wait for memory at once, and while the caller
  // does something else.
  template <typename Step, size_t kMost>
  void begin_together(std::span<SymbSearch> searches, AddressIndex SymbIndex::*index) const {
    if (const AddressIndex* built = built_index(index)) {
      built->begin_together<Step, kMost>(searches);
    }
  }
  template <typename Step, size_t kMost>
  void end_together(std::span<SymbSearch> searches, AddressIndex SymbIndex::*index) const {
    if (const AddressIndex* built = built_index(index)) {
      built->end_together<Step>(searches);
    } else {
      search_together<Step, kMost>(searches);
    }
  }

  // Clipped to the block and to the maximal length of a string.
  std::string_view string(uint64_t offset) const {
    using symforge_internal::kMaxStringBytes;
    if (offset >= size_) return {};
    return {base_ + offset, strnlen(base_ + offset, std::min(size_ - offset, kMaxStringBytes))};
  }
  void prefetch(uint64_t offset) const { __builtin_prefetch(base_ + offset); }
  // For a name of usual length, which often crosses a cache line.
  void prefetch_name(uint64_t offset) const {
    __builtin_prefetch(base_ + offset);
    __builtin_prefetch(base_ + offset + 56);
  }

  // Searches that have not begun: for the line and the public symbol at an address.
  template <typename Function>
  SymbSearch line_search(const Function& function, uint64_t address) const {
    return table<symb_line>(function.lines, function.line_count).search_for(address);
  }
  SymbSearch public_search(uint64_t address) const { return publics().search_for(address); }
  // The search for a file by number; over if the index knows the result.
  SymbSearch file_search(int32_t number) const {
    SymbSearch search = files().search_for(static_cast<uint64_t>(int64_t{number}));
    if (index_ == nullptr || !index_->files_are_dense) return search;
    const int64_t position = int64_t{number} - index_->first_file;
    const bool exists = position >= 0 && static_cast<uint64_t>(position) < search.hi;
    search.hi = 0;
    if (exists) search.end_at(static_cast<uint64_t>(position));
    return search;
  }

  // Store the result of a search.
  template <typename Function>
  void set_function(const Function& function, ResolvedAddress* answer) const {
    answer->has_function = true;
    answer->function_base = function.address;
    answer->function_name = string(function.name);
  }
  void set_line(const symb_line& line, ResolvedAddress* answer) const {
    answer->has_line = true;
    answer->source_line = line.line;
    answer->line_base = line.address;
  }
  void set_file(const SymbSearch& search, ResolvedAddress* answer) const {
    if (!search.has_found()) return;
    answer->has_file = true;
    answer->source_file = string(found<symb_file>(search).name);
  }
  // A public symbol applies to the addresses from its own up to the next function. A function that
  // ended before the address hides the publics at and below its start. `function` is the search by
  // FunctionStartStep for the same address as `search`.
  void set_public(const SymbSearch& search, const SymbSearch& function,
                  ResolvedAddress* answer) const;
  // Appends the frames of the sites around the address, the innermost first.
  void append_inlines(uint64_t offset, uint32_t count, uint64_t address, ResolvedAddress* answer,
                      ResolvedInlines* inlines) const;

  // The record at which a search ended.
  template <typename Record>
  static Record found(const SymbSearch& search) {
    return symb_load<Record>(search.records + search.found * sizeof(Record));
  }

 private:
  const AddressIndex* built_index(AddressIndex SymbIndex::*index) const {
    return index_ != nullptr && (index_->*index).is_built() ? &(index_->*index) : nullptr;
  }

  const char* base_;
  uint64_t size_;
  const SymbIndex* index_;
};

}  // namespace google_breakpad
