// Conversion of binary annotations of inline sites to exact rows.

#include "symforge/src/standard/annotation_rows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/codeview_builder.h"
#include "symforge/src/pdb/binary_annotations.h"
#include "tests/support/annotation_cases.h"

namespace symforge_internal {
namespace {

using builders::Annotations;
using namespace test_support;

// "start-end file:line" of each row, with hexadecimal offsets, for a site in line 10 of file 3.
std::string rows(const Annotations& annotations, uint32_t chunk = 0, uint32_t size = 0x100) {
  const std::string bytes = annotations.bytes() + std::string(kAnnotationSlack, '\xFF');
  CodeRows rows;
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

TEST(AnnotationRows, RowsEndByTheirLengthOrAtTheNextRow) {
  for (const TestCase& c : test_cases("annotations.txt", "rows")) {
    EXPECT_EQ(rows(annotations_of(c.input)), c.expected) << c.input;
  }
}

TEST(AnnotationRows, TellSeparatedCodeFromTheFunctionsOwn) {
  const Annotations annotations =
      Annotations().op(3, 0x10).op(2, 1).op(3, 8).op(4, 4).op(2, 0).op(12, 2, 0x30);
  EXPECT_EQ(rows(annotations, 0), "10-100 3:10, 30-32 3:10, ");
  EXPECT_EQ(rows(annotations, 1, 0x40), "8-c 3:10, ");
}

}  // namespace
}  // namespace symforge_internal
