// valicate_window_frame_info(): the first 8 bytes of input are its two offsets, the rest is the
// block. An accepted range must be nested inside the block, as an independent traversal checks.

#include <cstring>
#include <memory>
#include <string_view>

#include "common/symb.h"
#include "fuzz/harness.h"

using fuzzing::require;

namespace {

using Range = symb_nested_window_frame_info;

// Checks the ranges inside one range and returns their total number.
uint64_t walk(std::string_view block, const Range& owner, uint64_t strings_end) {
  uint64_t count = owner.map == 0 ? 0 : owner.map_count;
  uint64_t next = owner.base;
  for (uint64_t i = 0; owner.map != 0 && i < owner.map_count; ++i) {
    const uint64_t at = owner.map + i * sizeof(Range);
    require(at < block.size() && block.size() - at >= sizeof(Range), "ranges lie in the block");
    Range range;
    std::memcpy(&range, block.data() + at, sizeof range);
    require(next <= range.base && range.base <= range.address, "ranges ascend");
    require(range.address <= owner.address, "ranges lie in their container");
    require(range.wfi.program_string < strings_end, "programs are strings");
    next = uint64_t{range.address} + 1;
    count += walk(block, range, strings_end);
    require(count <= block.size() / sizeof(Range), "no range is met twice");
  }
  return count;
}

}  // namespace

FUZZ_TARGET(frame_info_check)(const uint8_t* data, size_t size) {
  constexpr size_t kOffsets = 2 * sizeof(uint32_t);
  constexpr size_t kMaxBlock = 64 * 1024;  // the traversal is recursive
  if (size < kOffsets || size - kOffsets > kMaxBlock) return 0;
  uint32_t offsets[2];
  std::memcpy(offsets, data, sizeof offsets);
  const size_t block_size = size - kOffsets;
  const std::unique_ptr<char[]> block(new char[block_size]);
  std::memcpy(block.get(), data + kOffsets, block_size);
  const auto base = reinterpret_cast<uint64_t>(block.get());
  bool valid = false;
  fuzzing::bounded(
      "the check", 0.01 + 1e-6 * static_cast<double>(block_size), size_t{1} << 20,
      [&] { valid = valicate_window_frame_info(base + offsets[0], base, block_size, offsets[1]); });
  if (!valid) return 0;
  Range parent;
  std::memcpy(&parent, block.get() + offsets[0], sizeof parent);
  walk({block.get(), block_size}, parent, offsets[1]);
  return 0;
}
