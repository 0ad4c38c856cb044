// Array lookups in a SYMB block.
//
// A lookup waits for memory several times: in the search of its function, for the function's name
// and lines, for the name of the file. Addresses are therefore resolved in groups that take each
// step together, so that their accesses overlap.

#include <algorithm>
#include <array>

#include "processor/basic_source_line_resolver_module.h"
#include "processor/symb_tables.h"

namespace google_breakpad {

using symforge_internal::symb_has_inlines;

namespace {

// More accesses than a core has in flight, and few enough to stay in its first cache.
constexpr size_t kGroup = 32;

// Resolves up to kGroup addresses. `Function` is the record type of the block's version.
template <typename Function>
class GroupLookup {
 public:
  GroupLookup(const SymbTables& tables, std::span<const uint64_t> addresses)
      : tables_(tables), addresses_(addresses), size_(addresses.size()) {}

  void run(std::span<ResolvedAddress> answers, ResolvedInlines* inlines) {
    find_functions();
    find_lines(answers);
    find_files(answers);
    if constexpr (kHasInlines) find_publics(answers);
    finish(answers, inlines);
  }

 private:
  static constexpr bool kHasInlines = sizeof(Function) == sizeof(symb_func_inline);
  using Step = RangeStep<Function, offsetof(Function, address)>;
  using Searches = std::array<SymbSearch, kGroup>;

  std::span<SymbSearch> used(Searches& searches) { return {searches.data(), size_}; }

  void find_functions();
  void find_lines(std::span<ResolvedAddress> answers);
  void find_files(std::span<ResolvedAddress> answers);
  void find_publics(std::span<ResolvedAddress> answers);
  void finish(std::span<ResolvedAddress> answers, ResolvedInlines* inlines);

  const SymbTables& tables_;
  std::span<const uint64_t> addresses_;
  size_t size_;
  Searches functions_;
  Searches lines_;
  Searches files_;
  std::array<Function, kGroup> records_;  // of the functions found
};

template <typename Function>
void GroupLookup<Function>::find_functions() {
  const bool has_functions = tables_.has_functions();
  const SymbTable table = tables_.template functions<Function>();
  for (size_t i = 0; i < size_; ++i) {
    functions_[i] = table.search_for(addresses_[i]);
    if (!has_functions) functions_[i].hi = 0;
  }
  tables_.template run_together<Step, kGroup>(used(functions_), &SymbIndex::functions);
  // A record may extend into the cache line after the one that the search has read.
  for (const SymbSearch& search : used(functions_)) {
    if (!search.has_found()) continue;
    const char* record = search.records + search.found * sizeof(Function);
    __builtin_prefetch(record);
    __builtin_prefetch(record + sizeof(Function) - 1);
  }
}

template <typename Function>
void GroupLookup<Function>::find_lines(std::span<ResolvedAddress> answers) {
  for (size_t i = 0; i < size_; ++i) {
    lines_[i] = {};
    if (!functions_[i].has_found()) continue;
    records_[i] = SymbTables::found<Function>(functions_[i]);
    tables_.prefetch_name(records_[i].name);
    if constexpr (kHasInlines) {
      if (records_[i].inline_count != 0) tables_.prefetch(records_[i].inlines);
    }
    lines_[i] = tables_.line_search(records_[i], addresses_[i]);
    prefetch_start<LineStep>(lines_[i]);
  }
  for (SymbSearch& search : used(lines_)) search_by_guess<LineStep>(search);
  for (size_t i = 0; i < size_; ++i) {
    if (lines_[i].has_found()) {
      tables_.set_line(SymbTables::found<symb_line>(lines_[i]), &answers[i]);
    }
  }
}

template <typename Function>
void GroupLookup<Function>::find_files(std::span<ResolvedAddress> answers) {
  for (size_t i = 0; i < size_; ++i) {
    files_[i] = {};
    if (!answers[i].has_line) continue;
    files_[i] = tables_.file_search(SymbTables::found<symb_line>(lines_[i]).source_file_id);
  }
  search_together<FileStep>(used(files_));
  for (const SymbSearch& search : used(files_)) {
    if (search.has_found()) tables_.prefetch_name(SymbTables::found<symb_file>(search).name);
  }
}

// Addresses outside of all functions.
template <typename Function>
void GroupLookup<Function>::find_publics(std::span<ResolvedAddress> answers) {
  Searches starts;
  Searches publics;
  std::array<size_t, kGroup> positions;
  size_t count = 0;
  for (size_t i = 0; i < size_; ++i) {
    if (functions_[i].has_found()) continue;
    positions[count] = i;
    starts[count] = functions_[i];
    starts[count].lo = 0;
    starts[count].hi = tables_.has_functions() ? tables_.template functions<Function>().count : 0;
    publics[count++] = tables_.public_search(addresses_[i]);
  }
  tables_.template run_together<FunctionStartStep, kGroup>({starts.data(), count},
                                                           &SymbIndex::functions);
  tables_.template run_together<PublicStep, kGroup>({publics.data(), count}, &SymbIndex::publics);
  for (size_t i = 0; i < count; ++i) {
    tables_.set_public(publics[i], starts[i], &answers[positions[i]]);
  }
}

template <typename Function>
void GroupLookup<Function>::finish(std::span<ResolvedAddress> answers, ResolvedInlines* inlines) {
  for (size_t i = 0; i < size_; ++i) {
    if (!functions_[i].has_found()) continue;
    const Function& record = records_[i];
    tables_.set_function(record, &answers[i]);
    tables_.set_file(files_[i], &answers[i]);
    if constexpr (kHasInlines) {
      if (record.line_count == 0) continue;
      tables_.append_inlines(record.inlines, record.inline_count, addresses_[i], &answers[i],
                             inlines);
    }
  }
}

}  // namespace

void BasicSourceLineResolver::Module::LookupAddressesB(std::span<const uint64_t> addresses,
                                                       std::span<ResolvedAddress> answers,
                                                       ResolvedInlines* inlines) const {
  std::fill(answers.begin(), answers.end(), ResolvedAddress());
  if (!symb_loaded_) return;
  const SymbTables tables(symb_base_, symb_size_, symb_index_.get());
  const bool has_inlines = symb_has_inlines(tables.version());
  for (size_t at = 0; at < addresses.size(); at += kGroup) {
    const size_t count = std::min(kGroup, addresses.size() - at);
    const auto group = addresses.subspan(at, count);
    if (has_inlines) {
      GroupLookup<symb_func_inline>(tables, group).run(answers.subspan(at, count), inlines);
    } else {
      GroupLookup<symb_func>(tables, group).run(answers.subspan(at, count), inlines);
    }
  }
}

}  // namespace google_breakpad
