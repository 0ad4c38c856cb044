// Texts and tables of cases that tests read from tests/data.

#pragma once

#include <string>
#include <vector>

namespace test_support {

// A whole file.
std::string test_data(const std::string& name);

// A file of lines "INPUT => EXPECTED" below headings "[SECTION]". "\\n", "\\r" and "\\t" stand for
// these bytes; lines that begin with '#' are comments.
struct TestCase {
  std::string section, input, expected;
};
std::vector<TestCase> test_cases(const std::string& name);

}  // namespace test_support
