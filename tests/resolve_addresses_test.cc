#include <gmock/gmock.h>

#include <string>

#include "tests/support/process.h"

namespace {

using test_support::Result;
using test_support::TemporaryDirectory;

// Runs the example over `input` through a shell, which gives it its standard input.
Result resolve(const std::string& arguments, const std::string& input) {
  const TemporaryDirectory directory;
  test_support::RunOptions options;
  options.program = "/bin/sh";
  const std::string input_file = directory.file("input", input);
  return test_support::run({"-c", RESOLVE_ADDRESSES " " + arguments + " < " + input_file}, options);
}

constexpr char kText[] =
    "MODULE windows x86 ID a.pdb\n"
    "FILE 1 C:\\src\\a.c\n"
    "FUNC 1000 40 8 f\xc3\xa9\xff \"q\" \x01\n"
    "1000 10 42 1\n"
    "STACK WIN 4 1000 20 1 2 3 4 5 6 1 $eip 4 +\n"
    "STACK CFI INIT 1000 40 .cfa: $esp 4 + .ra: .cfa 4 - ^ $ebp: 1\n";

TEST(ResolveAddresses, AnswersWithJson) {
  const TemporaryDirectory directory;
  const std::string symbols = directory.file("a.sym", kText);
  const Result result = resolve(symbols + " 0x400000", "401004\n\n 0x401030\r\nzz\n3fffff");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(
      result.out,
      R"({"address": 4198404, "function_name": "f)"
      "\xc3\xa9"
      R"(\ufffd \"q\" \u0001", "function_base": 4198400, "source_file_name": "C:\\src\\a.c", )"
      R"("source_line": 42, "source_line_base": 4198400, "inlines": [], "windows_frame_info": )"
      R"({"type": 4, "valid": -1, "prolog_size": 1, "epilog_size": 2, "parameter_size": 3, )"
      R"("saved_register_size": 4, "local_size": 5, "max_stack_size": 6, )"
      R"("allocates_base_pointer": false, "program_string": "$eip 4 +"}, "cfi": )"
      R"({"cfa_rule": "$esp 4 +", "ra_rule": ".cfa 4 - ^", "register_rules": {"$ebp": "1"}}})"
      "\n"
      R"({"address": 4198448, "function_name": "f)"
      "\xc3\xa9"
      R"(\ufffd \"q\" \u0001", "function_base": 4198400, "source_file_name": "", )"
      R"("source_line": 0, "source_line_base": 0, "inlines": [], "windows_frame_info": )"
      R"({"type": -1, "valid": 1, "prolog_size": 0, "epilog_size": 0, "parameter_size": 8, )"
      R"("saved_register_size": 0, "local_size": 0, "max_stack_size": 0, )"
      R"("allocates_base_pointer": false, "program_string": ""}, "cfi": )"
      R"({"cfa_rule": "$esp 4 +", "ra_rule": ".cfa 4 - ^", "register_rules": {"$ebp": "1"}}})"
      "\n"
      R"({"error": "no hexadecimal address: zz"})"
      "\n"
      R"({"address": 4194303, "function_name": "", "function_base": 0, "source_file_name": "", )"
      R"("source_line": 0, "source_line_base": 0, "inlines": [], "windows_frame_info": null, )"
      R"("cfi": null})"
      "\n");
}

TEST(ResolveAddresses, AnswersBeforeTheNextQuestion) {
  const TemporaryDirectory directory;
  const std::string symbols = directory.file("a.sym", kText);
  test_support::RunOptions options;
  options.program = "/bin/sh";
  options.directory = directory.path();
  const Result result = test_support::run(
      {"-c", "mkfifo in; " RESOLVE_ADDRESSES " a.sym < in > out & exec 3> in; echo 1000 >&3; i=0; "
             "while [ ! -s out ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done; cat out; "
             "exec 3>&-; wait"},
      options);
  EXPECT_THAT(result.out, testing::HasSubstr("\"address\": 4096, "));
}

}  // namespace
