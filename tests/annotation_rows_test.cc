// Conversion of binary annotations of inline sites to exact rows.

#include "symforge/src/standard/annotation_rows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/codeview_builder.h"
#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {
namespace {

using builders::Annotations;

// "start-end file:line" of each row, with hexadecimal offsets, for a site in line 10 of file 3.
std::string rows(const Annotations& annotations, uint32_t chunk = 0, uint32_t size = 0x100) {
  const std::string bytes = annotations.bytes() + std::string(kAnnotationSlack, '\xFF');
  std::vector<CodeRow> rows;
  const bool sound = appendAnnotationRows(
      reinterpret_cast<const uint8_t*>(bytes.data()), annotations.bytes().size(),
      {3, 10, chunk, size}, [](uint32_t entry) { return entry; }, rows);
  std::string text;
  for (const CodeRow& row : rows) {
    char line[64];
    std::snprintf(line, sizeof(line), "%x-%x %u:%u, ", row.start, row.end, row.place.file,
                  row.place.line);
    text += line;
  }
  return text + (sound ? "" : "damaged");
}

uint32_t both(uint32_t code, int32_t line) { return Annotations::signed_operand(line) << 4 | code; }

TEST(AnnotationRows, RowsEndByTheirLengthOrAtTheNextRow) {
  const struct {
    const char* what;
    Annotations annotations;
    const char* rows;
  } cases[] = {
      {"a length moves the code to its end",
       Annotations().op(11, both(0, 1)).op(4, 0x37).op(11, both(10, 1)).op(4, 0x36),
       "0-37 3:11, 41-77 3:12, "},
      {"a length with an offset leaves the code at its start",
       Annotations().op(12, 7, 0xC).op(11, both(10, 0)).op(6, 2).op(12, 0xC, 7),
       "c-13 3:10, 16-1d 3:10, 1d-29 3:11, "},
      {"without a length to the next row, the last one to the end",
       Annotations().op(3, 0x3D).op(11, both(12, 1)).op(6, 4).op(3, 5),
       "3d-49 3:10, 49-4e 3:11, 4e-100 3:13, "},
      {"a change of line or file counts from the next row on",
       Annotations().op(3, 1).op(6, 5).op(5, 0x18).op(3, 4).op(4, 2), "1-5 3:10, 5-7 24:8, "},
      {"an absolute offset", Annotations().op(3, 0x20).op(1, 0x40).op(4, 4),
       "20-40 3:10, 40-44 3:10, "},
      {"empty rows are left out", Annotations().op(3, 4).op(6, 2).op(3, 0).op(4, 0).op(12, 3, 1),
       "5-8 3:11, "},
      {"nothing beyond the code", Annotations().op(12, 0x200, 0xF0).op(3, 0x20), "f0-100 3:10, "},
      {"columns and padding", Annotations().op(9, 4).op(12, 2, 1).op(13, 8).raw({"\0\x03\x04", 3}),
       "1-3 3:10, "},
      {"an opcode that does not exist ends the rows", Annotations().op(12, 2, 1).op(14, 1).op(3, 9),
       "1-3 3:10, damaged"},
      {"a number that cannot be decoded", Annotations().op(12, 2, 1).raw("\xFF"),
       "1-3 3:10, damaged"},
      {"an operand cut off by the end", Annotations().op(12, 2, 1).raw("\x03"),
       "1-3 3:10, damaged"},
  };
  for (const auto& test : cases) EXPECT_EQ(rows(test.annotations), test.rows) << test.what;
}

TEST(AnnotationRows, TellSeparatedCodeFromTheFunctionsOwn) {
  const Annotations annotations =
      Annotations().op(3, 0x10).op(2, 1).op(3, 8).op(4, 4).op(2, 0).op(12, 2, 0x30);
  EXPECT_EQ(rows(annotations, 0), "10-100 3:10, 30-32 3:10, ");
  EXPECT_EQ(rows(annotations, 1, 0x40), "8-c 3:10, ");
}

}  // namespace
}  // namespace symforge_internal
