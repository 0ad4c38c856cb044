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

// Resolves up to kGroup addresses at a time. `Function` is the record type of the block's version.
//
// Whether an address has a function, a line or a file is unpredictable. So each step collects the
// addresses that the next one works on, instead of asking again for each.
template <typename Function>
class GroupLookup {
 public:
  explicit GroupLookup(const SymbTables& tables) : tables_(tables) {}

  // The steps of a group of at most kGroup addresses. Each prefetches what the next one reads.
  void begin(std::span<const uint64_t> addresses, std::span<ResolvedAddress> answers);
  void find_functions();
  void finish(ResolvedInlines* inlines);

 private:
  static constexpr bool kHasInlines = sizeof(Function) == sizeof(symb_func_inline);
  using Step = RangeStep<Function, offsetof(Function, address)>;
  using Searches = std::array<SymbSearch, kGroup>;

  using List = SearchList<kGroup>;  // of positions in the group or in another list

  void begin_publics();
  void begin_lines();
  void find_lines();
  void find_files();
  void finish_publics();

  const SymbTables& tables_;
  std::span<const uint64_t> addresses_;
  std::span<ResolvedAddress> answers_;
  Searches functions_;  // of all addresses of the group
  List inside_;         // addresses in a function
  List outside_;        // the others
  // One for each of outside_.
  Searches starts_;
  bool has_starts_ = false;  // starts_ are results already
  Searches publics_;
  // One for each of inside_.
  std::array<Function, kGroup> records_;
  Searches lines_;
  Searches files_;
  List with_line_;  // positions in inside_
};

template <typename Function>
void GroupLookup<Function>::begin(std::span<const uint64_t> addresses,
                                  std::span<ResolvedAddress> answers) {
  addresses_ = addresses;
  answers_ = answers;
  const bool has_functions = tables_.has_functions();
  const SymbTable table = tables_.template functions<Function>();
  for (size_t i = 0; i < addresses.size(); ++i) {
    functions_[i] = table.search_for(addresses[i]);
    if (!has_functions) functions_[i].hi = 0;
  }
  tables_.template begin_together<Step, kGroup>({functions_.data(), addresses.size()},
                                                &SymbIndex::functions);
}

template <typename Function>
void GroupLookup<Function>::find_functions() {
  tables_.template end_together<Step, kGroup>({functions_.data(), addresses_.size()},
                                              &SymbIndex::functions);
  inside_.clear();
  outside_.clear();
  for (size_t i = 0; i < addresses_.size(); ++i) {
    inside_.add_if(functions_[i].has_found(), i);
    outside_.add_if(!functions_[i].has_found(), i);
  }
  // A record may extend into the cache line after the one that the search has read.
  for (const uint32_t i : inside_) {
    const char* record = functions_[i].records + functions_[i].found * sizeof(Function);
    __builtin_prefetch(record);
    __builtin_prefetch(record + sizeof(Function) - 1);
  }
  if constexpr (kHasInlines) begin_publics();
  begin_lines();
}

template <typename Function>
void GroupLookup<Function>::begin_publics() {
  const size_t count = outside_.size();
  const SymbTable functions = tables_.template functions<Function>();
  uint64_t all = 0;
  for (size_t n = 0; n < count; ++n) {
    const uint64_t address = addresses_[outside_[n]];
    all |= address;
    starts_[n] = functions.search_for(address);
    publics_[n] = tables_.public_search(address);
  }
  // By index, the search for functions has counted those up to an address of 32 bits.
  has_starts_ = tables_.is_indexed(&SymbIndex::functions) && all <= UINT32_MAX;
  if (has_starts_) {
    for (size_t n = 0; n < count; ++n) {
      FunctionStartStep::finish(starts_[n], functions_[outside_[n]].lo);
    }
  } else {
    if (!tables_.has_functions()) std::fill_n(starts_.begin(), count, SymbSearch());
    tables_.template begin_together<FunctionStartStep, kGroup>({starts_.data(), count},
                                                               &SymbIndex::functions);
  }
  tables_.template begin_together<PublicStep, kGroup>({publics_.data(), count},
                                                      &SymbIndex::publics);
}

