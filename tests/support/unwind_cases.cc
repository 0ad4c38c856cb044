#include "tests/support/unwind_cases.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "builders/arm64_unwind_builder.h"
#include "builders/bytes.h"
#include "tests/support/data.h"

namespace test_support {

using namespace builders;
namespace {

uint32_t number(const std::string& text) {
  size_t end = 0;
  const auto value = static_cast<uint32_t>(std::stoul(text, &end, 0));
  if (end != text.size()) throw std::runtime_error("no number: " + text);
  return value;
}

uint16_t slot(const std::string& text) {
  const std::string operations[] = {"push",   "large",    "small", "fpreg",   "save", "save_far",
                                    "epilog", "reserved", "xmm",   "xmm_far", "frame"};
  const std::vector<std::string> parts = split(text, ':');
  if (parts.size() == 1) return static_cast<uint16_t>(number(text));
  const auto* named = std::find(std::begin(operations), std::end(operations), parts.at(1));
  const uint32_t operation = named == std::end(operations)
                                 ? number(parts[1])
                                 : static_cast<uint32_t>(named - std::begin(operations));
  return unwind_slot(static_cast<uint8_t>(number(parts[0])), static_cast<uint8_t>(operation),
                     static_cast<uint8_t>(number(parts.at(2))));
}

}  // namespace

std::string word_of(std::string_view words, std::string_view name) {
  for (const std::string& word : split(std::string(words), ' ')) {
    if (word.starts_with(std::string(name) + "=")) return word.substr(name.size() + 1);
  }
  return {};
}

uint32_t number_of(std::string_view words, std::string_view name, uint32_t otherwise) {
  const std::string word = word_of(words, name);
  return word.empty() ? otherwise : number(word);
}

UnwindInfo x64_unwind(std::string_view words) {
  const auto byte = [&](const char* name, uint32_t otherwise) {
    return static_cast<uint8_t>(number_of(words, name, otherwise));
  };
  UnwindInfo info{.flags = byte("flags", 0),
                  .prolog_size = byte("prolog", 0),
                  .frame_register = byte("register", 0),
                  .frame_offset = byte("offset", 0),
                  .chained = {0, 0, number_of(words, "chained")},
                  .version = byte("version", 1)};
  for (const std::string& text : split(word_of(words, "slots"), ',')) {
    info.slots.push_back(slot(text));
  }
  return info;
}

uint32_t arm64_unwind(PeBuilder& pe, std::string_view words) {
  const auto field = [&](const char* name) { return number_of(words, name); };
  const uint32_t length = number_of(words, "length", 0x40);
  if (words.find("codes=") == words.npos) {
    return arm64_packed({.flag = number_of(words, "flag", 1),
                         .length = length,
                         .reg_f = field("reg_f"),
                         .reg_i = field("reg_i"),
                         .homed = field("homed"),
                         .cr = field("cr"),
                         .frame = field("frame")});
  }
  Arm64Xdata record{.length = length,
                    .version = field("version"),
                    .handler = field("handler") != 0,
                    .extended = field("extended") != 0,
                    .codes = from_hex(word_of(words, "codes"))};
  if (!word_of(words, "single_epilog").empty()) {
    record.single_epilog = static_cast<int>(field("single_epilog"));
  }
  for (const std::string& epilog : split(word_of(words, "epilogs"), ',')) {
    const std::vector<std::string> parts = split(epilog, ':');
    record.epilogs.push_back(
        {number(parts[0]), number(parts.at(1)), parts.size() > 2 ? number(parts[2]) : 0});
  }
  return pe.raw_unwind_info(record.bytes());
}

std::string cfi_rows(std::string_view lines) {
  std::string rows;
  for (const std::string& line : split(std::string(lines), '\n')) {
    rows += (rows.empty() ? "" : "; ") + line.substr(line.starts_with("STACK CFI ") ? 10 : 0);
  }
  return rows;
}

}  // namespace test_support
