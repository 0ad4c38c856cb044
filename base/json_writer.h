// JsonWriter: writes one JSON value as one line of text.
//
//   JsonWriter json;
//   json.begin_object();
//   json.field("path", path).field("bytes", size).null_field("image");
//   json.begin_array("names");
//   json.value("a");
//   json.end_array();
//   json.end_object();
//   write_file(STDOUT_FILENO, json.line());
//
// The caller balances begins and ends, and gives names inside of objects only.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace symforge_internal {

// Appends a string with its quotation marks. Control characters are escaped, and bytes that are not
// UTF-8 are replaced by U+FFFD, so the result is always valid.
void append_json_string(std::string& out, std::string_view text);

class JsonWriter {
 public:
  JsonWriter& begin_object(std::string_view name = {}) { return open(name, '{'); }
  JsonWriter& begin_array(std::string_view name) { return open(name, '['); }
  JsonWriter& end_object() { return close('}'); }
  JsonWriter& end_array() { return close(']'); }

  JsonWriter& field(std::string_view name, std::string_view text);
  JsonWriter& field(std::string_view name, const char* text) {
    return field(name, std::string_view(text));
  }
  JsonWriter& field(std::string_view name, uint64_t number);
  JsonWriter& field(std::string_view name, bool value);
  JsonWriter& null_field(std::string_view name);
  // Null for an empty text.
  JsonWriter& text_or_null(std::string_view name, std::string_view text) {
    return text.empty() ? null_field(name) : field(name, text);
  }
  // With three decimals.
  JsonWriter& seconds(std::string_view name, double seconds);
  // An element of an array.
  JsonWriter& value(std::string_view text);

  const std::string& text() const { return text_; }
  std::string line() const { return text_ + "\n"; }

 private:
  JsonWriter& open(std::string_view name, char bracket);
  JsonWriter& close(char bracket);
  void start(std::string_view name);
  JsonWriter& raw_field(std::string_view name, std::string_view value);

  std::string text_;
  bool first_ = true;  // of its object or array
};

}  // namespace symforge_internal
