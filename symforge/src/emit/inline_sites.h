// InlineSites: the inline sites of functions. InlinePrinter: the I lines of a function.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/limits.h"
#include "base/text_buffer.h"
#include "symforge/src/emit/function_record.h"
#include "symforge/src/emit/inline_tree.h"
#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/binary_annotations.h"
#include "symforge/src/pdb/inlinee_lines.h"
#include "symforge/src/pdb/type_names.h"

namespace symforge_internal {

// The opening of an inline site, undecoded.
struct InlineFunctionRecord {
  uint32_t inlinee = 0;
  DataPtr<unsigned char> binary_annotations;
  uint32_t binary_annotations_len = 0;  // bytes, padding included
};

// Reads the body of an inline-site symbol; the reader is at its first byte; `size` is that of the
// symbol. A size too small for an inline site wraps, and the read throws pdb_recoverable_exception.
InlineFunctionRecord readInlineSite(StreamReader& reader, uint32_t size);

// Sites are added in the order of the symbols of their module, for one function after the other.
// Only the offset of a symbol is kept, as there are many more sites than functions: the symbols are
// read again when their function is printed.
class InlineSites {
 public:
  static constexpr uint32_t kSiteEnd = 0;

  // `names` must outlive this.
  explicit InlineSites(const TypeNames& names) : m_typeNames(names) {}

  // Reserves memory for entries of sites.
  void reserve(size_t entries) { m_sites.reserve(entries); }

  // Starts a function, whose sites follow.
  void beginFunction(uint16_t stream, FunctionRecord& func) const;
  // Adds the opening of a site whose symbol is at `symbolOffset` in the stream, or the end of the
  // last open one. An inlinee without a name suppresses all sites of its function.
  void openSite(uint32_t inlinee, uint32_t symbolOffset, FunctionRecord& func);
  void closeSite(FunctionRecord& func);

  // Adds all sites of `other`, and makes those of its functions refer to them here.
  void append(const InlineSites& other, Functions& functions);

  // Consecutive entries: the symbol offset of each site that opens, kSiteEnd for each end of a
  // site.
  std::span<const uint32_t> of(const FunctionRecord& func) const {
    return {m_sites.data() + func.firstInline, func.inlineCount};
  }

 private:
  const TypeNames& m_typeNames;
  std::vector<uint32_t> m_sites;
};

// Prints the I lines of functions.
class InlinePrinter {
 public:
  // All must outlive this.
  InlinePrinter(const MsfFile& file, const InlineSites& sites, const InlineeLines& lines,
                TypeNames& names)
      : m_file(file),
        m_sites(sites),
        m_lines(lines),
        m_typeNames(names),
        m_maxRanges(limits::kInlineRanges.of(file.pages().length)),
        m_maxNames(limits::kInlineNames.of(file.pages().length)) {}

  // Appends the I lines of a function. Throws pdb_exception for damaged annotations and for names
  // that cannot be rendered, LimitExceeded for a function with far too many sites.
  void print(const FunctionRecord& func, TextBuffer& out);

 private:
  StreamReader& siteReader(uint32_t stream);
  bool allInlineesNamed(StreamReader& reader, std::span<const uint32_t> sites);
  void storeRanges(const InlineFunctionRecord& record, uint32_t tower, uint32_t functionRva,
                   AnnotationDecoder& decoder);

  const MsfFile& m_file;
  const InlineSites& m_sites;
  const InlineeLines& m_lines;
  TypeNames& m_typeNames;
  const uint64_t m_maxRanges;
  const uint64_t m_maxNames;
  InlineTree m_tree;                     // of the function that is being printed
  std::optional<StreamReader> m_reader;  // of the stream that the last function came from
  uint32_t m_stream = 0;
};

}  // namespace symforge_internal
