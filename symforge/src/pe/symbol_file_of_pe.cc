#include "symforge/src/pe/symbol_file_of_pe.h"

#include <fcntl.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/path_names.h"
#include "common/symb_text.h"
#include "symforge/src/pdb_exception.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr std::string_view kCodeId = "INFO CODE_ID";

[[noreturn]] void throwSecondPe() { throw pdb_exception("exe/dll already exists"); }

TextBuffer readWhole(const std::string& path, const char* failure) {
  TextBuffer content;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // A file that is read in part would be replaced by that part.
  if (!file.is_open() || !read_file(file.get(), content)) throw pdb_exception(failure);
  return content;
}

void copyText(const std::string& path, TextBuffer& out) {
  const TextBuffer text = readWhole(path, "failed to open sym file");
  const std::string_view rest = text.view();
  const bool named =
      rest.starts_with(kCodeId) || rest.find("\nINFO CODE_ID") != std::string_view::npos;
  if (named) throwSecondPe();
  out.append(rest);
  if (!rest.empty() && rest.back() != '\n') out.append("\n");
}

void copySymb(const std::string& path, TextDialect dialect, TextBuffer& out) {
  TextBuffer image = readWhole(path, "failed to open binary sym file");
  if (!symb_read(image.data(), image.size(), out, dialect))
    throw pdb_exception("failed to parse binary sym file");
  if (out.view().find(kCodeId) != std::string_view::npos) throwSecondPe();
}

// Appends the symbol file that the tree has for an identity. False if there is none.
bool copySymbolFile(const char* sympath, const ImageIdentity& identity, TextDialect dialect,
                    TextBuffer& out) {
  if (sympath == nullptr) return false;
  const std::string debug_file(last_component(identity.debug_file, kAnySeparators));
  const auto inTree = [&](bool binary) {
    return existing_tree_path(sympath, debug_file, identity.debug_id, binary);
  };
  if (const std::string path = inTree(/*binary=*/false); !path.empty()) {
    copyText(path, out);
    return true;
  }
  const std::string image = inTree(/*binary=*/true);
  if (!image.empty()) copySymb(image, dialect, out);
  return !image.empty();
}

// For an image that is not a PE32+ image. A batch tries each of them before it converts the PDBs,
// and repeatedly on one tree, so that whatever prevents it is no news.
bool copySymbolFileOfOther(const char* exe, const char* sympath, TextDialect dialect,
                           TextBuffer& out) {
  const std::optional<ImageIdentity> identity = pe_debug_id(exe);
  try {
    return identity && copySymbolFile(sympath, *identity, dialect, out);
  } catch (const pdb_exception&) {
    return false;
  }
}

}  // namespace

void findSymbolFileOfPe(const char* exe, const char* sympath, TextDialect dialect,
                        TextBuffer& out) {
  ImageIdentity identity;
  if (exe != nullptr && pe64_debug_id(exe, identity.debug_id, identity.debug_file)) {
    if (identity.debug_file.empty()) throw pdb_exception("PE with empty debug file name or id");
    if (copySymbolFile(sympath, identity, dialect, out)) return;
    throw pdb_exception("PE file without matching pdb or sym file");
  }
  if (exe != nullptr && copySymbolFileOfOther(exe, sympath, dialect, out)) return;
  throw pdb_exception("Not a valid 64bit PE");
}

}  // namespace symforge_internal
