#include "fuzz/addresses.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "common/symb.h"

namespace fuzzing {
namespace {

// Removes the next word from `line` and returns it; empty at the end.
std::string_view next_word(std::string_view& line) {
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
      const std::optional<uint64_t> number = hex_number(next_word(line));
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

std::vector<uint64_t> words_in(std::string_view block, size_t most) {
  std::vector<uint64_t> words = {0, UINT32_MAX, UINT64_MAX};
  for (size_t at = sizeof(symb_header_v2); at + 4 <= block.size() && words.size() < most; at += 4) {
    uint32_t word;
    std::memcpy(&word, block.data() + at, sizeof word);
    words.push_back(word);
  }
  return words;
}

}  // namespace fuzzing
