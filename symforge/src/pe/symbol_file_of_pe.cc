#include "symforge/src/pe/symbol_file_of_pe.h"

#include <fcntl.h>

#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/path_names.h"
#include "common/symb_text.h"
#include "symforge/src/pdb_exception.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr std::string_view kCodeId = "INFO CODE_ID";

[[noreturn]] void throwSecondPe() { throw pdb_exception("exe/dll already exists"); }

TextBuffer readWhole(const std::string& path, const char* failure) {
  TextBuffer content;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // What is read in part would be written back in part, over the whole file.
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

void copySymb(const std::string& path, TextBuffer& out) {
  TextBuffer image = readWhole(path, "failed to open binary sym file");
  if (!symb_read(image.data(), image.size(), out))
    throw pdb_exception("failed to parse binary sym file");
  if (out.view().find(kCodeId) != std::string_view::npos) throwSecondPe();
}

}  // namespace

void findSymbolFileOfPe(const char* exe, const char* sympath, TextBuffer& out) {
  std::string debug_id;
  std::string debug_file;
  if (exe == nullptr || !pe64_debug_id(exe, debug_id, debug_file))
    throw pdb_exception("Not a valid 64bit PE");
  if (debug_file.empty() || debug_id.empty())
    throw pdb_exception("PE with empty debug file name or id");
  debug_file = std::string(last_component(debug_file, kAnySeparators));

  const auto inTree = [&](bool binary) {
    return sympath == nullptr ? std::string()
                              : existing_tree_path(sympath, debug_file, debug_id, binary);
  };
  if (const std::string path = inTree(/*binary=*/false); !path.empty()) {
    copyText(path, out);
  } else if (const std::string image = inTree(/*binary=*/true); !image.empty()) {
    copySymb(image, out);
  } else {
    throw pdb_exception("PE file without matching pdb or sym file");
  }
}

}  // namespace symforge_internal
