// InlineSites: the inline sites of all functions, and the I lines of a function.

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

// Reads the body of an inline-site symbol, on whose first byte the reader is; `size` is the
// symbol's. A size too small for an inline site wraps, and the read throws
// pdb_recoverable_exception.
InlineFunctionRecord readInlineSite(StreamReader& reader, uint32_t size);

// Sites are added in the order of the symbols of their module, for one function after the other.
// Only the offset of a symbol is kept, as there are many more sites than functions: the symbols are
// read again when their function is printed.
class InlineSites {
 public:
  // `file`, `lines` and `names` must outlive this; `lines` may be filled later.
  InlineSites(const MsfFile& file, const InlineeLines& lines, TypeNames& names)
      : m_file(file),
        m_lines(lines),
        m_typeNames(names),
        m_maxRanges(limits::kInlineRanges.of(file.pages().length)),
        m_maxNames(limits::kInlineNames.of(file.pages().length)) {}

  // `func` is a new function whose symbols are in a stream; its sites follow.
  void beginFunction(uint16_t stream, FunctionRecord& func) const;
  // Adds the opening of a site whose symbol is at `symbolOffset` in the stream, or the end of the
  // last open one. An inlinee without a name silences all sites of its function.
  void openSite(uint32_t inlinee, uint32_t symbolOffset, FunctionRecord& func);
  void closeSite(FunctionRecord& func);

  // Appends the I lines of a function. Throws pdb_exception for damaged annotations and for names
  // that cannot be rendered, LimitExceeded for a function with far too many sites.
  void dumpInlineFunctionMap(const FunctionRecord& func, TextBuffer& out);

 private:
  static constexpr uint32_t kSiteEnd = 0;

  StreamReader& siteReader(uint32_t stream);
  bool allInlineesNamed(StreamReader& reader, std::span<const uint32_t> sites);
  void storeRanges(const InlineFunctionRecord& record, uint32_t tower, uint32_t functionRva,
                   AnnotationDecoder& decoder);

  const MsfFile& m_file;
  const InlineeLines& m_lines;
  TypeNames& m_typeNames;
  const uint64_t m_maxRanges;
  const uint64_t m_maxNames;
  // A range for each function: the offset of the symbol of a site that opens, kSiteEnd for one that
  // closes.
  std::vector<uint32_t> m_sites;
  InlineTree m_tree;                     // of the function that is being printed
  std::optional<StreamReader> m_reader;  // of the stream that the last function came from
  uint32_t m_stream = 0;
};

}  // namespace symforge_internal
