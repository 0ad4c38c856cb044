// Converts a PDB to text with and without inline sites and in the standard format, and checks that
// pdb_debug_id() accepts the same files.

#include <memory>
#include <string>

#include "base/text_buffer.h"
#include "fuzz/harness.h"
#include "symforge/src/PDBParser.h"
#include "tests/support/memory_file.h"

using symforge_internal::TextBuffer;

using fuzzing::Outcome;
using symforge_internal::PDBParser;

namespace {

Outcome convert(const test_support::MemoryFile& pdb, size_t size, bool inlines,
                std::string& debug_id) {
  // Outside of the run, so that it is destroyed and the file unmapped even if the run is aborted.
  PDBParser parser(inlines);
  TextBuffer text;
  return fuzzing::run_limited(size, text, [&] {
    parser.load(pdb.path(), nullptr, nullptr, text);
    debug_id = parser.debug_id();
    parser.printBreakpadSymbols(text, nullptr);
    fuzzing::require(text.view().starts_with("MODULE windows "), "a text begins with its module");
    fuzzing::require(text.view().ends_with('\n'), "a text is made of whole lines");
  });
}

void convert_to_standard(const test_support::MemoryFile& pdb, size_t size) {
  PDBParser parser(/*with_inlines=*/true);
  TextBuffer text;
  symforge_internal::StandardCounts counts;
  fuzzing::run_limited(size, text, [&] {
    parser.load(pdb.path(), nullptr, nullptr, text);
    parser.printStandardSymbols(text, counts);
    fuzzing::require(text.view().starts_with("MODULE windows "), "a text begins with its module");
    fuzzing::require(text.view().ends_with('\n'), "a text is made of whole lines");
  });
}

}  // namespace

FUZZ_TARGET(pdb_to_text)(const uint8_t* data, size_t size) {
  const test_support::MemoryFile pdb({reinterpret_cast<const char*>(data), size});
  std::string debug_id;
  if (convert(pdb, size, true, debug_id) == Outcome::kAborted) return 0;
  std::string without_inlines;
  convert(pdb, size, false, without_inlines);
  fuzzing::require(debug_id == without_inlines, "one identifier");
  convert_to_standard(pdb, size);
  std::string alone;
  fuzzing::require(
      symforge_internal::pdb_debug_id(pdb.path(), alone) == !debug_id.empty() && alone == debug_id,
      "the identifier without the conversion");
  return 0;
}
