// Turning the references of a SYMB block into addresses: its tables in their order, frame info
// ranges from the outside in.

#include <fcntl.h>
#include <sys/stat.h>

#include <vector>

#include "common/symb.h"
#include "common/symb_block.h"

namespace symforge_internal {
namespace {

// A header table each of whose records has one reference.
struct Table {
  size_t offset_field;  // position in the header
  size_t count_field;
  size_t record_size;
  size_t reference;  // position in the record
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

// One walk over a block. The order of the steps decides how far a block is turned when it fails.
// Positions are offsets from the start of the block throughout.
class Relocation {
 public:
  Relocation(uint64_t base, uint64_t size)
      : block_(reinterpret_cast<char*>(base)), base_(base), size_(size) {}

  bool run() {
    if (size_ < sizeof(symb_header_v1)) return false;
    version_ = load<uint32_t>(offsetof(symb_header_metadata, version));
    if (symb_has_sections(version_) && size_ < sizeof(symb_header_v2)) return false;
    return header() && table(kFiles) && functions() && table(kPublics) && frame_info_roots() &&
           table(kInitialRules) && table(kDeltaRules);
  }

 private:
  template <typename T>
  T load(uint64_t at) const {
    return symb_load<T>(block_ + at);
  }
  uint64_t reference(uint64_t at) const { return load<uint64_t>(at); }

  // The field at `at` must lie inside the block. A value equal to the size passes.
  bool turn(uint64_t at) {
    const uint64_t value = reference(at);
    if (value > size_) return false;
    symb_store(block_ + at, value + base_);
    return true;
  }
  bool turn_if_set(uint64_t at) { return reference(at) == 0 || turn(at); }

  // Where a turned reference leads, if that many records lie there inside the block.
  bool records(uint64_t turned, uint64_t count, size_t record_size, uint64_t* at) const {
    *at = turned - base_;
    return symb_holds(size_, *at, count, record_size);
  }

  bool header();
  bool table(const Table& table);
  bool functions();
  bool function(uint64_t at);
  bool inline_names(uint64_t at);
  bool frame_info_roots();
  bool relocate_window_frame_info(uint64_t at);
  bool enter_map(uint64_t owner);
  bool ranges_entered();

  // An array of frame info ranges on the way from a root to the current range.
  struct Array {
    uint64_t next;
    uint64_t end;
  };

