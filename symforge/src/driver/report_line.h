// The lines of --report: one JSON object for each conversion, and one for a whole batch.
// docs/json.md describes their fields.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "symforge/src/driver/identify.h"
#include "symforge/src/standard/standard_counts.h"

namespace symforge_internal {

// Numbers of lines of a text symbol file.
struct TextCounts {
  uint64_t functions = 0;
  uint64_t lines = 0;          // line records
  uint64_t inlined_calls = 0;  // INLINE or I lines
  uint64_t publics = 0;
  uint64_t files = 0;
  uint64_t rules = 0;  // STACK lines of all kinds
};

// Adds the lines of a text to `counts`.
void count_lines(std::string_view text, TextCounts& counts);

// Something that the input has, or should have, and the result has not.
struct LeftOut {
  std::string what;
  uint64_t count = 1;
  std::string reason;
};

// What was left out of a result of standard mode.
std::vector<LeftOut> left_out_of(const StandardCounts& counts);

struct ConversionFacts {
  std::string input;
  std::string image;  // the one that was used
  FileIdentity identity;
  std::string target;  // path of the result; "-": standard output; empty: none
  uint64_t bytes_in = 0;
  uint64_t bytes_out = 0;
  std::optional<TextCounts> counts;  // empty: there is no text
  std::vector<LeftOut> left_out;
};

// How a conversion ended.
struct ConversionEnd {
  uint64_t milliseconds = 0;
  uint64_t peak_memory = 0;  // bytes
  int status = 0;            // exit status
  int signal = 0;            // if not 0, it ended by this signal and has no status
  std::string_view message;  // what was reported last; empty: nothing
};

// All fields but those of the end: the line without its last part.
std::string report_head(const ConversionFacts& facts);

// The rest of the line.
std::string report_tail(const ConversionEnd& end);

// The same in a buffer, for signal handlers: the length of the text, which is cut if it does not
// fit; then it is no valid JSON, but still ends with a line feed. `size` is at least 1024.
size_t put_report_tail(const ConversionEnd& end, char* buffer, size_t size);

struct BatchFacts {
  std::vector<std::string> inputs;  // folders and files as given
  uint64_t conversions = 0;
  uint64_t converted = 0;
  uint64_t failed = 0;
  uint64_t skipped = 0;     // copies of images
  uint64_t unreadable = 0;  // paths
};

// The line about a whole batch; peak memory is that of the largest conversion.
std::string summary_line(const BatchFacts& facts, const ConversionEnd& end);

}  // namespace symforge_internal
