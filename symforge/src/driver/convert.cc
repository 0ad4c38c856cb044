#include "symforge/src/driver/convert.h"

#include <execinfo.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "base/file_io.h"
#include "common/symb_block.h"
#include "common/symb_text.h"
#include "symforge/src/PDBParser.h"

using symforge_internal::FileDescriptor;
using symforge_internal::kSymbMagic;
using symforge_internal::pdb_exception;
using symforge_internal::PDBParser;
using symforge_internal::read_file;
using symforge_internal::TextBuffer;
using symforge_internal::write_file;

bool do_inline = true;

namespace {

constexpr int kPriority = LOG_USER | LOG_ERR;

// What the input is, by its first bytes; its whole content is read into `content` unless it is a
// PDB, which is mapped by its parser. An input that cannot be read counts as a PDB too: the parser
// is the one that reports it.
enum class InputKind { kText, kSymb, kPdb, kUnreadable };

InputKind read_input(const char* path, TextBuffer& content) {
  constexpr size_t kMagicBytes = 6;
  const FileDescriptor input(open(path, O_RDONLY | O_CLOEXEC));
  if (!input.is_open() || !read_file(input.get(), content, kMagicBytes)) return InputKind::kPdb;

  const bool text = content.view().starts_with("MODULE");
  if (!text && !content.view().starts_with(kSymbMagic)) return InputKind::kPdb;
  if (!read_file(input.get(), content)) return InputKind::kUnreadable;
  return text ? InputKind::kText : InputKind::kSymb;
}

// A text symbol file goes out as it stands, up to the first byte that no such file can hold.
bool convert_text(TextBuffer text, const char* sym_path, bool binary_output) {
  constexpr int kEndOfText = 0xFF;
  if (const void* end = std::memchr(text.data(), kEndOfText, text.size())) {
    text.truncate(static_cast<size_t>(static_cast<const char*>(end) - text.data()));
  }
  symforge_sym(std::move(text), sym_path, binary_output);
  return true;
}

bool convert_symb(TextBuffer image, const char* path, const char* sym_path, bool binary_output) {
  TextBuffer text;
  if (!symb_read(image.data(), image.size(), text)) {
    syslog(kPriority, "failed to parse symb file %s\n", path);
    return false;
  }
  image = TextBuffer();  // the text is all that is needed from here on
  symforge_sym(std::move(text), sym_path, binary_output);
  return true;
}

bool convert_pdb(const char* pdb_path, const char* exe_path, const char* sym_path,
                 bool binary_output) {
  TextBuffer text;
  {
    PDBParser parser(do_inline);
    parser.load(pdb_path, exe_path, sym_path, text);
    parser.printBreakpadSymbols(text, nullptr);
  }  // the parser's tables go before a SYMB image is made
  symforge_sym(std::move(text), sym_path, binary_output);
  return true;
}

bool convert(const char* pdb_path, const char* exe_path, const char* sym_path, bool binary_output) {
  if (pdb_path != nullptr) {
    TextBuffer content;
    switch (read_input(pdb_path, content)) {
      case InputKind::kText:
        return convert_text(std::move(content), sym_path, binary_output);
      case InputKind::kSymb:
        return convert_symb(std::move(content), pdb_path, sym_path, binary_output);
      case InputKind::kUnreadable:
        syslog(kPriority, "failed to read %s: %s\n", pdb_path, strerror(errno));
        return false;
      case InputKind::kPdb:
        break;
    }
  }
  return convert_pdb(pdb_path, exe_path, sym_path, binary_output);
}

// The innermost frames of the call stack, a line each.
std::string backtrace_text() {
  constexpr int kMaxFrames = 20;
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  char** const names = backtrace_symbols(frames, count);
  std::string text;
  for (int i = 0; names != nullptr && i < count; ++i) {
    text.append("\t").append(names[i]).append("\n");
  }
  std::free(names);
  return text;
}

// What a conversion writes: the text itself, or the SYMB image made of it, which may not exist.
struct Output {
  std::string_view bytes;
  TextBuffer text;  // either of them holds `bytes`
  std::unique_ptr<char[]> image;
  bool complete = true;  // false: no image could be made, the output is empty
};

Output make_output(TextBuffer symbol_data, bool binary_output) {
  Output output;
  if (!binary_output) {
    output.text = std::move(symbol_data);
    output.bytes = output.text.view();
    return output;
  }
  char* image = nullptr;
  size_t size = 0;
  output.complete = symb_write(std::move(symbol_data), &image, &size);
  if (output.complete) {
    output.image.reset(image);
    output.bytes = {image, size};
  }
  return output;
}

bool write_to_stdout(std::string_view content) {
  if (write_file(STDOUT_FILENO, content)) return true;
  syslog(kPriority, "failed to write: %d\n", errno);
  return false;
}

// Logs a failure that `errno` describes and takes the file away that was to replace the target.
bool give_up(const char* message, const std::string& tmpfile) {
  syslog(kPriority, message, errno);
  unlink(tmpfile.c_str());
  return false;
}

// Puts `content` in the place of `target` in one step: it is written to a file beside the target,
// which is renamed only when it is complete.
bool replace_file(const std::string& target, std::string_view content) {
  std::string tmpfile = target + "XXXXXX";
  const int created = mkstemp(tmpfile.data());
  if (created == -1) {
    syslog(kPriority, "failed to mkstemp: %d\n", errno);
    return false;
  }
  close(created);
  // Opened by its name: that the folder has gone in the meantime shows here and not as a result
  // that is written to nowhere.
  FileDescriptor file(open(tmpfile.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!file.is_open()) {
    syslog(kPriority, "failed to open file: %s\n", target.c_str());
    return false;
  }
  if (!write_file(file.get(), content) || !file.close()) {
    return give_up("failed to write: %d\n", tmpfile);
  }
  if (rename(tmpfile.c_str(), target.c_str()) != 0) {
    return give_up("failed to rename: %d\n", tmpfile);
  }
  return true;
}

}  // namespace

bool symforge(const char* pdb_path, const char* exe_path, const char* sym_path,
              bool binary_output) {
  try {
    return convert(pdb_path, exe_path, sym_path, binary_output);
  } catch (const pdb_exception& e) {
    syslog(kPriority, "Failed to convert symbol file %s.\nException caught: %s\nBacktrace:\n%s\n",
           pdb_path != nullptr ? pdb_path : exe_path, e.what(), backtrace_text().c_str());
    return false;
  }
}

bool symforge_sym(std::string_view symbol_data, const char* sym_path, bool binary_output) {
  TextBuffer text;
  text.append(symbol_data);
  return symforge_sym(std::move(text), sym_path, binary_output);
}

bool symforge_sym(TextBuffer symbol_data, const char* sym_path, bool binary_output) {
  sym_info info;
  if (!sym_info_parse(symbol_data.c_str(), info)) {
    syslog(kPriority, "failed to extrace debug id from data\n");
    return false;
  }
  if (sym_path == nullptr) {
    const Output output = make_output(std::move(symbol_data), binary_output);
    return write_to_stdout(output.bytes) && output.complete;
  }

  std::string output_path;
  if (!synthesize_sym_path(sym_path, info.debug_file.c_str(), info.debug_id.c_str(), binary_output,
                           true, output_path)) {
    syslog(kPriority, "failed to create symbol file path: %s/%s\n", info.debug_file.c_str(),
           info.debug_id.c_str());
    return false;
  }
  // Made before the temporary file is: a text that the image writer dies of leaves none behind.
  const Output output = make_output(std::move(symbol_data), binary_output);
  if (!replace_file(output_path, output.bytes)) return false;
  return output.complete && pdb_create_codeid_link(info, sym_path);
}

bool pdb_create_codeid_link(const sym_info& info, const char* sym_path) {
  if (info.code_id.empty()) return true;
  if (!string_ends_with(info.code_file, ".exe") && !string_ends_with(info.code_file, ".dll")) {
    return true;
  }
  if (!is_tree_component(info.code_id)) return false;
  const std::string link = std::string(sym_path) + "/" + info.debug_file + "/" + info.code_id;
  return symlink(info.debug_id.c_str(), link.c_str()) == 0;
}

bool string_ends_with(const std::string& s1, const std::string& s2) { return s1.ends_with(s2); }
