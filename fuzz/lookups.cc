#include "fuzz/lookups.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "fuzz/harness.h"

using namespace google_breakpad;

namespace fuzzing {

Symbols::Symbols(std::string_view file) : bytes_(new char[file.size() + 1]) {
  file.copy(bytes_.get(), file.size());
  bytes_[file.size()] = '\0';
  require(resolver_.LoadModuleUsingMemoryBuffer(&module_, bytes_.get(), file.size() + 1),
          "a load does not fail");
  // What a text says is in the module now; only an image is still looked at.
  if (!file.starts_with("SYMB")) bytes_.reset();
}

StackFrame Symbols::question(uint64_t address) const {
  StackFrame frame;
  frame.instruction = address;
  frame.module = &module_;
  return frame;
}

StackFrame Symbols::frame(uint64_t address) const {
  StackFrame frame = question(address);
  resolver_.FillSourceLineInfo(&frame);
  return frame;
}

std::unique_ptr<WindowsFrameInfo> Symbols::windows(uint64_t address) const {
  const StackFrame frame = question(address);
  return std::unique_ptr<WindowsFrameInfo>(resolver_.FindWindowsFrameInfo(&frame));
}

std::string Symbols::cfi(uint64_t address) const {
  const StackFrame frame = question(address);
  const std::unique_ptr<CFIFrameInfo> info(resolver_.FindCFIFrameInfo(&frame));
  if (info == nullptr) return {};
  std::string text = ".cfa: " + info->cfa_rule() + " .ra: " + info->ra_rule();
  for (const auto& [name, rule] : info->register_rules()) text += " " + name + ": " + rule;
  return text;
}

namespace {

// The next word of `line`, taken off it; empty at its end.
std::string_view take_word(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

std::optional<uint64_t> hex_number(std::string_view word) {
  uint64_t number;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, 16);
  if (word.empty() || error != std::errc() || end != word.data() + word.size()) return {};
  return number;
}

}  // namespace

std::vector<uint64_t> addresses_in(std::string_view text) {
  constexpr size_t kEnough = 200;
  constexpr int kWordsOfLine = 5;
  std::vector<uint64_t> addresses = {0, UINT32_MAX, UINT64_MAX};
  while (!text.empty() && addresses.size() < kEnough) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    std::optional<uint64_t> before;
    for (int i = 0; i < kWordsOfLine; ++i) {
      const std::optional<uint64_t> number = hex_number(take_word(line));
      if (number) addresses.insert(addresses.end(), {*number - 1, *number});
      if (number && before)
        addresses.insert(addresses.end(), {*before + *number - 1, *before + *number});
      before = number;
    }
  }
  std::sort(addresses.begin(), addresses.end());
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  return addresses;
}

}  // namespace fuzzing
