// A mutator for PDBs: unpacks the container, changes bytes of one stream (or copies a part of
// another stream into it), and packs the streams into a new container, so that mostly the contents
// are damaged and not the container. One input in three is mutated as plain bytes instead.

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "builders/bytes.h"
#include "builders/msf_builder.h"
#include "fuzz/target.h"

using builders::get_u32;
using builders::MsfBuilder;
using builders::PageOrder;

namespace {

using Streams = std::vector<std::string>;
using Random = std::minstd_rand;

constexpr size_t kHeader = 52;  // the list of index pages follows

// Concatenates the pages numbered in `list` and truncates the result to `size`. Throws
// std::out_of_range.
std::string gather(const std::string& file, uint32_t page_size, std::string_view list,
                   uint32_t size) {
  if (size > file.size()) throw std::out_of_range("more than the file");
  std::string bytes;
  for (size_t i = 0; bytes.size() < size; ++i) {
    const uint64_t page = get_u32(list, 4 * i);
    bytes += file.substr(page * page_size, page_size);
    if (page * page_size + page_size > file.size()) bytes.resize((i + 1) * page_size);
  }
  bytes.resize(size);
  return bytes;
}

Streams unpack(const std::string& file) {
  const uint32_t page_size = get_u32(file, 32);
  if (page_size < 64 || page_size > 4096 || page_size % 4 != 0)
    throw std::out_of_range("page size");
  const uint32_t directory_size = get_u32(file, 44);
  const uint32_t pages = (directory_size + page_size - 1) / page_size;
  const std::string list =
      gather(file, page_size, std::string_view(file).substr(kHeader), 4 * pages);
  const std::string directory = gather(file, page_size, list, directory_size);
  const uint32_t count = get_u32(directory, 0);
  size_t at = 4 + 4 * size_t{count};
  Streams streams;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t size = get_u32(directory, 4 + 4 * i);
    const bool deleted = size == UINT32_MAX;
    const std::string_view rest = std::string_view(directory).substr(at);
    streams.push_back(deleted ? "" : gather(file, page_size, rest, size));
    if (!deleted) at += 4 * ((size_t{size} + page_size - 1) / page_size);
  }
  return streams;
}

std::optional<Streams> streams_of(const std::string& file) {
  try {
    return unpack(file);
  } catch (const std::out_of_range&) {
    return std::nullopt;
  }
}

// Mutates the stream as bytes: either a short range in place, or the whole stream including its
// length.
void change_bytes(std::string& stream, Random& random) {
  const bool in_place = random() % 4 != 0 && !stream.empty();
  const size_t begin = in_place ? random() % stream.size() : 0;
  const size_t capacity =
      in_place ? std::min<size_t>(stream.size() - begin, 1 + random() % 32) : stream.size() + 64;
  std::string part = stream.substr(begin, in_place ? capacity : std::string::npos);
  const size_t size = part.size();
  part.resize(capacity);
  auto* const bytes = reinterpret_cast<uint8_t*>(part.data());
  const size_t changed = LLVMFuzzerMutate(bytes, size, capacity);
  if (in_place) {
    stream.replace(begin, changed, part, 0, changed);
  } else {
    stream.assign(part, 0, changed);
  }
}

// Copies a part of `from` over or between the bytes of `to`, at a multiple of 4 like most records.
void splice(const std::string& from, std::string& to, Random& random) {
  if (from.empty()) return;
  const size_t begin = random() % from.size() & ~size_t{3};
  const std::string piece = from.substr(begin, 4 * (1 + random() % 16));
  const size_t at = to.empty() ? 0 : random() % to.size() & ~size_t{3};
  to.replace(at, random() % 2 == 0 ? piece.size() : 0, piece);
}

std::string pack(Streams streams, Random& random) {
  constexpr uint32_t kPageSizes[] = {64, 128, 512, 4096};
  constexpr PageOrder kOrders[] = {PageOrder::kContiguous, PageOrder::kReversed,
                                   PageOrder::kInterleaved};
  // The list of a large file's pages does not fit into small ones.
  constexpr size_t kLarge = 16 * 1024;
  size_t bytes = 0;
  for (const std::string& stream : streams) bytes += stream.size();
  MsfBuilder msf(kPageSizes[bytes > kLarge ? 2 + random() % 2 : random() % 4]);
  msf.order(kOrders[random() % 3]);
  for (std::string& stream : streams) msf.add_stream(std::move(stream));
  return msf.build().bytes;
}

}  // namespace

FUZZ_MUTATOR(pdb_to_text)(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  Random random(seed);
  const std::string file(reinterpret_cast<const char*>(data), size);
  std::optional<Streams> streams;
  if (random() % 3 != 0) streams = streams_of(file);
  if (!streams || streams->empty()) return LLVMFuzzerMutate(data, size, max_size);

  std::string& stream = (*streams)[random() % streams->size()];
  if (random() % 4 == 0) {
    splice((*streams)[random() % streams->size()], stream, random);
  } else {
    change_bytes(stream, random);
  }
  const std::string changed = pack(std::move(*streams), random);
  if (changed.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
  std::memcpy(data, changed.data(), changed.size());
  return changed.size();
}
