// --check: what symbol files hold, and what is wrong with them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/process.h"

namespace {

using namespace builders;
using namespace test_support;
using namespace std::string_literals;
using ::testing::HasSubstr;

const std::string kData = SYMFORGE_FIXTURES "/";
const std::string kModule = "MODULE windows x86_64 ABC1 a.pdb\nINFO CODE_ID 5F0000002000 a.exe\n";

// The object about a text, from its counts on.
std::string check_of(const std::string& text, int status) {
  const TemporaryDirectory temp;
  const Result result = run({"--check", temp.file("a.sym", text)});
  EXPECT_EQ(result.status, status) << text;
  EXPECT_EQ(result.err, "");
  return result.out.substr(std::min(result.out.find("\"lines\":"), result.out.size()));
}

TEST(CheckFileTest, AcceptsBothDialectsAndSymb) {
  const TemporaryDirectory temp;
  std::vector<std::string> args = {"--check"};
  for (const std::string name : {"engine64", "engine32", "calls64", "calls32"}) {
    for (const std::string form : {".sym", ".std.sym", ".back.sym"}) {
      args.push_back(kData + name + form);
    }
    args.push_back(temp.file(name + ".symb", run({"-b", kData + name + ".pdb"}).out));
  }
  const Result result = run(args);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_THAT(
      result.out,
      HasSubstr("engine64.sym\",\"kind\":\"symbol_text\",\"dialect\":\"default\",\"architecture\":"
                "\"x86_64\",\"debug_file\":\"engine64.pdb\",\"debug_id\":\"515D2ED965ADFF5D4C4C"
                "44205044422E1\",\"code_file\":\"engine64.exe\",\"code_id\":\"7EB27A1AF000\","
                "\"lines\":{\"MODULE\":1,\"INFO\":6,\"FILE\":5,\"INLINE_ORIGIN\":0,\"FUNC\":31,"
                "\"INLINE\":0,\"I\":120,\"line\":108,\"PUBLIC\":2,\"STACK WIN\":0,"
                "\"STACK CFI INIT\":11,\"STACK CFI\":11},\"malformed\":0,\"malformed_lines\":[],"
                "\"bad_ranges\":0,\"bad_range_lines\":[],\"functions_without_lines\":0,"
                "\"functions_without_rules\":20,\"sound\":true}\n"));
}

TEST(CheckFileTest, NamesLinesThatDoNotParse) {
  const struct {
    std::string line;
    std::string reason;
  } cases[] = {
      {"FILE x a.cc", "not FILE NUMBER NAME"},
      {"INLINE_ORIGIN 1", "not INLINE_ORIGIN NUMBER NAME"},
      {"FUNC 1000 zz 0 f", "not FUNC "},
      {"1000 10 1", "not ADDRESS SIZE LINE FILE"},
      {"1000 10 1 1", "outside of a function"},
      {"INLINE 0 1 1 0 1000 10", "outside of a function"},
      {"INLINE 0 1 1 0 1000", "not INLINE "},
      {"I 1000 10 1 1 zz f", "not I ADDRESS"},
      {"PUBLIC 1000", "not PUBLIC "},
      {"STACK WIN 4 1000 10 0 0 zz 0 0 0 1 $T0", "not STACK WIN TYPE"},
      {"STACK WIN 7 1000 10 0 0 0 0 0 0 1 $T0", "not STACK WIN TYPE"},
      {"STACK CFI INIT 1000 .cfa: $rsp", "not STACK CFI INIT"},
      {"STACK CFI 1000", "not STACK CFI ADDRESS"},
      {"STACK ARM 1000", "not STACK WIN or STACK CFI"},
      {"FUNCTION 1000", "no known kind of line"},
      {"MODULE a b C d", "a second MODULE line"},
      {"FILE 1 a\0b"s, "has a NUL byte"},
      {"FILE 1 a\xFF", "has a byte 0xFF"},
      {"FILE 1 a\rFILE 2 b", "has a carriage return"},
  };
  for (const auto& c : cases) {
    const std::string text = kModule + "\n" + c.line + "\nFILE 3 c.cc\n";
    EXPECT_THAT(check_of(text, 1), HasSubstr("\"malformed\":1,\"malformed_lines\":[{\"line\":4,"
                                             "\"reason\":\"" +
                                             c.reason))
        << c.line;
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

TEST(CheckFileTest, NamesRangesThatOverlapOrLeave) {
  const std::string f = "FUNC 1000 20 0 f\n";
  const struct {
    std::string text;
    uint64_t bad;
    std::string example;
  } cases[] = {
      {f + "FUNC 101f 1 0 g\n", 1,
       R"({"line":4,"kind":"FUNC","address":"101f","size":"1","reason":"overlaps another one"})"},
      {"FUNC 1020 8 0 g\n" + f, 0, ""},
      {"FUNC 1ff0 11 0 f\n", 1,
       R"("kind":"FUNC","address":"1ff0","size":"11","reason":"leaves the image")"},
      {f + "1010 8 1 1\n1000 11 2 1\n", 1, R"({"line":4,"kind":"line","address":"1010")"},
      {f + "101f 2 1 1\n", 1,
       R"("kind":"line","address":"101f","size":"2","reason":"leaves its function")"},
      {f + "INLINE 0 1 1 0 1000 8 1020 1\n", 1, R"("kind":"INLINE","address":"1020")"},
      {"PUBLIC 2000 0 p\n", 1, R"("kind":"PUBLIC","address":"2000")"},
      {"STACK CFI INIT 1000 20 .cfa: $rsp\nSTACK CFI INIT 1010 4 .cfa: $rsp\n", 1,
       R"({"line":4,"kind":"STACK CFI INIT")"},
      {"STACK WIN 4 1000 20 0 0 0 0 0 0 1 $T0\nSTACK WIN 4 1008 8 0 0 0 0 0 0 1 $T0\n", 0, ""},
      {"STACK WIN 4 1000 20 0 0 0 0 0 0 1 $T0\nSTACK WIN 4 101f 8 0 0 0 0 0 0 1 $T0\n", 1,
       R"({"line":4,"kind":"STACK WIN")"},
      {"STACK CFI INIT 1000 20 .cfa: $rsp\nSTACK CFI 1000 .ra: x\nSTACK CFI 1020 .ra: x\n", 1,
       R"({"line":5,"kind":"STACK CFI","address":"1020","size":"0")"},
      {"FUNC ffffffffffffff00 fff 0 f\n", 1, "leaves the image"},
  };
  for (const auto& c : cases) {
    const std::string result = check_of(kModule + c.text, c.bad == 0 ? 0 : 1);
    EXPECT_THAT(result, HasSubstr("\"bad_ranges\":" + std::to_string(c.bad) + ","));
    EXPECT_THAT(result, HasSubstr(c.example));
  }
}

// g has lines, h has rules of one kind and i of the other.
TEST(CheckFileTest, CountsFunctionsWithoutLinesOrRules) {
  const std::string result = check_of(
      kModule +
          "FUNC 1000 10 0 f\nFUNC 1010 10 0 g\n1010 10 1 1\nFUNC 1020 10 0 h\nFUNC 1030 10 0 i\n"
          "STACK WIN 0 1030 10 0 0 0 0 0 0 0 1\nSTACK CFI INIT 1020 8 .cfa: $rsp\n",
      0);
  EXPECT_THAT(result, HasSubstr("\"functions_without_lines\":3,\"functions_without_rules\":2,"));
}

TEST(CheckFileTest, ComparesIdentifiers) {
  const TemporaryDirectory temp;
  PdbBuilder other(512);
  PeBuilder image;
  image.codeview({.data1 = 0x515D2ED9}, 1, "engine64.pdb");
  const std::string symb = temp.file("a.symb", run({"-b", kData + "engine64.pdb"}).out);
  const struct {
    std::string file;
    std::string against;
    int status;
    std::string expected;
  } cases[] = {
      {kData + "engine64.sym", kData + "engine64.pdb", 0,
       "\"debug_id_matches\":true,\"code_id_matches\":null}"},
      {kData + "engine64.std.sym", kData + "engine64.exe", 0,
       "\"debug_id_matches\":true,\"code_id_matches\":true}"},
      {symb, kData + "engine64.exe", 0, "\"debug_id_matches\":true,\"code_id_matches\":true}"},
      {kData + "engine64.sym", kData + "engine32.exe", 1,
       "\"debug_id_matches\":false,\"code_id_matches\":false}"},
      {kData + "engine64.sym", temp.file("b.pdb", other.build().bytes), 1,
       "\"debug_id_matches\":false"},
      {kData + "engine64.sym", temp / "missing", 1, "\"error\":\"No such file or directory\"}"},
  };
  for (const auto& c : cases) {
    const Result result = run({"--check", "--against", c.against, c.file});
    EXPECT_EQ(result.status, c.status) << c.against;
    EXPECT_THAT(result.out, HasSubstr(c.expected));
  }
}

// No input ends the process by a signal, and each has its object.
TEST(CheckFileTest, ReportsDamagedAndOtherFiles) {
  const TemporaryDirectory temp;
  std::string symb = run({"-b", kData + "engine64.pdb"}).out;
  symb[8] = '\xFF';
  const Result result = run({"--check", temp.file("a.symb", symb), kData + "engine64.pdb",
                             temp / "missing", kData + "engine64.sym"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out,
              HasSubstr("\"error\":\"the header, the tables or the strings are damaged\""));
  EXPECT_THAT(result.out, HasSubstr("\"kind\":\"pdb\",\"error\":\"not a symbol file\""));
  EXPECT_THAT(result.out, HasSubstr("\"kind\":null,\"error\":\"No such file or directory\""));
  EXPECT_THAT(result.out, HasSubstr("\"sound\":true}\n"));
  EXPECT_EQ(run({"--check"}).status, 1);
  EXPECT_EQ(run({"--check", "--identify", kData + "engine64.sym"}).status, 1);
}

}  // namespace
