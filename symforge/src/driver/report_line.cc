#include "symforge/src/driver/report_line.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstring>

#include "base/json_writer.h"
#include "symforge/src/pe/unwind_rules.h"

namespace symforge_internal {

namespace {

void count_line(std::string_view line, TextCounts& counts) {
  // NOLINTNEXTLINE(bugprone-branch-clone): the most frequent lines first
  if (line[0] <= '9' || line[0] >= 'a') {
    ++counts.lines;
  } else if (line.starts_with("I ") || line.starts_with("INLINE ")) {
    ++counts.inlined_calls;
  } else if (line.starts_with("STACK ")) {
    ++counts.rules;
  } else if (line.starts_with("FUNC ")) {
    ++counts.functions;
  } else if (line.starts_with("PUBLIC ")) {
    ++counts.publics;
  } else if (line.starts_with("FILE ")) {
    ++counts.files;
  } else if (!line.starts_with("MODULE ") && !line.starts_with("INFO ") &&
             !line.starts_with("INLINE_ORIGIN ")) {
    ++counts.lines;  // with digits in capitals
  }
}

// A message about the unwind rules of an image; those of entries begin with their number.
LeftOut left_out_rules(std::string_view message) {
  LeftOut result = {"unwind_rules", 1, std::string(message)};
  if (!message.starts_with(kNoRulesFor)) return result;
  message.remove_prefix(std::string_view(kNoRulesFor).size());
  uint64_t count = 0;
  const auto [end, error] = std::from_chars(message.data(), message.data() + message.size(), count);
  if (error != std::errc()) return result;
  message.remove_prefix(static_cast<size_t>(end - message.data()));
  message.remove_prefix(std::min(message.find_first_not_of(' '), message.size()));
  return {"unwind_rules", count, std::string(message)};
}

// Text that grows, and text in a buffer of fixed size. Signal handlers can use the second one.
class GrowingText {
 public:
  void add(std::string_view text) { text_.append(text); }
  void add_string(std::string_view text) { append_json_string(text_, text); }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

class FixedText {
 public:
  FixedText(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

  void add(std::string_view text) {
    const size_t fits = std::min(text.size(), size_ - used_);
    std::memcpy(buffer_ + used_, text.data(), fits);
    used_ += fits;
  }
  // What is not plain ASCII becomes a question mark.
  void add_string(std::string_view text) {
    add("\"");
    for (const char c : text) {
      const bool plain = c >= ' ' && c < 0x7F;
      if (c == '"' || c == '\\') add("\\");
      add({plain ? &c : "?", 1});
    }
    add("\"");
  }
  size_t used() const { return used_; }

 private:
  char* const buffer_;
  const size_t size_;
  size_t used_ = 0;
};

template <typename Text>
void add_number(Text& text, uint64_t number) {
  char digits[20];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  text.add({digits, static_cast<size_t>(end - digits)});
}

template <typename Text>
void add_signal(Text& text, int signal) {
  const char* const name = sigabbrev_np(signal);
  text.add("\"");
  if (name != nullptr) {
    text.add("SIG");
    text.add(name);
  } else {
    add_number(text, static_cast<uint64_t>(signal));
  }
  text.add("\"");
}

template <typename Text>
void add_tail(Text& text, const ConversionEnd& end) {
  constexpr uint64_t kThousand = 1000;
  text.add(",\"seconds\":");
  add_number(text, end.milliseconds / kThousand);
  const uint64_t thousandths = end.milliseconds % kThousand;
  text.add(thousandths < 10 ? ".00" : thousandths < 100 ? ".0" : ".");
  add_number(text, thousandths);
  text.add(",\"peak_memory\":");
  add_number(text, end.peak_memory);
  text.add(",\"status\":");
  if (end.signal != 0) {
    text.add("null,\"signal\":");
    add_signal(text, end.signal);
  } else {
    add_number(text, static_cast<uint64_t>(end.status));
    text.add(",\"signal\":null");
  }
  text.add(",\"message\":");
  if (end.message.empty()) {
    text.add("null");
  } else {
    text.add_string(end.message);
  }
  text.add("}\n");
}

void add_identity(JsonWriter& json, const FileIdentity& identity) {
  json.text_or_null("kind", identity.kind_name);
  json.text_or_null("architecture", identity.architecture);
  json.text_or_null("debug_file", identity.debug_file);
  json.text_or_null("debug_id", identity.debug_id);
  json.text_or_null("code_file", identity.code_file);
  json.text_or_null("code_id", identity.code_id);
}

void add_counts(JsonWriter& json, const std::optional<TextCounts>& counts) {
  const TextCounts values = counts.value_or(TextCounts());
  const std::pair<const char*, uint64_t> fields[] = {{"functions", values.functions},
                                                     {"lines", values.lines},
                                                     {"inlined_calls", values.inlined_calls},
                                                     {"publics", values.publics},
                                                     {"files", values.files},
                                                     {"rules", values.rules}};
  for (const auto& [name, value] : fields) {
    if (counts) {
      json.field(name, value);
    } else {
      json.null_field(name);
    }
  }
}

}  // namespace

void count_lines(std::string_view text, TextCounts& counts) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (end != 0) count_line(text.substr(0, end), counts);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

std::vector<LeftOut> left_out_of(const StandardCounts& counts) {
  const LeftOut numbers[] = {
      {"modules", counts.modulesWithoutFunctions, "without functions"},
      {"modules", counts.damagedModules, "damaged"},
      {"inlined_calls", counts.unnamedInlinees, "the inlined function has no name"},
      {"inlined_calls", counts.tooDeepCalls, "nested too deeply"},
      {"blocks", counts.damagedBlocks, "damaged lines or inlined calls"},
  };
  std::vector<LeftOut> result;
  for (const LeftOut& entry : numbers) {
    if (entry.count != 0) result.push_back(entry);
  }
  for (const std::string& message : counts.messages) result.push_back(left_out_rules(message));
  return result;
}

std::string report_head(const ConversionFacts& facts) {
  JsonWriter json;
  json.begin_object().field("input", facts.input).text_or_null("image", facts.image);
  add_identity(json, facts.identity);
  json.text_or_null("target", facts.target);
  json.field("bytes_in", facts.bytes_in).field("bytes_out", facts.bytes_out);
  add_counts(json, facts.counts);
  json.begin_array("left_out");
  for (const LeftOut& entry : facts.left_out) {
    json.begin_object().field("what", entry.what).field("count", entry.count);
    json.field("reason", entry.reason).end_object();
  }
  json.end_array();
  return json.text();
}

std::string report_tail(const ConversionEnd& end) {
  GrowingText text;
  add_tail(text, end);
  return text.take();
}

size_t put_report_tail(const ConversionEnd& end, char* buffer, size_t size) {
  FixedText text(buffer, size);
  add_tail(text, end);
  if (text.used() == size) buffer[size - 1] = '\n';
  return text.used();
}

std::string summary_line(const BatchFacts& facts, const ConversionEnd& end) {
  JsonWriter json;
  json.begin_object().field("summary", true).begin_array("inputs");
  for (const std::string& input : facts.inputs) json.value(input);
  json.end_array().field("conversions", facts.conversions).field("converted", facts.converted);
  json.field("failed", facts.failed).field("skipped", facts.skipped);
  json.field("unreadable", facts.unreadable);
  return json.text() + report_tail(end);
}

}  // namespace symforge_internal