template <typename Function>
void GroupLookup<Function>::begin_lines() {
  for (size_t n = 0; n < inside_.size(); ++n) {
    const uint32_t i = inside_[n];
    records_[n] = SymbTables::found<Function>(functions_[i]);
    tables_.prefetch_name(records_[n].name);
    if constexpr (kHasInlines) {
      if (records_[n].inline_count != 0) tables_.prefetch(records_[n].inlines);
    }
    lines_[n] = tables_.line_search(records_[n], addresses_[i]);
    prefetch_ends<LineStep>(lines_[n]);
  }
}

template <typename Function>
void GroupLookup<Function>::find_lines() {
  search_together<LineStep, kGroup>({lines_.data(), inside_.size()});
  with_line_.clear();
  for (size_t n = 0; n < inside_.size(); ++n) with_line_.add_if(lines_[n].has_found(), n);
}

template <typename Function>
void GroupLookup<Function>::find_files() {
  for (size_t n = 0; n < with_line_.size(); ++n) {
    const uint32_t at = with_line_[n];
    const auto line = SymbTables::found<symb_line>(lines_[at]);
    tables_.set_line(line, &answers_[inside_[at]]);
    files_[n] = tables_.file_search(line.source_file_id);
  }
  search_together<FileStep, kGroup>({files_.data(), with_line_.size()});
  for (size_t n = 0; n < with_line_.size(); ++n) {
    if (files_[n].has_found()) {
      tables_.prefetch_name(SymbTables::found<symb_file>(files_[n]).name);
    }
  }
}

template <typename Function>
void GroupLookup<Function>::finish_publics() {
  const size_t count = outside_.size();
  if (!has_starts_) {
    tables_.template end_together<FunctionStartStep, kGroup>({starts_.data(), count},
                                                             &SymbIndex::functions);
  }
  tables_.template end_together<PublicStep, kGroup>({publics_.data(), count}, &SymbIndex::publics);
  for (size_t n = 0; n < count; ++n) {
    tables_.set_public(publics_[n], starts_[n], &answers_[outside_[n]]);
  }
}

template <typename Function>
void GroupLookup<Function>::finish(ResolvedInlines* inlines) {
  find_lines();
  find_files();
  if constexpr (kHasInlines) finish_publics();
  for (size_t n = 0; n < with_line_.size(); ++n) {
    tables_.set_file(files_[n], &answers_[inside_[with_line_[n]]]);
  }
  for (size_t n = 0; n < inside_.size(); ++n) {
    const uint32_t i = inside_[n];
    const Function& record = records_[n];
    tables_.set_function(record, &answers_[i]);
    if constexpr (kHasInlines) {
      if (record.line_count == 0) continue;
      tables_.append_inlines(record.inlines, record.inline_count, addresses_[i], &answers_[i],
                             inlines);
    }
  }
}

// Three groups are in work, each at another step, so that each waits for memory while the others
// compute.
template <typename Function>
void resolve_in_groups(const SymbTables& tables, std::span<const uint64_t> addresses,
                       std::span<ResolvedAddress> answers, ResolvedInlines* inlines) {
  std::array<GroupLookup<Function>, 3> groups{
      GroupLookup<Function>(tables), GroupLookup<Function>(tables), GroupLookup<Function>(tables)};
  const size_t count = (addresses.size() + kGroup - 1) / kGroup;
  for (size_t i = 0; i < count + 2; ++i) {
    if (i < count) {
      const size_t at = i * kGroup, size = std::min(kGroup, addresses.size() - at);
      groups[i % 3].begin(addresses.subspan(at, size), answers.subspan(at, size));
    }
    if (i >= 1 && i - 1 < count) groups[(i - 1) % 3].find_functions();
    if (i >= 2) groups[(i - 2) % 3].finish(inlines);
  }
}

}  // namespace

void BasicSourceLineResolver::Module::LookupAddressesB(std::span<const uint64_t> addresses,
                                                       std::span<ResolvedAddress> answers,
                                                       ResolvedInlines* inlines) const {
  std::fill(answers.begin(), answers.end(), ResolvedAddress());
  if (!symb_loaded_) return;
  const SymbTables tables(symb_base_, symb_size_, symb_index_.get());
  if (symb_has_inlines(tables.version())) {
    resolve_in_groups<symb_func_inline>(tables, addresses, answers, inlines);
  } else {
    resolve_in_groups<symb_func>(tables, addresses, answers, inlines);
  }
}

}  // namespace google_breakpad
