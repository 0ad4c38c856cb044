// Joins an untrusted image with the symbol file that a tree has for it: the result begins with that
// file, and continues with the image's own lines.

#include <filesystem>
#include <optional>
#include <string>

#include "base/path_names.h"
#include "base/text_buffer.h"
#include "builders/bytes.h"
#include "fuzz/harness.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/utils.h"
#include "tests/support/memory_file.h"
#include "tests/support/process.h"

using namespace symforge_internal;

namespace {

// The symbol file for an identity; empty when that has no place in a tree.
std::string symbol_file(const std::string& tree, const ImageIdentity& identity) {
  const std::string name(last_component(identity.debug_file, kAnySeparators));
  if (make_tree_folders(tree, name, identity.debug_id, 0700) != TreeFolders::kMade) return {};
  const std::string text = "MODULE windows x86_64 " + identity.debug_id + " a.pdb\n";
  try {
    builders::write_file(tree_path(tree, name, identity.debug_id, /*binary=*/false), text);
  } catch (const std::runtime_error&) {
    return {};  // the name is too long
  }
  return text;
}

}  // namespace

FUZZ_TARGET(image_alone)(const uint8_t* data, size_t size) {
  const test_support::MemoryFile pe({reinterpret_cast<const char*>(data), size});
  const std::optional<ImageIdentity> identity = pe_debug_id(pe.path());
  const test_support::TemporaryDirectory tree;
  const std::string file = identity ? symbol_file(tree.path(), *identity) : std::string();
  PDBParser parser(/*with_inlines=*/true);
  TextBuffer text;
  fuzzing::run_limited(size, text, [&] {
    parser.load(nullptr, pe.path(), tree.path().c_str(), text);
    parser.printBreakpadSymbols(text, nullptr);
    fuzzing::require(!file.empty() && text.view().starts_with(file + "INFO CODE_ID "),
                     "the symbol file, then the image");
  });
  return 0;
}
