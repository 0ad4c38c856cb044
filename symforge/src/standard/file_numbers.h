// FileNumbers: the FILE lines of a symbol file: only files that some line or call refers to,
// numbered without gaps in the order of the first reference.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/standard/code_row.h"

namespace symforge_internal {

class FileNumbers {
 public:
  // Both must outlive this.
  FileNumbers(const SourceFiles& sources, const NameStream& names)
      : m_sources(sources), m_names(names) {}

  // The source file whose entry is at `offset` in the checksums of the module at position `module`.
  // kNoFile when there is none or it has no name. Throws what NameStream::find() throws.
  uint32_t find(size_t module, uint32_t offset) {
    if (module != m_lastModule || offset != m_lastOffset) {
      m_last = lookUp(module, offset);
      m_lastModule = module;
      m_lastOffset = offset;
    }
    return m_last;
  }

  // The number to print for a source file that find() returned.
  uint32_t number(uint32_t file) {
    if (file >= m_lines.size() || m_lines[file].number == 0) add(file);
    return m_lines[file].number;
  }

  // Writes " NUMBER\n", the end of a line record, and returns the end of it. kEndingBytes are
  // written whatever the number.
  char* appendEnding(uint32_t file, char* at) {
    if (file >= m_lines.size() || m_lines.data()[file].number == 0) add(file);
    const Line& line = m_lines.data()[file];
    std::memcpy(at, line.ending, kEndingBytes);
    return at + line.endingSize;
  }
  static constexpr size_t kEndingBytes = 16;

  // For several readers with one numbering: notes that the number of a file will be printed;
  // takeNumbers() gives all such files the numbers that `shared` has for them.
  void need(uint32_t file) {
    if (file >= m_lines.size() || m_lines[file].number == 0) noteMissing(file);
  }
  void takeNumbers(FileNumbers& shared);

  size_t count() const { return m_used.size(); }

  // Appends the FILE lines.
  void print(TextBuffer& out) const;

 private:
  static constexpr uint32_t kMissing = 0xFFFFFFFF;

  struct Line {
    uint32_t number = 0;  // 0: not used so far
    uint32_t endingSize = 0;
    char ending[kEndingBytes] = {};
  };

  void add(uint32_t file);
  Line& lineOf(uint32_t file);
  static void setNumber(uint32_t number, Line& line);
  void noteMissing(uint32_t file);
  uint32_t lookUp(size_t module, uint32_t offset);
  bool hasName(uint32_t file);
  std::string_view nameOf(uint32_t file) const;

  const SourceFiles& m_sources;
  const NameStream& m_names;
  enum class Named : uint8_t { kUnknown, kNo, kYes };

  std::vector<Line> m_lines;        // by source file
  std::vector<Named> m_named;       // by source file
  std::vector<uint32_t> m_used;     // source files by number - 1
  std::vector<uint32_t> m_missing;  // source files that wait for takeNumbers()
  // The last look-up: neighbours mostly ask for the same file.
  size_t m_lastModule = SIZE_MAX;
  uint32_t m_lastOffset = 0;
  uint32_t m_last = kNoFile;
};

}  // namespace symforge_internal
