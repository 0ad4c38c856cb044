// Writes an untrusted symbol file into a symbol tree, as text and as SYMB: whatever identity it
// names, nothing outside the tree changes, and the place in the tree is the one of that identity.

#include <filesystem>
#include <string>
#include <utility>

#include "builders/bytes.h"
#include "fuzz/harness.h"
#include "symforge/src/driver/write_result.h"
#include "tests/support/process.h"

using namespace symforge_internal;

namespace fs = std::filesystem;

namespace {

// The tree has symbol files, their two folders and links, and no other file is beside it.
void check(const fs::path& folder, const std::string& tree) {
  size_t beside = 0;
  for (const auto& entry : fs::directory_iterator(folder)) beside += entry.exists() ? 1 : 0;
  fuzzing::require(beside == 1, "nothing outside the tree");
  for (auto it = fs::recursive_directory_iterator(tree); it != fs::end(it); ++it) {
    fuzzing::require(it.depth() <= 2, "two folders");
    const bool is_file = it->is_regular_file() && !it->is_symlink();
    fuzzing::require(is_file == (it.depth() == 2), "files in the inner folders only");
  }
}

void write(std::string_view content, bool binary) {
  const test_support::TemporaryDirectory folder;
  const std::string tree = folder.folder("tree");
  SymbolText result;
  result.text.append(content);
  const bool written = write_result(std::move(result), {.binary = binary, .tree = tree.c_str()});
  check(folder.path(), tree);
  sym_info info;
  if (!written || binary || !sym_info_parse(std::string(content).c_str(), info)) return;
  const std::string path = existing_tree_path(tree, info.debug_file, info.debug_id, binary);
  fuzzing::require(!path.empty() && builders::read_file(path) == content, "the file in its place");
}

}  // namespace

FUZZ_TARGET(tree_files)(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  write(content, false);
  write(content, true);
  return 0;
}
