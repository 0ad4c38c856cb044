// --check: what symbol files hold, and what is wrong with them.

#include <string>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

const std::string kModule = "MODULE windows x86_64 ABC1 a.pdb\nINFO CODE_ID 5F0000002000 a.exe\n";

// The object about a text, from its counts on.
std::string check_of(const std::string& text, int status) {
  const TemporaryDirectory temp;
  const Result result = run({"--check", temp.file("a.sym", text)});
  EXPECT_EQ(result.status, status) << text;
  EXPECT_EQ(result.err, "");
  return result.out.substr(std::min(result.out.find("\"lines\":"), result.out.size()));
}

using CheckFileTest = ProgramTest;

TEST_F(CheckFileTest, AcceptsBothDialectsAndSymb) {
  std::vector<std::string> args = {"--check"};
  for (const std::string name : {"engine64", "engine32", "calls64", "calls32"}) {
    for (const std::string form : {".sym", ".std.sym", ".back.sym"}) {
      args.push_back(kFixtures + name + form);
    }
    args.push_back(temp_.file(name + ".symb", run({"-b", kFixtures + name + ".pdb"}).out));
  }
  const Result result = run(args);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_THAT(result.out, HasSubstr(test_data("checked_engine64.json")));
}

TEST_F(CheckFileTest, NamesLinesThatDoNotParse) {
  for (const TestCase& c : test_cases("checked_lines.txt", "lines")) {
    const std::string reason =
        "\"malformed\":1,\"malformed_lines\":[{\"line\":4,\"reason\":\"" + c.expected;
    EXPECT_THAT(check_of(kModule + "\n" + c.input + "\nFILE 3 c.cc\n", 1), HasSubstr(reason))
        << c.input;
  }
  EXPECT_THAT(check_of("MODULE a b C d\r\nFILE 1 a\r\n", 0), HasSubstr("\"malformed\":0"));
  EXPECT_THAT(check_of("MODULE a b\n", 1), HasSubstr("not MODULE OS ARCH ID NAME"));
  EXPECT_THAT(check_of(kModule + "FILE 1 a", 1), HasSubstr("\"line\":3,\"reason\":\"is not ended"));
  std::string many = kModule;
  for (int i = 0; i < 12; ++i) many += "FILE\n";
  const std::string result = check_of(many, 1);
  EXPECT_THAT(result, HasSubstr("\"malformed\":12,"));
  EXPECT_THAT(result, HasSubstr("{\"line\":12,\"reason\":\"no known kind of line\"}],"));
}

TEST_F(CheckFileTest, NamesRangesThatOverlapOrLeave) {
  for (const TestCase& c : test_cases("checked_lines.txt", "ranges")) {
    const bool good = c.expected == "good";
    const std::string result = check_of(kModule + c.input + "\n", good ? 0 : 1);
    EXPECT_THAT(result, HasSubstr(good ? "\"bad_ranges\":0," : "\"bad_ranges\":1,")) << c.input;
    EXPECT_THAT(result, HasSubstr(good ? "" : c.expected)) << c.input;
  }
}

// g has lines, h has rules of one kind and i of the other.
TEST_F(CheckFileTest, CountsFunctionsWithoutLinesOrRules) {
  const std::string result = check_of(
      kModule +
          "FUNC 1000 10 0 f\nFUNC 1010 10 0 g\n1010 10 1 1\nFUNC 1020 10 0 h\nFUNC 1030 10 0 i\n"
          "STACK WIN 0 1030 10 0 0 0 0 0 0 0 1\nSTACK CFI INIT 1020 8 .cfa: $rsp\n",
      0);
  EXPECT_THAT(result, HasSubstr("\"functions_without_lines\":3,\"functions_without_rules\":2,"));
}

TEST_F(CheckFileTest, ComparesIdentifiers) {
  PdbBuilder other(512);
  PeBuilder image;
  image.codeview({.data1 = 0x515D2ED9}, 1, "engine64.pdb");
  image.time_stamp(0x000B1234).size_of_image(0x2000);
  const std::string symb = temp_.file("a.symb", run({"-b", kFixtures + "engine64.pdb"}).out);
  const struct {
    std::string file;
    std::string against;
    int status;
    std::string expected;
  } cases[] = {
      {kFixtures + "engine64.sym", kFixtures + "engine64.pdb", 0,
       "\"debug_id_matches\":true,\"code_id_matches\":null}"},
      {kFixtures + "engine64.std.sym", kFixtures + "engine64.exe", 0,
       "\"debug_id_matches\":true,\"code_id_matches\":true}"},
      {symb, kFixtures + "engine64.exe", 0, "\"debug_id_matches\":true,\"code_id_matches\":true}"},
      {kFixtures + "engine64.sym", kFixtures + "engine32.exe", 1,
       "\"debug_id_matches\":false,\"code_id_matches\":false}"},
      {temp_.file("b.sym", "MODULE windows x86_64 1 b\nINFO CODE_ID    B12342000 b.exe\n"),
       temp_.file("b.exe", image.build()), 1,
       "\"debug_id_matches\":false,\"code_id_matches\":true}"},
      {kFixtures + "engine64.sym", temp_.file("b.pdb", other.build().bytes), 1,
       "\"debug_id_matches\":false"},
      {kFixtures + "engine64.sym", temp_ / "missing", 1,
       "\"error\":\"No such file or directory\"}"},
  };
  for (const auto& c : cases) {
    const Result result = run({"--check", "--against", c.against, c.file});
    EXPECT_EQ(result.status, c.status) << c.against;
    EXPECT_THAT(result.out, HasSubstr(c.expected));
  }
}

// No input ends the process by a signal, and each has its object.
TEST_F(CheckFileTest, ReportsDamagedAndOtherFiles) {
  std::string symb = run({"-b", kFixtures + "engine64.pdb"}).out;
  symb[8] = '\xFF';
  const Result result = run({"--check", temp_.file("a.symb", symb), kFixtures + "engine64.pdb",
                             temp_ / "missing", kFixtures + "engine64.sym"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out,
              HasSubstr("\"error\":\"the header, the tables or the strings are damaged\""));
  EXPECT_THAT(result.out, HasSubstr("\"kind\":\"pdb\",\"error\":\"not a symbol file\""));
  EXPECT_THAT(result.out, HasSubstr("\"kind\":null,\"error\":\"No such file or directory\""));
  EXPECT_THAT(result.out, HasSubstr("\"sound\":true}\n"));
  EXPECT_EQ(run({"--check"}).status, 1);
  EXPECT_EQ(run({"--check", "--identify", kFixtures + "engine64.sym"}).status, 1);
}

}  // namespace
}  // namespace test_support
