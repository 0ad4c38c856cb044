#include "base/json_writer.h"

#include <algorithm>
#include <cstddef>

namespace symforge_internal {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool is_between(uint8_t byte, uint8_t low, uint8_t high) { return byte >= low && byte <= high; }

// Bytes of the UTF-8 character of several bytes that `text` begins with; 0 if it is not one. The
// second byte is restricted after some first ones: no long forms, surrogates, or code points above
// U+10FFFF.
size_t character_size(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(0);
  const size_t size = is_between(lead, 0xC2, 0xDF)   ? 2
                      : is_between(lead, 0xE0, 0xEF) ? 3
                      : is_between(lead, 0xF0, 0xF4) ? 4
                                                     : 0;
  if (size == 0 || text.size() < size) return 0;
  const uint8_t low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const uint8_t high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (!is_between(byte(1), low, high)) return 0;
  for (size_t i = 2; i < size; ++i) {
    if (!is_between(byte(i), 0x80, 0xBF)) return 0;
  }
  return size;
}

void append_escaped(std::string& out, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  switch (c) {
    case '"':
    case '\\':
      out.append({'\\', c});
      break;
    case '\n':
      out.append("\\n");
      break;
    case '\t':
      out.append("\\t");
      break;
    default:
      out.append("\\u00").append({kDigits[c >> 4 & 15], kDigits[c & 15]});
  }
}

}  // namespace

void append_json_string(std::string& out, std::string_view text) {
  constexpr char kDelete = 0x7F;
  out.push_back('"');
  while (!text.empty()) {
    const char c = text[0];
    size_t size = 1;
    if (static_cast<uint8_t>(c) >= 0x80) {
      size = character_size(text);
      out.append(size == 0 ? kReplacement : text.substr(0, size));
    } else if (c < 0x20 || c == kDelete || c == '"' || c == '\\') {
      append_escaped(out, c);
    } else {
      out.push_back(c);
    }
    text.remove_prefix(std::max<size_t>(size, 1));
  }
  out.push_back('"');
}

void JsonWriter::start(std::string_view name) {
  if (!first_) text_.append(",");
  first_ = false;
  if (name.empty()) return;
  append_json_string(text_, name);
  text_.push_back(':');
}

JsonWriter& JsonWriter::open(std::string_view name, char bracket) {
  start(name);
  text_.push_back(bracket);
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
  text_.push_back(bracket);
  first_ = false;
  return *this;
}

JsonWriter& JsonWriter::raw_field(std::string_view name, std::string_view value) {
  start(name);
  text_.append(value);
  return *this;
}

JsonWriter& JsonWriter::field(std::string_view name, std::string_view text) {
  start(name);
  append_json_string(text_, text);
  return *this;
}

JsonWriter& JsonWriter::field(std::string_view name, uint64_t number) {
  return raw_field(name, std::to_string(number));
}

JsonWriter& JsonWriter::field(std::string_view name, bool value) {
  return raw_field(name, value ? "true" : "false");
}

JsonWriter& JsonWriter::null_field(std::string_view name) { return raw_field(name, "null"); }

JsonWriter& JsonWriter::seconds(std::string_view name, double seconds) {
  const auto milliseconds = static_cast<uint64_t>(std::max(seconds, 0.0) * 1000 + 0.5);
  const std::string digits = std::to_string(1000 + milliseconds % 1000);
  return raw_field(name, std::to_string(milliseconds / 1000) + "." + digits.substr(1));
}

JsonWriter& JsonWriter::value(std::string_view text) { return field({}, text); }

}  // namespace symforge_internal
