#include <gmock/gmock.h>

#include <string>

#include "processor/cfi_frame_info.h"

namespace google_breakpad {
namespace {

TEST(CFIRuleParser, TakesRuleSetsApart) {
  const struct {
    const char* rules;
    bool result;
    const char* stored;  // "cfa|ra|register=rule,..."
  } kCases[] = {
      {".cfa: $esp 4 + .ra: .cfa 4 - ^ $ebp: .cfa 8 - ^", true,
       "$esp 4 +|.cfa 4 - ^|$ebp=.cfa 8 - ^,"},
      {".cfa: $esp 4 +", true, "$esp 4 +||"},
      {"\t.cfa:  $esp\t4\r\n +  \n", true, "$esp 4 +||"},
      {".cfa: 1 .cfa: 2", true, "2||"},
      {"$ebx: 1 $eax: 2 $ebx: 3", true, "||$eax=2,$ebx=3,"},
      {".cfa: a:b :c", true, "a:b :c||"},
      {".cfa:: 1", true, "||.cfa:=1,"},
      {"", false, "||"},
      {" \t\r\n", false, "||"},
      {".ra:", false, "||"},
      {".cfa: 1 .ra:", false, "1||"},
      {".cfa: .ra: 1", false, "||"},
      {"1 2", false, "||"},
      {"stray .cfa: 1", false, "||"},
      {".cfa: 1 : .ra: 2", false, "||"},
  };
  for (const auto& c : kCases) {
    CFIFrameInfo info;
    CFIFrameInfoParseHandler handler(&info);
    EXPECT_EQ(CFIRuleParser(&handler).Parse(c.rules), c.result) << c.rules;
    std::string stored = info.cfa_rule() + "|" + info.ra_rule() + "|";
    for (const auto& [name, rule] : info.register_rules()) stored += name + "=" + rule + ",";
    EXPECT_EQ(stored, c.stored) << c.rules;
  }
}

}  // namespace
}  // namespace google_breakpad
