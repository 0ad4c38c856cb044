// Shared by the operations on SYMB blocks: magic and version, unaligned access, and the bounds
// check. Internal to the library.

#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/symb.h"
#include "google_breakpad/processor/windows_frame_info.h"

namespace symforge_internal {

constexpr std::string_view kSymbMagic = "SYMB";

// Whether a block of `size` bytes begins with the magic.
inline bool symb_has_magic(const char* block, size_t size) {
  return size >= kSymbMagic.size() && std::memcmp(block, kSymbMagic.data(), kSymbMagic.size()) == 0;
}

// The version that the writer writes.
constexpr uint32_t kSymbVersion = 3;
// Whether the header is a symb_header_v2 (otherwise symb_header_v1).
inline bool symb_has_sections(uint32_t version) { return version >= 2; }
// Whether functions are symb_func_inline (otherwise symb_func).
inline bool symb_has_inlines(uint32_t version) { return version > 2; }

// Loads a number or record from any address: untrusted files may be unaligned.
template <typename T>
inline T symb_load(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

template <typename T>
inline void symb_store(char* at, T value) {
  std::memcpy(at, &value, sizeof(value));
}

// Whether `count` records of `record_size` bytes at `offset` fit into `size` bytes.
inline bool symb_holds(uint64_t size, uint64_t offset, uint64_t count, uint64_t record_size) {
  return offset <= size && count <= (size - offset) / record_size;
}

// Converts the sizes of a STACK WIN record, four of which have 16 bits in an image.
inline google_breakpad::StackWinSizes symb_sizes(const symb_window_frame_info& record) {
  return {record.prolog_size,         record.epilog_size, record.parameter_size,
          record.saved_register_size, record.local_size,  record.max_stack_size};
}
inline void symb_set_sizes(const google_breakpad::StackWinSizes& sizes,
                           symb_window_frame_info* record) {
  record->prolog_size = static_cast<uint16_t>(sizes.prolog_size);
  record->epilog_size = static_cast<uint16_t>(sizes.epilog_size);
  record->parameter_size = static_cast<uint16_t>(sizes.parameter_size);
  record->saved_register_size = static_cast<uint16_t>(sizes.saved_register_size);
  record->local_size = sizes.local_size;
  record->max_stack_size = sizes.max_stack_size;
}

// Whether symb_relocate() would succeed. Only reads the block; takes memory of an eighth of its
// size.
bool symb_references_are_valid(const char* block, uint64_t size);

}  // namespace symforge_internal
