// The full validation of an untrusted SYMB block: see symb_validate in common/symb.h.

#include <cstring>
#include <string_view>
#include <vector>

#include "base/nested_range_stack.h"
#include "common/symb.h"
#include "common/symb_block.h"

namespace symforge_internal {
namespace {

constexpr uint64_t kAlignment = 8;              // of every table
constexpr uint64_t kAddressLimit = 1ull << 32;  // no range ends above this
constexpr uint64_t kFrameInfoTypes = 5;

// The parts of a block that tables occupy, in units of the alignment.
class ClaimedParts {
 public:
  explicit ClaimedParts(uint64_t size) : words_(size / kAlignment / 64 + 1) {}

  // Marks a part as occupied. Returns false if any unit is occupied already. The part must be
  // inside the block and consist of whole units.
  bool claim(uint64_t offset, uint64_t bytes) {
    uint64_t unit = offset / kAlignment;
    const uint64_t end = unit + bytes / kAlignment;
    while (unit < end) {
      const uint64_t first = unit % 64;
      const uint64_t count = end - unit < 64 - first ? end - unit : 64 - first;
      const uint64_t mask = (count == 64 ? ~0ull : (1ull << count) - 1) << first;
      uint64_t& word = words_[unit / 64];
      if ((word & mask) != 0) return false;
      word |= mask;
      unit += count;
    }
    return true;
  }

 private:
  std::vector<uint64_t> words_;
};

// Accepts only disjoint, ascending ranges below 4 GiB.
class AscendingRanges {
 public:
  bool add(uint32_t base, uint32_t size) {
    if (base < end_ || uint64_t{base} + size > kAddressLimit) return false;
    end_ = uint64_t{base} + size;
    return true;
  }

 private:
  uint64_t end_ = 0;
};

class Validator {
 public:
  Validator(uint64_t base, uint64_t size)
      : block_(reinterpret_cast<const char*>(base)), size_(size), claimed_(size) {}

  bool run();
  bool run_frame_info(uint64_t range, uint64_t strtbl_end);

 private:
  template <typename T>
  T load(uint64_t at) const {
    return symb_load<T>(block_ + at);
  }

  // Whether a table is inside the block, aligned, and does not overlap another. Claims its bytes.
  bool table(uint64_t offset, uint64_t count, size_t record_size) {
    if (!symb_holds(size_, offset, count, record_size)) return false;
    return count == 0 || (offset % kAlignment == 0 && claimed_.claim(offset, count * record_size));
  }

  // Whether a string begins at `offset`. The string table ends with a NUL, so the string does as
  // well.
  bool string(uint64_t offset) const {
    if (offset < strings_ || offset >= strings_end_) return false;
    return offset == strings_ || block_[offset - 1] == '\0';
  }
  bool string_or_none(uint64_t offset) const { return offset == 0 || string(offset); }

  // Whether a table is valid and `record_is_good` is true for each of its records.
  template <typename Record, typename Check>
  bool records(uint64_t offset, uint64_t count, Check record_is_good) {
    if (!table(offset, count, sizeof(Record))) return false;
    for (uint64_t i = 0; i < count; ++i) {
      if (!record_is_good(load<Record>(offset + i * sizeof(Record)))) return false;
    }
    return true;
  }

  bool header();
  bool string_table();
  bool files();
  bool functions();
  template <typename Function>
  bool function_table();
  bool lines(uint64_t offset, uint32_t count);
  bool inlines(uint64_t offset, uint32_t count);
  bool publics();
  bool frame_info();
  bool frame_info_range(const symb_nested_window_frame_info& range, int32_t type);
  bool rules();

  // A frame info array on the path, and the bounds of its ranges.
  struct Array {
    uint64_t next;
    uint64_t end;
    uint64_t low;   // minimum of the next range's base
    uint64_t high;  // maximum of a range's last address (inclusive)
  };
  bool enter_map(const symb_nested_window_frame_info& owner, uint64_t low, uint64_t high);
  bool walk_frame_info(int32_t type);

