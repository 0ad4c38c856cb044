// resolve_addresses SYMBOL_FILE [LOAD_ADDRESS]
//
// A complete host of the resolver in one file: loads the symbols of one module and resolves code
// addresses, so that programs in any language can use the resolver through a pipe.
//
// SYMBOL_FILE is a text symbol file or a SYMB file. LOAD_ADDRESS (hexadecimal, default 0) is where
// the module is loaded. Standard input has one absolute address per line, in hexadecimal with or
// without "0x". For each, one line with a JSON object is written to standard output and flushed
// before the next address is read:
//
//   address, function_base, source_line_base   numbers, absolute addresses (0: unknown)
//   function_name, source_file_name            strings ("": unknown)
//   source_line                                number (0: unknown)
//   inlines             array of {name, source_file_name, source_line}, innermost first; filled
//                       from SYMB files
//   windows_frame_info  null, or {type, valid, prolog_size, epilog_size, parameter_size,
//                       saved_register_size, local_size, max_stack_size, allocates_base_pointer,
//                       program_string}: numbers except the last two, a bool and a string
//   cfi                 null, or {cfa_rule, ra_rule, register_rules}, the last one an object that
//                       maps register names to rules
//
// Numbers are decimal and may need all 64 bits. Strings are UTF-8: a byte that is not part of a
// well-formed UTF-8 sequence is replaced by U+FFFD, the replacement character.
//
// The result for a line that is not an address is {"error": "..."}. Empty lines are skipped. Log
// lines go to standard error. Exit status: 0 at the end of the input, 1 if the symbols cannot be
// loaded, 2 for wrong arguments.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/symb.h"
#include "google_breakpad/processor/basic_code_module.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"

using google_breakpad::BasicCodeModule;
using google_breakpad::CFIFrameInfo;
using google_breakpad::StackFrame;
using google_breakpad::WindowsFrameInfo;

namespace {

// Returns the length of the well-formed UTF-8 sequence at the start of `text`, 0 if there is none.
size_t utf8_length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Second bytes that make an overlong encoding, a surrogate, or a code point above U+10FFFF.
  const unsigned char second = byte(1);
  if (first == 0xe0 && second < 0xa0) return 0;
  if (first == 0xed && second > 0x9f) return 0;
  if (first == 0xf0 && second < 0x90) return 0;
  if (first == 0xf4 && second > 0x8f) return 0;
  return length;
}

// Builds one JSON object, member by member.
class JsonObject {
 public:
  explicit JsonObject(std::string& out) : out_(out) { out_ += '{'; }

  void number(std::string_view key, uint64_t value) { this->key(key) += std::to_string(value); }
  void signed_number(std::string_view key, int value) { this->key(key) += std::to_string(value); }
  void boolean(std::string_view key, bool value) { this->key(key) += value ? "true" : "false"; }
  void string(std::string_view key, std::string_view value) { quote(value, this->key(key)); }
  // Starts a member. The caller appends its value to the returned text.
  std::string& key(std::string_view key) {
    if (!first_) out_ += ", ";
    first_ = false;
    quote(key, out_);
    return out_ += ": ";
  }
  void end() { out_ += '}'; }

