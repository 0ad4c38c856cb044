// Relocation of the references of a SYMB block, and the check that relocation would succeed. Tables
// are visited in a fixed order, frame info ranges from the outside in.

#include <fcntl.h>
#include <sys/stat.h>

#include <cstddef>
#include <vector>

#include "common/symb.h"
#include "common/symb_block.h"

namespace symforge_internal {
namespace {

// A table of the header whose records contain one reference each.
struct Table {
  size_t offset_field;  // offset of its reference in the header
  size_t count_field;
  size_t record_size;
  size_t reference;  // offset of the reference in a record
};

constexpr Table kFiles = {offsetof(symb_header_v1, files), offsetof(symb_header_v1, file_count),
                          sizeof(symb_file), offsetof(symb_file, name)};
constexpr Table kPublics = {offsetof(symb_header_v1, public_functions),
                            offsetof(symb_header_v1, public_function_count), sizeof(symb_public),
                            offsetof(symb_public, name)};
constexpr Table kInitialRules = {offsetof(symb_header_v1, cfi_initial_rules),
                                 offsetof(symb_header_v1, cfi_initial_rule_count),
                                 sizeof(symb_cfi_rule), offsetof(symb_cfi_rule, rule)};
constexpr Table kDeltaRules = {offsetof(symb_header_v1, cfi_delta_rules),
                               offsetof(symb_header_v1, cfi_delta_rule_count),
                               sizeof(symb_cfi_delta_rule), offsetof(symb_cfi_delta_rule, rule)};

// Relocates each reference in place by adding the address of the block.
//
// A relocated reference exceeds the size of the block, so visiting it again, as part of another
// record, fails.
class Relocation {
 public:
  Relocation(char* block, uint64_t /*size*/)
      : block_(block), base_(reinterpret_cast<uint64_t>(block)) {}

  bool visit(uint64_t at, uint64_t value) {
    symb_store(block_ + at, value + base_);
    return true;
  }
  // The offset that the reference at `at` held before relocation.
  uint64_t offset(uint64_t at) const { return symb_load<uint64_t>(block_ + at) - base_; }
  bool is_taken(uint64_t /*at*/, size_t /*bytes*/) const { return false; }

 private:
  char* block_;
  uint64_t base_;
};

// Leaves the block unchanged and records which of its bytes are references, so that it fails
// exactly where a relocation would fail.
class ReferenceCheck {
 public:
  // One bit per byte, and spare bits to read two bytes at the last position.
  ReferenceCheck(const char* block, uint64_t size) : block_(block), visited_(size / 8 + 2) {
    for (const size_t count :
         {offsetof(symb_header_v1, file_count), offsetof(symb_header_v1, function_count),
          offsetof(symb_header_v1, public_function_count),
          offsetof(symb_header_v1, windows_frame_info_count),
          offsetof(symb_header_v1, cfi_initial_rule_count),
          offsetof(symb_header_v1, cfi_delta_rule_count)}) {
      visited_[count / 8] = 0xff;
    }
  }

  bool visit(uint64_t at, uint64_t /*value*/) {
    if (is_taken(at, sizeof(uint64_t))) return false;
    char* const bits = reinterpret_cast<char*>(&visited_[at / 8]);
    symb_store(bits, static_cast<uint16_t>(symb_load<uint16_t>(bits) | mask(at, 8)));
    return true;
  }
  uint64_t offset(uint64_t at) const { return symb_load<uint64_t>(block_ + at); }
  bool is_taken(uint64_t at, size_t bytes) const {
    const char* const bits = reinterpret_cast<const char*>(&visited_[at / 8]);
    return (symb_load<uint16_t>(bits) & mask(at, bytes)) != 0;
  }

 private:
  static uint16_t mask(uint64_t at, size_t bytes) {
    return static_cast<uint16_t>(((1u << bytes) - 1) << at % 8);
  }

  const char* block_;
  std::vector<uint8_t> visited_;
};

// Walks the references of a block and passes each one to `Action`. The order of the steps
// determines how far a block is relocated when it fails. Positions are offsets from the start of
// the block.
template <typename Action>
class ReferenceWalk {
 public:
  // `block` has at least the size of a symb_header_v1.
  ReferenceWalk(const char* block, uint64_t size, Action& action)
      : block_(block),
        size_(size),
        action_(action),
        version_(symb_load<uint32_t>(block + offsetof(symb_header_metadata, version))) {}

