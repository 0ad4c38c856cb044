#include "tests/support/data.h"

#include <regex.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "builders/bytes.h"

namespace test_support {
namespace {

// Backslashes that begin no escape stay.
std::string decoded(std::string_view text) {
  constexpr std::string_view kLetters = "nrt0", kBytes{"\n\r\t\0", 4};
  std::string bytes;
  for (size_t at = 0; at < text.size(); ++at) {
    const char next = text[at] == '\\' && at + 1 < text.size() ? text[at + 1] : '\\';
    if (const size_t letter = kLetters.find(next); letter != kLetters.npos) {
      bytes += kBytes[letter];
      ++at;
    } else if (next == 'x') {
      bytes += builders::from_hex(text.substr(at + 2, 2));
      at += 3;
    } else {
      bytes += text[at];
    }
  }
  return bytes;
}

}  // namespace

std::string test_data(const std::string& name) {
  return builders::read_file(SYMFORGE_TEST_DATA "/" + name);
}

std::string difference(const std::string& text, const std::string& name) {
  if (text == test_data(name)) return {};
  const std::string kept = std::filesystem::absolute(name + ".new").string();
  std::ofstream(kept, std::ios::binary) << text;
  return "diff " SYMFORGE_TEST_DATA "/" + name + " " + kept;
}

std::vector<TestCase> test_cases(const std::string& name) {
  std::istringstream file(test_data(name));
  std::vector<TestCase> cases;
  std::string section;
  for (std::string line; std::getline(file, line);) {
    const size_t arrow = line.find(" => ");
    if (line.starts_with('[') && line.ends_with(']')) section = line.substr(1, line.size() - 2);
    if (line.starts_with('#') || arrow == line.npos) continue;
    cases.push_back({section, decoded(line.substr(0, arrow)), decoded(line.substr(arrow + 4))});
  }
  return cases;
}

std::vector<TestCase> test_cases(const std::string& name, std::string_view section) {
  std::vector<TestCase> cases = test_cases(name);
  std::erase_if(cases, [&](const TestCase& c) { return !c.section.starts_with(section); });
  if (cases.empty()) throw std::runtime_error(name + " has no such section");
  return cases;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

std::string replaced(std::string text,
                     const std::vector<std::pair<std::string, std::string>>& replacements) {
  for (const auto& [from, to] : replacements) {
    for (size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
      text.replace(at, from.size(), to);
    }
  }
  return text;
}

std::string without(const std::string& text, const char* expression) {
  regex_t compiled;
  if (regcomp(&compiled, expression, REG_EXTENDED) != 0) throw std::runtime_error(expression);
  std::string rest;
  const char* at = text.c_str();
  for (regmatch_t match; regexec(&compiled, at, 1, &match, 0) == 0; at += match.rm_eo) {
    rest.append(at, match.rm_so);
  }
  regfree(&compiled);
  return rest + at;
}

}  // namespace test_support