 private:
  static void quote(std::string_view text, std::string& out) {
    out += '"';
    while (!text.empty()) {
      const size_t length = utf8_length(text);
      if (length == 0) {
        out += "\\ufffd";
      } else if (static_cast<unsigned char>(text[0]) < 0x20 || text[0] == 0x7f) {
        char escape[7];
        snprintf(escape, sizeof(escape), "\\u%04x", text[0]);
        out += escape;
      } else {
        if (text[0] == '"' || text[0] == '\\') out += '\\';
        out += text.substr(0, length);
      }
      text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
  }

  std::string& out_;
  bool first_ = true;
};

void append_inlines(const StackFrame& frame, std::string& out) {
  out += '[';
  for (const StackFrame::Inline& site : frame.inlines) {
    if (&site != &frame.inlines.front()) out += ", ";
    JsonObject object(out);
    object.string("name", site.name);
    object.string("source_file_name", site.source_file_name);
    object.signed_number("source_line", site.source_line);
    object.end();
  }
  out += ']';
}

void append_windows_frame_info(const WindowsFrameInfo* info, std::string& out) {
  if (info == nullptr) {
    out += "null";
    return;
  }
  JsonObject object(out);
  object.signed_number("type", info->type_);
  object.signed_number("valid", info->valid);
  object.number("prolog_size", info->prolog_size);
  object.number("epilog_size", info->epilog_size);
  object.number("parameter_size", info->parameter_size);
  object.number("saved_register_size", info->saved_register_size);
  object.number("local_size", info->local_size);
  object.number("max_stack_size", info->max_stack_size);
  object.boolean("allocates_base_pointer", info->allocates_base_pointer);
  object.string("program_string", info->program_string);
  object.end();
}

void append_cfi(const CFIFrameInfo* info, std::string& out) {
  if (info == nullptr) {
    out += "null";
    return;
  }
  JsonObject object(out);
  object.string("cfa_rule", info->cfa_rule());
  object.string("ra_rule", info->ra_rule());
  JsonObject registers(object.key("register_rules"));
  for (const auto& [name, rule] : info->register_rules()) registers.string(name, rule);
  registers.end();
  object.end();
}

// The symbols of the module, and the SYMB block they may be stored in.
class Symbols {
 public:
  Symbols(const std::string& file, uint64_t load_address)
      : module_(file, "the only module", load_address) {}

  bool load(const std::string& file) {
    char* data = nullptr;
    size_t size = 0;
    if (!google_breakpad::BasicSourceLineResolver::ReadSymbolFile(file, &data, &size)) return false;
    data_.reset(data);
    // Lookups trust a SYMB block, so validate one from an untrusted source once. The size includes
    // the NUL after the file's contents, which is not part of the block.
    if (strncmp(data, "SYMB", 4) == 0 &&
        !symb_validate(reinterpret_cast<uint64_t>(data), size - 1)) {
      std::cerr << file << ": damaged SYMB file\n";
      return false;
    }
    return resolver_.LoadModuleUsingMemoryBuffer(&module_, data, size);
  }

  std::string answer(uint64_t address) {
    StackFrame frame;
    frame.instruction = address;
    frame.module = &module_;
    resolver_.FillSourceLineInfo(&frame);
    const std::unique_ptr<WindowsFrameInfo> windows(resolver_.FindWindowsFrameInfo(&frame));
    const std::unique_ptr<CFIFrameInfo> cfi(resolver_.FindCFIFrameInfo(&frame));

    std::string out;
    JsonObject object(out);
    object.number("address", address);
    object.string("function_name", frame.function_name);
    object.number("function_base", frame.function_base);
    object.string("source_file_name", frame.source_file_name);
    object.signed_number("source_line", frame.source_line);
    object.number("source_line_base", frame.source_line_base);
    append_inlines(frame, object.key("inlines"));
    append_windows_frame_info(windows.get(), object.key("windows_frame_info"));
    append_cfi(cfi.get(), object.key("cfi"));
    object.end();
    return out;
  }

 private:
  BasicCodeModule module_;
  std::unique_ptr<char[]> data_;  // outlives the resolver, whose symbols may point into it
  google_breakpad::BasicSourceLineResolver resolver_;
};

std::optional<uint64_t> parse_address(std::string_view text) {
  if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X") text.remove_prefix(2);
  uint64_t address = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), address, 16);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return address;
}

std::string_view without_blanks(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  return line.substr(0, line.find_last_not_of(kBlanks) + 1);
}

std::string error_answer(std::string_view line) {
  std::string out;
  JsonObject object(out);
  object.string("error", "no hexadecimal address: " + std::string(line));
  object.end();
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<uint64_t> load_address = argc == 3 ? parse_address(argv[2]) : 0;
  if (argc < 2 || argc > 3 || !load_address) {
    std::cerr << "usage: resolve_addresses SYMBOL_FILE [LOAD_ADDRESS]\n";
    return 2;
  }
  Symbols symbols(argv[1], *load_address);
  if (!symbols.load(argv[1])) return 1;

  for (std::string line; std::getline(std::cin, line);) {
    const std::string_view word = without_blanks(line);
    if (word.empty()) continue;
    const std::optional<uint64_t> address = parse_address(word);
    std::cout << (address ? symbols.answer(*address) : error_answer(word)) << std::endl;
  }
  return 0;
}
