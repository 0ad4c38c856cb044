#include "symforge/src/driver/convert.h"

#include <execinfo.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

#include "base/printable.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/symbol_text.h"
#include "symforge/src/driver/write_result.h"

bool do_inline = true;

namespace symforge_internal {

namespace {

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

// True when the input became text; whether that was written is `written`.
bool convert_to_result(const ConversionInput& input, const ConversionOptions& options,
                       bool& written) {
  OpenedInput opened(input);
  if (!opened.open()) return false;
  SymbolText result;
  if (!text_of(opened, options, result)) return false;
  written = write_result(std::move(result), options);
  return true;
}

// Every exception ends here: files decide which are thrown.
bool convert_standard(const ConversionInput& input, const ConversionOptions& options) {
  try {
    bool written = false;
    return convert_to_result(input, options, written) && written;
  } catch (const pdb_exception& e) {
    report("%s", printable(e.what()).c_str());
  } catch (const std::bad_alloc&) {
    report("not enough memory");
  } catch (const std::exception& e) {
    report("damaged file: %s", printable(e.what()).c_str());
  }
  return false;
}

bool convert_default(const ConversionInput& input, const ConversionOptions& options) {
  try {
    bool written;  // what could not be written is no failure here
    return convert_to_result(input, options, written);
  } catch (const pdb_exception& e) {
    report("Failed to convert symbol file %s.\nException caught: %s\nBacktrace:\n%s",
           printable(input.name()).c_str(), e.what(), backtrace_text().c_str());
    return false;
  }
}

}  // namespace

bool convert(const ConversionInput& input, const ConversionOptions& options) {
  return options.standard ? convert_standard(input, options) : convert_default(input, options);
}

}  // namespace symforge_internal

using namespace symforge_internal;

bool symforge(const char* pdb_path, const char* exe_path, const char* sym_path,
              bool binary_output) {
  return convert({.pdb = pdb_path, .exe = exe_path}, {.binary = binary_output, .tree = sym_path});
}

bool symforge_sym(TextBuffer symbol_data, const char* sym_path, bool binary_output) {
  SymbolText result;
  result.text = std::move(symbol_data);
  return write_result(std::move(result), {.binary = binary_output, .tree = sym_path});
}

bool symforge_sym(std::string_view symbol_data, const char* sym_path, bool binary_output) {
  TextBuffer text;
  text.append(symbol_data);
  return symforge_sym(std::move(text), sym_path, binary_output);
}

bool pdb_create_codeid_link(const sym_info& info, const char* sym_path) {
  const std::string link = code_id_link(info, sym_path);
  if (link.empty()) return true;
  if (!is_tree_component(info.code_id)) return false;
  return symlink(info.debug_id.c_str(), link.c_str()) == 0;
}

bool string_ends_with(const std::string& s1, const std::string& s2) { return s1.ends_with(s2); }
