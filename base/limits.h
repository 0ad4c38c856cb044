// The limits of a conversion: the maximal cost of an input of n bytes, whatever it contains.
//
// Each limit is a fixed part, which lets small files with unusual shapes pass, plus a part
// proportional to the size of the file. A limit applies to the whole file, not to one of its
// records. Exceeding one throws LimitExceeded: the conversion ends with its message and status 1.
//
// The comments give the largest share of the proportional part that a real file uses, without the
// fixed part. Measured with PDBs of 400 kB to 500 MB of C and C++ programs for 32 and 64 bits with
// full debug information from current linkers, and with the small fixtures.

#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace symforge_internal {

// An input that needs more than its size justifies. The text is shown to the user.
class LimitExceeded : public std::runtime_error {
 public:
  explicit LimitExceeded(const char* message) : std::runtime_error(message) {}
};

// `fixed` plus `times` for each `per` bytes.
struct Limit {
  uint64_t fixed;
  uint64_t times;
  uint64_t per;

  constexpr uint64_t of(uint64_t bytes) const { return fixed + bytes * times / per; }
};

// The rest of a limit. A default-constructed one is unlimited.
class Allowance {
 public:
  Allowance() = default;
  Allowance(uint64_t amount, const char* message) : left_(amount), message_(message) {}

  // Throws LimitExceeded when less than `amount` is left.
  void spend(uint64_t amount) {
    if (amount > left_) exceed();
    left_ -= amount;
  }
  uint64_t left() const { return left_; }

 private:
  [[noreturn]] void exceed() const { throw LimitExceeded(message_); }

  uint64_t left_ = UINT64_MAX;
  const char* message_ = "";
};

namespace limits {

inline constexpr uint64_t kKiB = 1024;
inline constexpr uint64_t kMiB = 1024 * kKiB;

// ---- The container of a PDB.

// Number of streams. Most fields that name a stream have 16 bits.
inline constexpr uint64_t kStreams = 4 * 65536;
// Sum of the sizes of all streams. A page belongs to one stream, so real files use up to 0.997 n.
inline constexpr Limit kStreamBytes = {kMiB, 5, 4};
// Number of pages of all streams, not counting one per stream. Only pages smaller than 64 bytes,
// which no linker writes, make long lists in small files.
inline constexpr Limit kStreamPages = {16 * kKiB, 5, 4 * 64};

// ---- Reading streams.

// Bytes of page lists, names and subsections visited, including repeated visits. Real: 0.90 n.
inline constexpr Limit kVisitedBytes = {16 * kMiB, 8, 1};
// Bytes that are copied because their pages are not adjacent. Real: 0.0002 n.
inline constexpr Limit kCopiedBytes = {8 * kMiB, 1, 4};
// Bytes of the modules' symbols. A stream shared by several modules counts for each of them. Real:
// 0.63 n.
inline constexpr Limit kSymbolBytes = {2 * kMiB, 5, 4};

// ---- Tables.

// Functions, thunks and public symbols. Real: n / 880.
inline constexpr Limit kFunctions = {64 * kKiB, 1, 32};
// Entries of the file checksums of all modules. Real: n / 156.
inline constexpr Limit kFileChecksums = {256 * kKiB, 1, 32};
// Sections of the image. Symbols identify them with 16 bits.
inline constexpr uint64_t kSections = 65535;
// Code ranges of the inline sites of one function, and the bytes of the names of these sites.
// Real: 101 ranges, 4.1 kB. In standard mode also the parts that these are cut into.
inline constexpr Limit kInlineRanges = {128 * kKiB, 1, 64};
inline constexpr Limit kInlineNames = {8 * kMiB, 1, 2};
// Parts into which the lines and inlined calls of a rewritten image are cut.
inline constexpr Limit kMovedParts = {2 * kMiB, 1, 2};
// Public symbols in one bucket of a hash table, which distributes real addresses evenly.
inline constexpr uint32_t kHashChain = 1000;

// ---- Names of types.

// Types visited to render the names of all functions and inline sites. Real: 0.002 n.
inline constexpr Limit kTypeVisits = {4 * kMiB, 1, 1};
// Bytes of all these names. Real: 0.03 n.
inline constexpr Limit kTypeText = {12 * kMiB, 1, 1};

// ---- Results.

// Bytes of the text converted from a PDB and its image. Real: 0.44 n.
inline constexpr Limit kText = {12 * kMiB, 4, 1};
// Bytes of the text converted from a SYMB image. Its strings are stored once and may be printed
// often. Real: 1.26 n.
inline constexpr Limit kTextOfSymb = {12 * kMiB, 4, 1};
// Lines and frame info ranges printed from a SYMB image, including those that functions or ranges
// share. Real: n / 16, without sharing.
inline constexpr Limit kRecordsOfSymb = {256 * kKiB, 1, 8};
// Bytes of the lists of files and inlined functions, which are made in a second buffer. Real: 0.07
// n of a PDB, 0.5 n of a SYMB image.
inline constexpr Limit kTables = {12 * kMiB, 2, 1};
// Parts that the code of one function in a SYMB image, and of all of them, is cut into for the
// published form. Real: 0.03 n.
inline constexpr Limit kFunctionParts = {128 * kKiB, 1, 64};
inline constexpr Limit kParts = {2 * kMiB, 2, 1};
// Slots of unwind data decoded per entry of an image's exception directory, plus the fixed number:
// entries may share unwind infos and chains of them.
inline constexpr uint64_t kUnwindSlots = 4 * kMiB;
inline constexpr uint64_t kUnwindSlotsPerEntry = 64;
// Lines of one kind on standard error.
inline constexpr uint32_t kWarnings = 1000;

}  // namespace limits

}  // namespace symforge_internal
