// FunctionRecords: the line records and inline sites of one function of a text.
//
// Both arrays are final: overlaps are resolved before they are stored. They are adjacent in the
// arena of the module. Nearly always all of their numbers have 32 bits; then they are stored in a
// smaller form, which saves a third of the memory of a module.

#pragma once

#include <cstdint>
#include <span>

#include "base/arena.h"
#include "processor/source_line_resolver_base_types.h"

namespace google_breakpad {

class FunctionRecords {
 public:
  using Line = SourceLineResolverBase::Line;
  using Site = SourceLineResolverBase::InlineFunction;

  // Which numbers of records are stored.
  enum class Numbers { kAllBits, kLower32Bits };

  // Disjoint, ascending by address.
  size_t line_count() const { return line_count_; }
  Line line(size_t index) const;
  // The line whose range contains `address`. Returns false if there is none.
  bool FindLine(MemAddr address, Line* line) const;

  // In pre-order: each site precedes the sites inside it, siblings are ascending by address.
  size_t site_count() const { return site_count_; }
  Site site(size_t index) const;
  void set_site_name(size_t index, const char* name);

  // Copies the records to `arena`. The names of the sites are not copied. Replaces earlier records.
  void Store(std::span<const Line> lines, std::span<const Site> sites, Numbers numbers,
             symforge_internal::Arena& arena);

 private:
  struct SmallLine {
    uint32_t address;
    uint32_t size;
    int32_t source_file_id;
    int32_t line;
  };
  struct SmallSite {
    const char* name;
    uint32_t address;
    uint32_t size;
    int32_t file_id;
    int32_t source_line;
    uint32_t caller;
  };
  template <typename LineForm>
  LineForm* lines_as() const {
    return reinterpret_cast<LineForm*>(records_);
  }
  // The sites follow the lines.
  Site* sites() const { return reinterpret_cast<Site*>(lines_as<Line>() + line_count_); }
  SmallSite* small_sites() const {
    return reinterpret_cast<SmallSite*>(lines_as<SmallLine>() + line_count_);
  }

  char* records_ = nullptr;
  uint32_t line_count_ = 0;
  uint32_t site_count_ : 31 = 0;
  uint32_t is_small_ : 1 = 0;
};

inline FunctionRecords::Line FunctionRecords::line(size_t index) const {
  if (!is_small_) return lines_as<Line>()[index];
  const SmallLine& small = lines_as<SmallLine>()[index];
  return {small.address, small.size, small.source_file_id, small.line};
}

inline FunctionRecords::Site FunctionRecords::site(size_t index) const {
  if (!is_small_) return sites()[index];
  const SmallSite& small = small_sites()[index];
  return {small.address, small.size, small.file_id, small.source_line, small.caller, small.name};
}

}  // namespace google_breakpad