  char* block_;
  uint64_t base_;
  uint64_t size_;
  uint32_t version_ = 0;
  std::vector<Array> path_;
  uint64_t ranges_visited_ = 0;
};

bool Relocation::header() {
  for (const size_t field :
       {offsetof(symb_header_v1, os), offsetof(symb_header_v1, arch),
        offsetof(symb_header_v1, debug_id), offsetof(symb_header_v1, debug_file)}) {
    if (!turn(field)) return false;
  }
  // One of the two alone stays a raw offset.
  constexpr size_t kCodeId = offsetof(symb_header_v1, code_id);
  constexpr size_t kCodeFile = offsetof(symb_header_v1, code_file);
  if (reference(kCodeId) != 0 && reference(kCodeFile) != 0 && !(turn(kCodeId) && turn(kCodeFile))) {
    return false;
  }
  for (const size_t field : {offsetof(symb_header_v1, string_table), kFiles.offset_field,
                             offsetof(symb_header_v1, functions), kPublics.offset_field,
                             offsetof(symb_header_v1, windows_frame_info),
                             kInitialRules.offset_field, kDeltaRules.offset_field}) {
    if (!turn_if_set(field)) return false;
  }
  return !symb_has_sections(version_) || turn_if_set(offsetof(symb_header_v2, sections));
}

bool Relocation::table(const Table& table) {
  const uint64_t turned = reference(table.offset_field);
  const uint64_t count = reference(table.count_field);
  if (turned == 0 || count == 0) return true;
  uint64_t at;
  if (!records(turned, count, table.record_size, &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += table.record_size) {
    if (!turn(at + table.reference)) return false;
  }
  return true;
}

bool Relocation::functions() {
  const uint64_t turned = reference(offsetof(symb_header_v1, functions));
  const uint64_t count = reference(offsetof(symb_header_v1, function_count));
  if (turned == 0 || count == 0) return true;
  const size_t record_size =
      symb_has_inlines(version_) ? sizeof(symb_func_inline) : sizeof(symb_func);
  uint64_t at;
  if (!records(turned, count, record_size, &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += record_size) {
    if (!function(at)) return false;
  }
  return true;
}

bool Relocation::function(uint64_t at) {
  if (!turn(at + offsetof(symb_func, name))) return false;
  if (load<uint32_t>(at + offsetof(symb_func, line_count)) != 0 &&
      !turn_if_set(at + offsetof(symb_func, lines))) {
    return false;
  }
  return !symb_has_inlines(version_) || inline_names(at);
}

bool Relocation::inline_names(uint64_t at) {
  const uint32_t count = load<uint32_t>(at + offsetof(symb_func_inline, inline_count));
  if (count == 0) return true;
  constexpr size_t kInlines = offsetof(symb_func_inline, inlines);
  if (!turn_if_set(at + kInlines)) return false;
  uint64_t site;
  if (!records(reference(at + kInlines), count, sizeof(symb_inline), &site)) return false;
  for (uint32_t i = 0; i < count; ++i, site += sizeof(symb_inline)) {
    if (!turn(site + offsetof(symb_inline, name))) return false;
  }
  return true;
}

// Roots are walked by their count alone; a table that is not there cannot hold them.
bool Relocation::frame_info_roots() {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  const uint64_t count = reference(offsetof(symb_header_v1, windows_frame_info_count));
  if (count == 0) return true;
  uint64_t root;
  if (!records(reference(offsetof(symb_header_v1, windows_frame_info)), count, kRecord, &root)) {
    return false;
  }
  for (uint64_t i = 0; i < count; ++i, root += kRecord) {
    if (reference(root + offsetof(symb_nested_window_frame_info, map)) != 0 &&
        !(enter_map(root) && ranges_entered())) {
      return false;
    }
  }
  return true;
}

// Turns the `map` of a range or root and puts its array on the path.
bool Relocation::enter_map(uint64_t owner) {
  constexpr size_t kMap = offsetof(symb_nested_window_frame_info, map);
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  if (!turn(owner + kMap)) return false;
  const uint64_t count = reference(owner + offsetof(symb_nested_window_frame_info, map_count));
  uint64_t first;
  if (!records(reference(owner + kMap), count, kRecord, &first)) return false;
  path_.push_back({first, first + count * kRecord});
  return true;
}

// Turns the ranges of the arrays on the path, each range before those that it contains, without
// recursion: nesting is as deep as the file wants it to be. An array that contains itself ends the
// walk, since a reference that was turned lies beyond the size; arrays that many ranges share could
// still make it very long, so it visits no more ranges than the block has bytes.
bool Relocation::ranges_entered() {
  while (!path_.empty()) {
    Array& array = path_.back();
    if (array.next == array.end) {
      path_.pop_back();
      continue;
    }
    const uint64_t range = array.next;
    array.next += sizeof(symb_nested_window_frame_info);
    if (++ranges_visited_ > size_ || !relocate_window_frame_info(range)) return false;
  }
  return true;
}

bool Relocation::relocate_window_frame_info(uint64_t at) {
  if (!turn_if_set(at + offsetof(symb_nested_window_frame_info, wfi.program_string))) return false;
  if (reference(at + offsetof(symb_nested_window_frame_info, map)) == 0 ||
      reference(at + offsetof(symb_nested_window_frame_info, map_count)) == 0) {
    return true;
  }
  return enter_map(at);
}

}  // namespace
}  // namespace symforge_internal

bool symb_relocate(uint64_t base, uint64_t size) {
  return symforge_internal::Relocation(base, size).run();
}

void symb_touch(int fd) {
  const timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_OMIT}};
  futimens(fd, times);
}
