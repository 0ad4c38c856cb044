// Reads a PE image: its identity, and, together with a valid PDB, its headers, sections and unwind
// data.

#include <optional>
#include <string>

#include "base/text_buffer.h"
#include "builders/pdb_builder.h"
#include "fuzz/harness.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/pe/pe_image.h"
#include "tests/support/memory_file.h"

using namespace symforge_internal;

namespace {

const test_support::MemoryFile& good_pdb() {
  static const test_support::MemoryFile file(builders::PdbBuilder(512).build().bytes);
  return file;
}

}  // namespace

FUZZ_TARGET(pe)(const uint8_t* data, size_t size) {
  const test_support::MemoryFile pe({reinterpret_cast<const char*>(data), size});
  std::string debug_id;
  std::string debug_file;
  if (pe64_debug_id(pe.path(), debug_id, debug_file)) {
    fuzzing::require(debug_id.size() > 32 && debug_id.size() <= 40, "a whole identifier");
    const std::optional<ImageIdentity> identity = pe_debug_id(pe.path());
    fuzzing::require(identity && identity->debug_id == debug_id, "one identity for both readers");
  } else {
    fuzzing::require(debug_id.empty() && debug_file.empty(), "no half identity");
  }
  PDBParser parser(true);
  TextBuffer text;
  fuzzing::run_limited(size, text, [&] {
    parser.load(good_pdb().path(), pe.path(), nullptr, text);
    parser.printBreakpadSymbols(text, nullptr);
  });
  return 0;
}
