// --report: one line of JSON for each conversion, however it ends, and a summary of a batch.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

class ReportTest : public ProgramTest {
 protected:
  // What a run appends to the report, with 0 for times and memory.
  std::string report_of(std::vector<std::string> args, int status = 0) {
    const std::string path = temp_.file("report", "");
    args.insert(args.begin(), {"--report", path});
    const Result result = run(args);
    EXPECT_EQ(result.signal != 0 ? -result.signal : result.status, status) << result.err;
    return without(read_file(path), "\"seconds\":[0-9]+\\.[0-9]{3},\"peak_memory\":[1-9][0-9]+,");
  }
};

// A PDB with its image to a tree, by one thread and by several, and in default mode a text to
// standard output.
TEST_F(ReportTest, HasAllFieldsOfAConversion) {
  for (const char* jobs : {"-j1", "-j3"}) {
    const std::string lines = report_of({jobs, "--standard", kFixtures + "engine64.pdb", tree_}) +
                              report_of({kFixtures + "engine64.sym"});
    EXPECT_EQ(replaced(lines, {{kFixtures, ""}, {tree_ + "/", ""}}),
              test_data("report_engine64.json"));
    EXPECT_EQ(read_file(tree_ + "/engine64.pdb/7EB27A1AF000/engine64.sym"),
              read_file(kFixtures + "engine64.std.sym"));
  }
}

TEST_F(ReportTest, SaysWhatWasLeftOut) {
  PdbBuilder pdb = pdb_with_code();
  ModuleBuilder& module = pdb.add_module("m.obj");
  const uint32_t file = module.file(pdb.names.add("a.cc"));
  module.proc({.name = "f", .length = 16})
      .inline_site(pdb.ids.next_index() + 7, Annotations().op(11, 0).op(4, 8))
      .inline_site_end()
      .end();
  module.inlinees({{pdb.ids.next_index() + 7, file, 3}});
  pdb.add_module("empty.obj");
  const std::string path = temp_.file("a.pdb", pdb.build().bytes);
  const std::string unnamed =
      "{\"what\":\"inlined_calls\",\"count\":1,\"reason\":\"the inlined function has no name\"}";
  const std::string empty = "{\"what\":\"modules\",\"count\":1,\"reason\":\"without functions\"}";
  const std::string no_image = "{\"what\":\"image\",\"count\":1,\"reason\":\"not found\"}";
  EXPECT_THAT(report_of({"--standard", path}),
              HasSubstr("\"left_out\":[" + empty + "," + unnamed + "," + no_image + "]"));
  EXPECT_THAT(report_of({path}), HasSubstr("\"left_out\":[" + no_image + "]"));

  PeBuilder image;
  image.codeview({}, 1, "a.pdb").function(0x1000, 0x1010, UnwindInfo{.version = 5});
  temp_.file("a.exe", image.build());
  EXPECT_THAT(
      report_of({"--standard", path}),
      HasSubstr("{\"what\":\"unwind_rules\",\"count\":1,\"reason\":\"entry with unwind data "
                "of an unknown version\"}]"));
}

// A return, exit() with another status, a failed check and a signal.
TEST_F(ReportTest, EndsHoweverTheConversionEnds) {
  constexpr int kAbort = -6;
  const std::string aborting = temp_.file("b.pdb", aborting_pdb());
  const std::string sound = temp_.file("c.pdb", make_pdb(1));
  temp_.file("tree/c.pdb", "no folder");
  const std::string text = temp_.file("a.sym", "MODULE a b ABC1 c.pdb\n");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string end;
  } cases[] = {
      {{temp_ / "missing", tree_},
       1,
       "\"status\":1,\"signal\":null,\"message\":\"Failed to load PDB file\"}\n"},
      {{"--standard", temp_ / "missing"}, 1, "\"message\":\"No such file or directory\"}\n"},
      {{"--standard", kFixtures + "engine64.exe"},
       1,
       "\"message\":\"this is an image (exe or dll); give its PDB as the input, and the image with "
       "-e\"}\n"},
      {{sound, tree_}, 255, "\"status\":255,\"signal\":null,\"message\":null}\n"},
      {{aborting},
       kAbort,
       "\"status\":null,\"signal\":\"SIGABRT\",\"message\":\"a check failed, the file is damaged "
       "or not supported\"}\n"},
      {{"--standard", aborting},
       1,
       "\"status\":1,\"signal\":null,\"message\":\"damaged or not supported, this does not hold: "
       "number < uint64_t{m_indexPages} * m_items\"}\n"},
      {{text, tree_},
       0,
       "\"status\":0,\"signal\":null,\"message\":\"failed to create symbol file path: "
       "c.pdb/ABC1\"}\n"},
  };
  for (const auto& c : cases) {
    const std::string line = report_of(c.args, c.status);
    EXPECT_THAT(line, AllOf(StartsWith("{\"input\":"), EndsWith(c.end)));
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
  }
}

TEST_F(ReportTest, HasALineForEachFileOfABatch) {
  temp_.file("in/a.pdb", make_pdb(1));
  temp_.file("in/b.pdb", aborting_pdb());
  temp_.file("in/c.sym", "MODULE a b ABC1 c.pdb\n");
  for (const char* jobs : {"-j1", "-j3"}) {
    const std::string lines = report_of({jobs, "-r", in_, tree_});
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4) << lines;
    EXPECT_THAT(lines, HasSubstr("b.pdb\",\"image\":null,\"kind\":\"pdb\","));
    EXPECT_THAT(lines,
                HasSubstr("\"signal\":\"SIGABRT\",\"message\":\"ended by signal: Aborted\"}\n"));
    EXPECT_THAT(lines,
                EndsWith("\n{\"summary\":true,\"inputs\":[\"" + in_ +
                         "\"],\"conversions\":3,\"converted\":2,\"failed\":1,\"skipped\":0,"
                         "\"unreadable\":0,\"status\":0,\"signal\":null,\"message\":null}\n"));
  }
  const std::string missing = report_of({"--standard", "-r", in_ + "/no", tree_}, 1);
  EXPECT_THAT(
      missing,
      HasSubstr("\"conversions\":0,\"converted\":0,\"failed\":0,\"skipped\":0,\"unreadable\":1"));
}

TEST_F(ReportTest, GoesToStandardErrorOrFails) {
  const std::string text = temp_.file("a.sym", "MODULE a b ABC1 a.pdb\n");
  EXPECT_THAT(run({"--report", "-", text}).err, StartsWith("{\"input\":\"" + text + "\""));
  const struct {
    std::string path, message;
  } cases[] = {{tree_, "cannot open the report " + tree_ + ": Is a directory"},
               {"/dev/full", "cannot write the report: No space left on device"}};
  for (const auto& c : cases) {
    EXPECT_THAT(run({"--standard", "--report", c.path, text}),
                ended(1, "symforge: " + text + ": " + c.message + "\n"));
  }
}

}  // namespace
}  // namespace test_support
