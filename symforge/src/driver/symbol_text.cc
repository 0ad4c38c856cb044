#include "symforge/src/driver/symbol_text.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/file_io.h"
#include "base/printable.h"
#include "common/symb_block.h"
#include "common/symb_text.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

// A text symbol file is taken up to the first byte that no such file can hold.
void take_text(TextBuffer content, SymbolText& result) {
  constexpr int kEndOfText = 0xFF;
  if (const void* end = std::memchr(content.data(), kEndOfText, content.size())) {
    content.truncate(static_cast<size_t>(static_cast<const char*>(end) - content.data()));
  }
  result.text = std::move(content);
}

bool text_of_symb(TextBuffer image, const char* path, SymbolText& result) {
  if (symb_read(image.data(), image.size(), result.text)) return true;
  report("failed to parse symb file %s", printable(path).c_str());
  return false;
}

void text_of_pdb(const ConversionInput& input, const ConversionOptions& options,
                 SymbolText& result) {
  PDBParser parser(do_inline);
  parser.load(input.pdb, input.exe, options.tree, result.text);
  parser.printBreakpadSymbols(result.text, nullptr);
  if (input.pdb != nullptr) result.identity = parser.identity();
}

// The published text of a PDB, with complete content. `image`: the PE image that belongs to it, or
// null. Makes no folders.
void standard_text_of_pdb(const char* pdb, const char* image, SymbolText& result) {
  // An image path that cannot be opened keeps the parser from looking for one by its name.
  text_of_pdb({.pdb = pdb, .exe = image != nullptr ? image : ""}, {.standard = true}, result);
}

}  // namespace

bool OpenedInput::open() {
  constexpr size_t kMagicBytes = 6;
  if (input_.pdb == nullptr) {
    kind_ = Kind::kPeAlone;
    return true;
  }
  const FileDescriptor file(::open(input_.pdb, O_RDONLY | O_CLOEXEC));
  if (!file.is_open() || !read_file(file.get(), content_, kMagicBytes)) return true;

  const bool text = content_.view().starts_with("MODULE");
  if (!text && !content_.view().starts_with(kSymbMagic)) return true;
  kind_ = text ? Kind::kText : Kind::kSymb;
  if (read_file(file.get(), content_)) return true;
  report("failed to read %s: %s", printable(input_.pdb).c_str(), strerror(errno));
  return false;
}

bool text_of(OpenedInput& opened, const ConversionOptions& options, SymbolText& result) {
  const ConversionInput& input = opened.input();
  switch (opened.kind()) {
    case OpenedInput::Kind::kText:
      take_text(std::move(opened.content()), result);
      return true;
    case OpenedInput::Kind::kSymb:
      return text_of_symb(std::move(opened.content()), input.pdb, result);
    case OpenedInput::Kind::kPdb:
    case OpenedInput::Kind::kPeAlone:
      break;
  }
  if (options.standard && input.pdb != nullptr) {
    standard_text_of_pdb(input.pdb, input.exe, result);
  } else {
    text_of_pdb(input, options, result);
  }
  return true;
}

}  // namespace symforge_internal
