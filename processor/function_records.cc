#include "processor/function_records.h"

#include <algorithm>
#include <cassert>

namespace google_breakpad {

using symforge_internal::Arena;

namespace {

using Line = FunctionRecords::Line;
using Site = FunctionRecords::Site;

bool fits(MemAddr number) { return number <= UINT32_MAX; }

bool is_small(const Line& line) { return fits(line.address) && fits(line.size); }

bool is_small(const Site& site) {
  return fits(site.function_address) && fits(site.code_size) && fits(site.caller);
}

template <typename Record>
bool all_small(std::span<const Record> records) {
  for (const Record& record : records) {
    if (!is_small(record)) return false;
  }
  return true;
}

// The last of the lines that start at or below `address`, or the first. Branchless, because a
// branch on the addresses would be unpredictable.
template <typename LineForm>
size_t line_at(const LineForm* lines, size_t count, MemAddr address) {
  const LineForm* line = lines;
  for (size_t length = count; length > 1;) {
    const size_t half = length / 2;
    line = line[half].address <= address ? line + half : line;
    length -= half;
  }
  return static_cast<size_t>(line - lines);
}

}  // namespace

bool FunctionRecords::FindLine(MemAddr address, Line* found) const {
  if (line_count_ == 0) return false;
  *found = line(is_small_ ? line_at(lines_as<SmallLine>(), line_count_, address)
                          : line_at(lines_as<Line>(), line_count_, address));
  return address - found->address < found->size;
}

void FunctionRecords::set_site_name(size_t index, const char* name) {
  assert(index < site_count_);
  (is_small_ ? small_sites()[index].name : sites()[index].name) = name;
}

void FunctionRecords::Store(std::span<const Line> lines, std::span<const Site> sites,
                            Numbers numbers, Arena& arena) {
  line_count_ = static_cast<uint32_t>(lines.size());
  site_count_ = static_cast<uint32_t>(sites.size()) & (UINT32_MAX >> 1);
  assert(line_count_ == lines.size() && site_count_ == sites.size());
  is_small_ = numbers == Numbers::kLower32Bits || (all_small(lines) && all_small(sites));
  const size_t bytes = is_small_
                           ? lines.size() * sizeof(SmallLine) + sites.size() * sizeof(SmallSite)
                           : lines.size_bytes() + sites.size_bytes();
  records_ = static_cast<char*>(arena.allocate(bytes, alignof(Site)));
  if (!is_small_) {
    std::copy(lines.begin(), lines.end(), lines_as<Line>());
    std::copy(sites.begin(), sites.end(), this->sites());
    return;
  }
  SmallLine* line = lines_as<SmallLine>();
  for (const Line& from : lines) {
    *line++ = {static_cast<uint32_t>(from.address), static_cast<uint32_t>(from.size),
               from.source_file_id, from.line};
  }
  SmallSite* site = small_sites();
  for (const Site& from : sites) {
    *site++ = {from.name,
               static_cast<uint32_t>(from.function_address),
               static_cast<uint32_t>(from.code_size),
               from.file_id,
               from.source_line,
               static_cast<uint32_t>(from.caller)};
  }
}

}  // namespace google_breakpad
