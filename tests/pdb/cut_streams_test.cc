// PDBs with a stream that is missing or ends too early.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/pdb_text.h"
#include "tests/support/data.h"
#include "tests/support/process.h"

namespace test_support {
namespace {

// A small PDB with every stream.
struct WholePdb : SmallPdb {
  WholePdb() {
    section({.name = ".data", .address = 0xA000, .virtual_size = 0x20, .raw_size = 0x20});
    original_section({.name = ".text", .address = 0x1000});
    original_section({.name = ".data", .address = 0xA000});
    omap_from({{0x1000, 0x1000}, {0x1100, 0x1200}});
    const uint32_t inlinee = ids.function_id("inner", type, ids.string_id("space"));
    ModuleBuilder& module = add_module("a.obj");
    const uint32_t file = module.file(names.add("a.cc"));
    const uint32_t header = module.file(names.add("b.h"));
    const uint32_t method = types.procedure(0x74, types.arguments({types.structure("S")}), 1);
    module.proc({.name = "f", .offset = 0x10, .length = 0x10, .type = method});
    module.inline_site(inlinee, Annotations().op(12, 4, 4)).inline_site_end().end();
    module.proc({.name = "g", .offset = 0x20, .length = 8, .type = type}).end();
    module.lines(1, 0x10, 0x18, file, {{0, 5}, {8, 6}, {0x10, 9}});
    module.inlinees({{inlinee, header, 70}});
    public_function("p", 1, 0x110).public_function("_g@8", 1, 0x20);
    const uint32_t program = names.add("$T0 .raSearch =");
    frame_data({.start = 0x1010, .code_size = 0x10, .params = 4, .program = program});
    fpo({.start = 0x1020, .code_size = 8, .params = 1});
    lay_out();
  }
};

// Messages, an exception and the text. In a process of its own, which a failed check ends.
std::string converted(const std::string& bytes, Format format) {
  const Result ended = run_alone([&] {
    Conversion result;
    try {
      result = convertAlone(bytes, format);
    } catch (const std::out_of_range& e) {
      result.failure = "out of range";
    }
    std::fputs((result.failure + result.text).c_str(), stderr);
  });
  return ended.status == 0 ? ended.err : "a failed check";
}

// The lines that differ from those of the whole PDB, in both formats.
class Outcomes {
 public:
  std::string of(PdbBuilder& pdb) const {
    const std::string bytes = pdb.build().bytes;
    std::string text;
    for (const Format format : {Format::kDefault, Format::kStandard}) {
      const std::vector<std::string> lines = split(converted(bytes, format), '\n');
      const std::vector<std::string>& usual = format == Format::kDefault ? default_ : standard_;
      text += format == Format::kDefault ? "  default:" : "  standard:";
      append_others(lines, usual, " ", text);
      if (lines.size() > 2) append_others(usual, lines, " no ", text);
      text += '\n';
    }
    return text;
  }

 private:
  static void append_others(const std::vector<std::string>& lines,
                            const std::vector<std::string>& known, const std::string& prefix,
                            std::string& text) {
    for (const std::string& line : lines) {
      const bool other = std::find(known.begin(), known.end(), line) == known.end();
      if (other) text += prefix + line + ';';
    }
  }

  const std::string whole_ = WholePdb().build().bytes;
  const std::vector<std::string> default_ = split(converted(whole_, Format::kDefault), '\n');
  const std::vector<std::string> standard_ = split(converted(whole_, Format::kStandard), '\n');
};

constexpr const char* kStreams[] = {"old directory", "info",        "types",          "DBI",
                                    "ids",           "names",       "symbol records", "sections",
                                    "original",      "address map", "reverse map",    "FPO",
                                    "frame data",    "module"};

// Each outcome with the first size of the stream that has it.
TEST(CutStreamsTest, HaveTheReviewedOutcome) {
  const Outcomes outcomes;
  std::string text;
  for (uint32_t stream = 1; stream < WholePdb().msf.stream_count(); ++stream) {
    const size_t whole = WholePdb().msf.stream(stream).size();
    std::string last;
    for (uint32_t size = 0; size <= whole; size += size % 4 == 0 ? 1 : 3) {
      WholePdb pdb;
      pdb.msf.override_size(stream, size);
      std::string next = outcomes.of(pdb);
      if (next != last) {
        text += std::string(kStreams[stream]) + ", " + std::to_string(size) + " of " +
                std::to_string(whole) + " bytes\n" + next;
      }
      last = std::move(next);
    }
  }
  EXPECT_EQ(difference(text, "cut_streams.txt"), "");
}

}  // namespace
}  // namespace test_support