  const char* block_;
  uint64_t size_;
  ClaimedParts claimed_;
  symb_header header_{};
  uint64_t strings_ = 0;
  uint64_t strings_end_ = 0;
  std::vector<Array> path_;  // from a root to the current range
};

bool Validator::run() {
  return header() && string_table() && files() && functions() && publics() && frame_info() &&
         rules();
}

bool Validator::header() {
  if (size_ < sizeof(symb_header_metadata)) return false;
  const auto metadata = load<symb_header_metadata>(0);
  if (std::string_view(metadata.magic, sizeof(metadata.magic)) != kSymbMagic) return false;
  if (metadata.version < 1 || metadata.version > kSymbVersion) return false;
  const size_t header_size =
      symb_has_sections(metadata.version) ? sizeof(symb_header_v2) : sizeof(symb_header_v1);
  if (size_ < header_size) return false;
  std::memcpy(&header_, block_, header_size);
  return claimed_.claim(0, header_size) &&
         table(header_.sections, header_.section_count, sizeof(symb_section));
}

bool Validator::string_table() {
  const symb_header_v1& header = header_.v1;
  if (header.string_table_size % kAlignment != 0 || header.string_table_size == 0 ||
      !table(header.string_table, header.string_table_size, 1)) {
    return false;
  }
  strings_ = header.string_table;
  strings_end_ = strings_ + header.string_table_size;
  return block_[strings_end_ - 1] == '\0' && string(header.os) && string(header.arch) &&
         string(header.debug_id) && string(header.debug_file) && string_or_none(header.code_id) &&
         string_or_none(header.code_file);
}

bool Validator::files() {
  int64_t last = INT64_MIN;
  return records<symb_file>(header_.v1.files, header_.v1.file_count, [&](const symb_file& file) {
    if (file.index <= last || !string(file.name)) return false;
    last = file.index;
    return true;
  });
}

bool Validator::functions() {
  return symb_has_inlines(header_.v1.md.version) ? function_table<symb_func_inline>()
                                                 : function_table<symb_func>();
}

template <typename Function>
bool Validator::function_table() {
  AscendingRanges order;
  return records<Function>(
      header_.v1.functions, header_.v1.function_count, [&](const Function& function) {
        if (!order.add(function.address, function.size) || !string(function.name) ||
            !lines(function.lines, function.line_count)) {
          return false;
        }
        if constexpr (sizeof(Function) == sizeof(symb_func_inline)) {
          return inlines(function.inlines, function.inline_count);
        }
        return true;
      });
}

bool Validator::lines(uint64_t offset, uint32_t count) {
  AscendingRanges order;
  return records<symb_line>(
      offset, count, [&](const symb_line& line) { return order.add(line.address, line.size); });
}

// Sites must nest as lookups expect. Writers produce no empty site, and no site that repeats the
// range before it without being deeper by 1.
bool Validator::inlines(uint64_t offset, uint32_t count) {
  NestedRangeStack nesting;
  return records<symb_inline>(offset, count, [&](const symb_inline& site) {
    return string(site.name) && uint64_t{site.address} + site.size <= kAddressLimit &&
           nesting.add(site.address, site.size, site.caller) == NestedRangeStack::Result::kNested;
  });
}

bool Validator::publics() {
  int64_t last = -1;
  return records<symb_public>(header_.v1.public_functions, header_.v1.public_function_count,
                              [&](const symb_public& symbol) {
                                if (symbol.address <= last || !string(symbol.name)) return false;
                                last = symbol.address;
                                return true;
                              });
}

bool Validator::frame_info() {
  if (header_.v1.windows_frame_info_count != kFrameInfoTypes) return false;
  int32_t type = 0;
  return records<symb_nested_window_frame_info>(header_.v1.windows_frame_info, kFrameInfoTypes,
                                                [&](const symb_nested_window_frame_info& root) {
                                                  return enter_map(root, 0, kAddressLimit - 1) &&
                                                         walk_frame_info(type++);
                                                });
}

// Pushes the array inside a range on the path. Both fields are 0 if there is none.
bool Validator::enter_map(const symb_nested_window_frame_info& owner, uint64_t low, uint64_t high) {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  if (owner.map == 0) return owner.map_count == 0;
  if (!table(owner.map, owner.map_count, kRecord)) return false;
  path_.push_back({owner.map, owner.map + owner.map_count * kRecord, low, high});
  return true;
}

// Validates the ranges of the arrays on the path and everything inside them. Not recursive, because
// a file can nest ranges arbitrarily deep. Each array claims its bytes, so none is visited twice.
bool Validator::walk_frame_info(int32_t type) {
  while (!path_.empty()) {
    Array& array = path_.back();
    if (array.next == array.end) {
      path_.pop_back();
      continue;
    }
    const auto range = load<symb_nested_window_frame_info>(array.next);
    array.next += sizeof(symb_nested_window_frame_info);
    if (range.base < array.low || range.address > array.high) return false;
    array.low = uint64_t{range.address} + 1;
    if (!frame_info_range(range, type)) return false;
  }
  return true;
}

bool Validator::frame_info_range(const symb_nested_window_frame_info& range, int32_t type) {
  return range.base <= range.address && range.wfi.type == type &&
         string_or_none(range.wfi.program_string) && enter_map(range, range.base, range.address);
}

bool Validator::run_frame_info(uint64_t range_at, uint64_t strtbl_end) {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  if (!symb_holds(size_, range_at, 1, kRecord) || strtbl_end > size_ || strtbl_end == 0 ||
      block_[strtbl_end - 1] != '\0' || range_at % kAlignment != 0) {
    return false;
  }
  strings_ = sizeof(symb_header_metadata);  // the offset of the string table is not known here
  strings_end_ = strtbl_end;
  const auto range = load<symb_nested_window_frame_info>(range_at);
  return claimed_.claim(range_at, kRecord) && frame_info_range(range, range.wfi.type) &&
         walk_frame_info(range.wfi.type);
}

bool Validator::rules() {
  const symb_header_v1& header = header_.v1;
  AscendingRanges order;
  int64_t last = -1;
  return records<symb_cfi_rule>(header.cfi_initial_rules, header.cfi_initial_rule_count,
                                [&](const symb_cfi_rule& rule) {
                                  return order.add(rule.base, rule.size) && string(rule.rule);
                                }) &&
         records<symb_cfi_delta_rule>(header.cfi_delta_rules, header.cfi_delta_rule_count,
                                      [&](const symb_cfi_delta_rule& rule) {
                                        if (rule.address <= last || !string(rule.rule)) {
                                          return false;
                                        }
                                        last = rule.address;
                                        return true;
                                      });
}

}  // namespace
}  // namespace symforge_internal

bool symb_validate(uint64_t base, uint64_t size) {
  return symforge_internal::Validator(base, size).run();
}

bool valicate_window_frame_info(uint64_t parent, uint64_t base, uint64_t size,
                                uint64_t strtbl_end) {
  return symforge_internal::Validator(base, size).run_frame_info(parent - base, strtbl_end);
}