  bool run() {
    if (symb_has_sections(version_) && size_ < sizeof(symb_header_v2)) return false;
    return header() && table(kFiles) && functions() && table(kPublics) && frame_info_roots() &&
           table(kInitialRules) && table(kDeltaRules);
  }

 private:
  // Reads a number that must not overlap a reference already visited.
  template <typename T>
  bool number(uint64_t at, T* value) const {
    *value = symb_load<T>(block_ + at);
    return !action_.is_taken(at, sizeof(T));
  }
  // The field at `at`, before or after its relocation.
  uint64_t field(uint64_t at) const { return symb_load<uint64_t>(block_ + at); }

  // Visits the reference at `at`, which must be inside the block. A value equal to the size is
  // accepted.
  bool visit(uint64_t at) {
    const uint64_t value = field(at);
    return value <= size_ && action_.visit(at, value);
  }
  bool visit_if_set(uint64_t at) { return field(at) == 0 || visit(at); }

  // Sets `*first` to the target of the reference at `at`, which was visited, if that many records
  // are inside the block there. A reference of 0 has no target.
  bool records(uint64_t at, uint64_t count, size_t record_size, uint64_t* first) const {
    if (field(at) == 0) return false;
    *first = action_.offset(at);
    return symb_holds(size_, *first, count, record_size);
  }

  bool header();
  bool table(const Table& table);
  bool functions();
  bool function(uint64_t at);
  bool inline_names(uint64_t at);
  bool frame_info_roots();
  bool window_frame_info(uint64_t at);
  bool enter_map(uint64_t owner);
  bool ranges_entered();

  // An array of frame info ranges on the path from a root to the current range.
  struct Array {
    uint64_t next;
    uint64_t end;
  };

