#include "symforge/src/standard/file_numbers.h"

#include <charconv>
#include <string>

#include "common/symbol_text.h"
#include "symforge/src/standard/line_name.h"

namespace symforge_internal {

FileNumbers::Line& FileNumbers::lineOf(uint32_t file) {
  if (file >= m_lines.size()) m_lines.resize(file + file / 2 + 1);
  return m_lines[file];
}

void FileNumbers::setNumber(uint32_t number, Line& line) {
  line.number = number;
  line.ending[0] = ' ';
  char* const end = std::to_chars(line.ending + 1, line.ending + kEndingBytes - 1, number).ptr;
  *end = '\n';
  line.endingSize = static_cast<uint32_t>(end + 1 - line.ending);
}

void FileNumbers::add(uint32_t file) {
  m_used.push_back(file);
  setNumber(static_cast<uint32_t>(m_used.size()), lineOf(file));
}

void FileNumbers::noteMissing(uint32_t file) {
  lineOf(file).number = kMissing;
  m_missing.push_back(file);
}

void FileNumbers::takeNumbers(FileNumbers& shared) {
  for (const uint32_t file : m_missing) setNumber(shared.number(file), m_lines[file]);
  m_missing.clear();
}

uint32_t FileNumbers::lookUp(size_t module, uint32_t offset) {
  uint32_t position;
  if (!m_sources.findPosition(module, offset, position)) return kNoFile;
  return hasName(position + 1) ? position + 1 : kNoFile;
}

bool FileNumbers::hasName(uint32_t file) {
  if (file >= m_named.size()) m_named.resize(file + file / 2 + 1, Named::kUnknown);
  if (m_named[file] == Named::kUnknown) {
    m_named[file] = nameOf(file).empty() ? Named::kNo : Named::kYes;
  }
  return m_named[file] == Named::kYes;
}

std::string_view FileNumbers::nameOf(uint32_t file) const {
  std::string_view name;
  m_names.find(m_sources.nameOffset(file - 1), name);
  return name;
}

void FileNumbers::print(TextBuffer& out) const {
  std::string storage;
  for (size_t i = 0; i < m_used.size(); ++i) {
    const std::string_view name = lineName(nameOf(m_used[i]), storage);
    append_line(out, FileFields{static_cast<long>(i + 1), name});
  }
}

}  // namespace symforge_internal
