#include "tests/support/data.h"

#include <sstream>
#include <utility>

#include "builders/bytes.h"

namespace test_support {

std::string test_data(const std::string& name) {
  return builders::read_file(SYMFORGE_TEST_DATA "/" + name);
}

std::vector<TestCase> test_cases(const std::string& name) {
  std::istringstream file(test_data(name));
  std::vector<TestCase> cases;
  std::string section;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with('[')) section = line.substr(1, line.size() - 2);
    for (const auto& [escape, byte] : {std::pair("\\n", '\n'), {"\\r", '\r'}, {"\\t", '\t'}}) {
      for (size_t at; (at = line.find(escape)) != line.npos;) line.replace(at, 2, 1, byte);
    }
    const size_t arrow = line.find(" => ");
    if (line.starts_with('#') || arrow == line.npos) continue;
    cases.push_back({section, line.substr(0, arrow), line.substr(arrow + 4)});
  }
  return cases;
}

}  // namespace test_support
