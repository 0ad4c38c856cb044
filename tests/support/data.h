// Reads texts and tables of cases from tests/data.

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test_support {

// Reads a whole file.
std::string test_data(const std::string& name);

// Empty if a text is that of a file. If not, the text is kept in the working folder as NAME.new,
// and the result is the command that shows the differences, for a review.
std::string difference(const std::string& text, const std::string& name);

// A file of lines "INPUT => EXPECTED" under headings "[SECTION]". The escapes "\\n", "\\r", "\\t",
// "\\0" and "\\xFF" are decoded; lines that begin with '#' are comments.
struct TestCase {
  std::string section, input, expected;
};
std::vector<TestCase> test_cases(const std::string& name);
// Those of the sections whose headings begin with `section`. Throws std::runtime_error if there is
// no such case.
std::vector<TestCase> test_cases(const std::string& name, std::string_view section);

// The parts of a text between separators; an empty one at the end does not count.
std::vector<std::string> split(const std::string& text, char separator = ' ');

// Replaces every occurrence of each first text by the second one.
std::string replaced(std::string text,
                     const std::vector<std::pair<std::string, std::string>>& replacements);

// The text without what matches the POSIX extended expression.
std::string without(const std::string& text, const char* expression);

}  // namespace test_support
