#include "symforge/src/driver/symbol_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "base/file_io.h"
#include "base/limits.h"
#include "base/printable.h"
#include "common/symb_text.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/image_search.h"
#include "symforge/src/driver/input_list.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/pe/code_file.h"
#include "symforge/src/pe/image_identity.h"

namespace symforge_internal {

namespace {

// Reports a failure of the input itself, which messages of standard mode name anyway. `reason` may
// be null.
void report_about(std::string what, const char* path, const char* reason) {
  if (!standard_messages()) what.append(" ").append(printable(path));
  if (reason != nullptr) what.append(": ").append(reason);
  report("%s", what.c_str());
}

// A text symbol file is used up to the first byte that such a file cannot contain.
void take_text(TextBuffer content, SymbolText& result) {
  constexpr int kEndOfText = 0xFF;
  if (const void* end = std::memchr(content.data(), kEndOfText, content.size())) {
    content.truncate(static_cast<size_t>(static_cast<const char*>(end) - content.data()));
  }
  result.text = std::move(content);
}

bool text_of_symb(TextBuffer image, const char* path, const ConversionOptions& options,
                  SymbolText& result) {
  const TextDialect dialect = options.standard ? TextDialect::kStandard : TextDialect::kDefault;
  if (symb_read(image.data(), image.size(), result.text, dialect)) return true;
  report_about("failed to parse symb file", path, nullptr);
  return false;
}

void text_of_pdb(const ConversionInput& input, const ConversionOptions& options, WorkerPool* pool,
                 SymbolText& result) {
  auto owner = std::make_unique<PDBParser>(do_inline);
  PDBParser& parser = *owner;
  if (pool != nullptr) parser.useWorkers(*pool, result.unwind_rules);
  if (options.standard) parser.selectStandard();
  parser.load(input.pdb, input.exe, options.tree, result.text);
  result.image = parser.codeFile().path();
  result.image_bytes = parser.codeFile().size();
  if (options.standard) {
    StandardCounts& counts = result.counts.emplace();
    parser.printStandardSymbols(result.text, counts);
    for (const std::string& message : counts.messages) report("%s", message.c_str());
  } else {
    parser.printBreakpadSymbols(result.text, nullptr);
  }
  if (input.pdb != nullptr) result.identity = parser.identity();
  if (pool != nullptr) result.parser = std::move(owner);
}

// The published text of a PDB, with complete content. `image`: the PE image that belongs to it, or
// null. Makes no folders.
void standard_text_of_pdb(const char* pdb, const char* image, WorkerPool* pool,
                          SymbolText& result) {
  // A path that cannot be opened keeps the parser from searching for an image by name.
  text_of_pdb({.pdb = pdb, .exe = image != nullptr ? image : ""}, {.standard = true}, pool, result);
}

// The debug identifier of a PDB. Throws what PDBParser throws.
std::string debug_id_of(const char* pdb) {
  PDBParser parser(/*with_inlines=*/false);
  TextBuffer unused;
  parser.load(pdb, /*exe=*/"", nullptr, unused);
  return parser.debug_id();
}

// Checks that the image of option -e has the identifier, and returns its path.
const char* check_image(const char* image, const std::string& debug_id) {
  const std::optional<ImageIdentity> identity = pe_debug_id(image);
  if (!identity) throw pdb_exception("the image has no debug identifier or cannot be read");
  if (identity->debug_id != debug_id) throw pdb_exception("the image belongs to another PDB");
  return image;
}

void standard_text_of(const OpenedInput& opened, WorkerPool* pool, SymbolText& result) {
  const ConversionInput& input = opened.input();
  const std::string debug_id = debug_id_of(input.pdb);
  if (input.exe != nullptr) {
    standard_text_of_pdb(input.pdb, check_image(input.exe, debug_id), pool, result);
    return;
  }
  const std::string* image = find_image(opened.image_candidates(), debug_id);
  // A warning, so that it is not reported when the conversion fails.
  if (image == nullptr) {
    std::fputs("no image found: no code identifier and no unwind rules of one\n", stderr);
  }
  standard_text_of_pdb(input.pdb, image != nullptr ? image->c_str() : nullptr, pool, result);
}

}  // namespace

bool OpenedInput::open(const ConversionOptions& options) {
  if (input_.pdb == nullptr) {
    kind_ = Kind::kPeAlone;
    file_kind_ = kind_of_file(input_.exe);
    return true;
  }
  const bool standard_input = std::string_view(input_.pdb) == kStandardInput;
  const FileDescriptor file(standard_input ? dup(STDIN_FILENO)
                                           : ::open(input_.pdb, O_RDONLY | O_CLOEXEC));
  if (!file.is_open() && options.standard) {
    report("%s", strerror(errno));
    return false;
  }
  const bool opened = file.is_open() && read_file(file.get(), content_, kFileKindBytes);
  if (opened) file_kind_ = symforge_internal::file_kind(content_.view());
  const bool text = file_kind_ == FileKind::kSymbolText;
  if (!text && file_kind_ != FileKind::kSymb) {
    if (standard_input) {
      // The name of a PDB is part of the result, and it is mapped.
      report("standard input is neither a text symbol file nor SYMB");
      return false;
    }
    image_candidates_ =
        options.standard ? files_of_same_stem(input_.pdb) : default_images(input_.pdb);
    return true;
  }
  kind_ = text ? Kind::kText : Kind::kSymb;
  if (read_file(file.get(), content_)) return true;
  report_about("failed to read", input_.pdb, strerror(errno));
  return false;
}

const char* OpenedInput::refusal() const {
  if (kind_ == Kind::kPeAlone && file_kind_ == FileKind::kImage) return nullptr;
  return refusal_of(file_kind_);
}

bool text_of(OpenedInput& opened, const ConversionOptions& options, WorkerPool* pool,
             SymbolText& result) {
  const ConversionInput& input = opened.input();
  switch (opened.kind()) {
    case OpenedInput::Kind::kText:
      take_text(std::move(opened.content()), result);
      return true;
    case OpenedInput::Kind::kSymb:
      return text_of_symb(std::move(opened.content()), input.pdb, options, result);
    case OpenedInput::Kind::kPdb:
    case OpenedInput::Kind::kPeAlone:
      break;
  }
  if (options.standard && input.pdb != nullptr) {
    standard_text_of(opened, pool, result);
  } else {
    text_of_pdb(input, options, pool, result);
  }
  return true;
}

}  // namespace symforge_internal
