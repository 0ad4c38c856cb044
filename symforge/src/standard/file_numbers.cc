#include "symforge/src/standard/file_numbers.h"

#include <charconv>
#include <string>

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

uint32_t FileNumbers::lookUp(size_t module, uint32_t offset) const {
  uint32_t position;
  if (!m_sources.findPosition(module, offset, position)) return kNoFile;
  return nameOf(position + 1).empty() ? kNoFile : position + 1;
}

std::string_view FileNumbers::nameOf(uint32_t file) const {
  std::string_view name;
  m_names.find(m_sources.nameOffset(file - 1), name);
  return name;
}

void FileNumbers::print(TextBuffer& out) const {
  constexpr size_t kNumbers = 32;
  std::string storage;
  for (size_t i = 0; i < m_used.size(); ++i) {
    const std::string_view name = lineName(nameOf(m_used[i]), storage);
    LineWriter line(out, kNumbers + name.size());
    line.str("FILE ").dec(i + 1).chr(' ').str(name).chr('\n');
  }
}

}  // namespace symforge_internal
