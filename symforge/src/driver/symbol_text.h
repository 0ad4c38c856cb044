// The left half of a conversion: from an input to the text of a symbol file.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/file_kind.h"
#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/standard/standard_counts.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

// The first bytes of a text symbol file.
inline constexpr std::string_view kTextMagic = "MODULE";

// An input whose kind is known. Text symbol files and SYMB images are read as a whole; PDBs and
// PE images are left to their parser, which maps them.
class OpenedInput {
 public:
  // Decided by the first bytes. An input that cannot be read counts as a PDB: the parser reports
  // the failure.
  enum class Kind { kText, kSymb, kPdb, kPeAlone };

  explicit OpenedInput(const ConversionInput& input) : input_(input) {}

  // False, and reported, for a text or SYMB file that cannot be read to its end, and for standard
  // input that is neither.
  bool open(const ConversionOptions& options);

  const ConversionInput& input() const { return input_; }
  Kind kind() const { return kind_; }
  FileKind file_kind() const { return file_kind_; }
  // If the file is of a known kind that is not converted: what it is and what to do, in one line.
  // Else null.
  const char* refusal() const;
  TextBuffer& content() { return content_; }
  const TextBuffer& content() const { return content_; }

  // Of a PDB: the files that can be its image, to be selected by content. In default mode the
  // parser searches for them itself, in the same places.
  const std::vector<std::string>& image_candidates() const { return image_candidates_; }

 private:
  ConversionInput input_;
  Kind kind_ = Kind::kPdb;
  FileKind file_kind_ = FileKind::kUnknown;
  TextBuffer content_;
  std::vector<std::string> image_candidates_;
};

// The text of a symbol file.
struct SymbolText {
  TextBuffer text;
  // The end of the text, where other threads have made it; else empty.
  TextBuffer unwind_rules;
  // Its identity, if the source states it. Otherwise it is read from the text.
  std::optional<sym_info> identity;
  // Of a PDB or an image alone: the image that was used.
  std::string image;
  uint64_t image_bytes = 0;
  // Of a PDB in standard mode.
  std::optional<StandardCounts> counts;
  // The parser of a PDB that workers have helped with. It is not needed any more, but it takes some
  // time to release.
  std::unique_ptr<PDBParser> parser;
};

// Converts the input to text; consumes its content. `pool`: threads that help; null: none. False,
// and reported, for a damaged SYMB image. PDBs and PE images throw what PDBParser throws.
bool text_of(OpenedInput& opened, const ConversionOptions& options, WorkerPool* pool,
             SymbolText& result);

}  // namespace symforge_internal
