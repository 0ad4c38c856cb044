// Reads texts and tables of cases from tests/data.

#pragma once

#include <string>
#include <vector>

namespace test_support {

// Reads a whole file.
std::string test_data(const std::string& name);

// A file of lines "INPUT => EXPECTED" under headings "[SECTION]". The escapes "\\n", "\\r" and
// "\\t" are decoded; lines that begin with '#' are comments.
struct TestCase {
  std::string section, input, expected;
};
std::vector<TestCase> test_cases(const std::string& name);

}  // namespace test_support