  const char* block_;
  uint64_t size_;
  Action& action_;
  uint32_t version_;
  std::vector<Array> path_;
  uint64_t ranges_visited_ = 0;
};

template <typename Action>
bool ReferenceWalk<Action>::header() {
  for (const size_t field :
       {offsetof(symb_header_v1, os), offsetof(symb_header_v1, arch),
        offsetof(symb_header_v1, debug_id), offsetof(symb_header_v1, debug_file)}) {
    if (!visit(field)) return false;
  }
  // Only one of these two is relocated.
  constexpr size_t kCodeId = offsetof(symb_header_v1, code_id);
  constexpr size_t kCodeFile = offsetof(symb_header_v1, code_file);
  if (field(kCodeId) != 0 && field(kCodeFile) != 0 && !(visit(kCodeId) && visit(kCodeFile))) {
    return false;
  }
  for (const size_t field : {offsetof(symb_header_v1, string_table), kFiles.offset_field,
                             offsetof(symb_header_v1, functions), kPublics.offset_field,
                             offsetof(symb_header_v1, windows_frame_info),
                             kInitialRules.offset_field, kDeltaRules.offset_field}) {
    if (!visit_if_set(field)) return false;
  }
  return !symb_has_sections(version_) || visit_if_set(offsetof(symb_header_v2, sections));
}

template <typename Action>
bool ReferenceWalk<Action>::table(const Table& table) {
  const uint64_t count = field(table.count_field);
  if (field(table.offset_field) == 0 || count == 0) return true;
  uint64_t at;
  if (!records(table.offset_field, count, table.record_size, &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += table.record_size) {
    if (!visit(at + table.reference)) return false;
  }
  return true;
}

template <typename Action>
bool ReferenceWalk<Action>::functions() {
  constexpr size_t kFunctions = offsetof(symb_header_v1, functions);
  const uint64_t count = field(offsetof(symb_header_v1, function_count));
  if (field(kFunctions) == 0 || count == 0) return true;
  const size_t record_size =
      symb_has_inlines(version_) ? sizeof(symb_func_inline) : sizeof(symb_func);
  uint64_t at;
  if (!records(kFunctions, count, record_size, &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += record_size) {
    if (!function(at)) return false;
  }
  return true;
}

template <typename Action>
bool ReferenceWalk<Action>::function(uint64_t at) {
  uint32_t line_count;
  if (!visit(at + offsetof(symb_func, name)) ||
      !number(at + offsetof(symb_func, line_count), &line_count) ||
      (line_count != 0 && !visit_if_set(at + offsetof(symb_func, lines)))) {
    return false;
  }
  return !symb_has_inlines(version_) || inline_names(at);
}

template <typename Action>
bool ReferenceWalk<Action>::inline_names(uint64_t at) {
  uint32_t count;
  if (!number(at + offsetof(symb_func_inline, inline_count), &count)) return false;
  if (count == 0) return true;
  constexpr size_t kInlines = offsetof(symb_func_inline, inlines);
  uint64_t site;
  if (!visit_if_set(at + kInlines) || !records(at + kInlines, count, sizeof(symb_inline), &site)) {
    return false;
  }
  for (uint32_t i = 0; i < count; ++i, site += sizeof(symb_inline)) {
    if (!visit(site + offsetof(symb_inline, name))) return false;
  }
  return true;
}

// Roots are walked by their count. Fails if there is no table to hold them.
template <typename Action>
bool ReferenceWalk<Action>::frame_info_roots() {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  const uint64_t count = field(offsetof(symb_header_v1, windows_frame_info_count));
  if (count == 0) return true;
  uint64_t root;
  if (!records(offsetof(symb_header_v1, windows_frame_info), count, kRecord, &root)) return false;
  for (uint64_t i = 0; i < count; ++i, root += kRecord) {
    if (field(root + offsetof(symb_nested_window_frame_info, map)) != 0 &&
        !(enter_map(root) && ranges_entered())) {
      return false;
    }
  }
  return true;
}

// Visits the `map` of a range or root and pushes its array on the path.
template <typename Action>
bool ReferenceWalk<Action>::enter_map(uint64_t owner) {
  constexpr size_t kMap = offsetof(symb_nested_window_frame_info, map);
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  uint64_t count;
  uint64_t first;
  if (!visit(owner + kMap) ||
      !number(owner + offsetof(symb_nested_window_frame_info, map_count), &count) ||
      !records(owner + kMap, count, kRecord, &first)) {
    return false;
  }
  path_.push_back({first, first + count * kRecord});
  return true;
}

// Visits the ranges of the arrays on the path, outer ranges before inner ones. Not recursive,
// because a file can nest ranges arbitrarily deep. An array that contains itself ends the walk,
// because no reference is visited twice. Arrays shared by many ranges could still make the walk
// very long, so it visits at most as many ranges as the block has bytes.
template <typename Action>
bool ReferenceWalk<Action>::ranges_entered() {
  while (!path_.empty()) {
    Array& array = path_.back();
    if (array.next == array.end) {
      path_.pop_back();
      continue;
    }
    const uint64_t range = array.next;
    array.next += sizeof(symb_nested_window_frame_info);
    if (++ranges_visited_ > size_ || !window_frame_info(range)) return false;
  }
  return true;
}

template <typename Action>
bool ReferenceWalk<Action>::window_frame_info(uint64_t at) {
  if (!visit_if_set(at + offsetof(symb_nested_window_frame_info, wfi.program_string))) return false;
  if (field(at + offsetof(symb_nested_window_frame_info, map)) == 0 ||
      field(at + offsetof(symb_nested_window_frame_info, map_count)) == 0) {
    return true;
  }
  return enter_map(at);
}

}  // namespace

bool symb_references_are_valid(const char* block, uint64_t size) {
  if (size < sizeof(symb_header_v1)) return false;
  ReferenceCheck check(block, size);
  return ReferenceWalk<ReferenceCheck>(block, size, check).run();
}

}  // namespace symforge_internal

bool symb_relocate(uint64_t base, uint64_t size) {
  using symforge_internal::Relocation;
  if (size < sizeof(symb_header_v1)) return false;
  char* const block = reinterpret_cast<char*>(base);
  Relocation relocation(block, size);
  return symforge_internal::ReferenceWalk<Relocation>(block, size, relocation).run();
}

void symb_touch(int fd) {
  const timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_OMIT}};
  futimens(fd, times);
}
