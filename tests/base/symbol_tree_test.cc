// Paths in a symbol tree, and the identity of a symbol file from its text.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/json_writer.h"
#include "base/printable.h"
#include "builders/bytes.h"
#include "symforge/src/utils.h"
#include "tests/support/data.h"
#include "tests/support/process.h"

namespace {

using symforge_internal::existing_tree_path;
using symforge_internal::printable;
using test_support::list_tree;
using test_support::TemporaryDirectory;
using test_support::test_cases;
using test_support::TestCase;
using test_support::Tree;

std::string sym_path_of(const char* debug_file, bool binary) {
  std::string path;
  EXPECT_TRUE(synthesize_sym_path("R", debug_file, "X", binary, false, path));
  return path;
}

TEST(SymPathTest, NamesTheFileAfterTheDebugFile) {
  const std::pair<const char*, const char*> cases[] = {
      {"a.pdb", "R/a.pdb/X/a.sym"},
      {"a.dll", "R/a.dll/X/a.dll.sym"},
      {"A.PDB", "R/A.PDB/X/A.PDB.sym"},
      {".pdb", "R/.pdb/X/.pdb.sym"},
      {"a.pdb.pdb", "R/a.pdb.pdb/X/a.pdb.sym"},
      {"my a.pdb", "R/my a.pdb/X/my a.sym"},
  };
  for (const auto& [debug_file, path] : cases) {
    EXPECT_EQ(sym_path_of(debug_file, false), path);
    EXPECT_EQ(sym_path_of(debug_file, true), std::string(path) + "b");
  }
}

TEST(SymPathTest, RejectsNamesThatLeaveTheirDirectory) {
  const TemporaryDirectory root;
  const std::string tree = root.folder("tree");
  const std::pair<const char*, const char*> cases[] = {
      {"..", "X"},     {".", "X"},           {"../a", "X"},   {"/a", "X"},
      {"a.pdb", ".."}, {"a.pdb", "../../b"}, {"a.pdb", "x/y"}};
  for (const auto& [debug_file, debug_id] : cases) {
    std::string path;
    EXPECT_FALSE(synthesize_sym_path(tree.c_str(), debug_file, debug_id, false, true, path));
  }
  EXPECT_EQ(list_tree(root.path()), (Tree{{"tree", "dir 0755"}}));
}

// A link in place of an identifier's directory was made for another module with that name as its
// code identifier. A link to a sibling is replaced by a directory; everything else is kept.
TEST(SymPathTest, DoesNotFollowALinkForAnIdentifier) {
  const TemporaryDirectory root;
  const std::string tree = root.folder("tree");
  const std::string link = root.folder("tree/a.pdb") + "/VICTIM";
  root.file("tree/a.pdb/EVIL/a.sym", "evil");
  const std::pair<const char*, bool> cases[] = {
      {"EVIL", true}, {"nowhere", true}, {"../a.pdb/EVIL", false}, {"/tmp", false}};
  for (const auto& [target, replaced] : cases) {
    std::filesystem::create_symlink(target, link);
    EXPECT_EQ(existing_tree_path(tree, "a.pdb", "VICTIM", false), "");
    std::string path;
    EXPECT_EQ(synthesize_sym_path(tree.c_str(), "a.pdb", "VICTIM", false, true, path), replaced);
    EXPECT_EQ(list_tree(tree).at("a.pdb/VICTIM"),
              replaced ? "dir 0700" : std::string("link ") + target);
    std::filesystem::remove(link);
  }
  EXPECT_EQ(existing_tree_path(tree, "a.pdb", "EVIL", false), tree + "/a.pdb/EVIL/a.sym");
  EXPECT_EQ(existing_tree_path(tree, "a.pdb", "EVIL", true), "");
  EXPECT_EQ(existing_tree_path(tree, "..", "EVIL", false), "");
}

// The fields in the order of sym_info, after "invalid" if applicable.
std::string identity_of(const std::string& text) {
  sym_info info;
  std::string identity = sym_info_parse(text.c_str(), info) ? "" : "invalid";
  for (const auto* field :
       {&info.os, &info.arch, &info.debug_id, &info.debug_file, &info.code_id, &info.code_file}) {
    identity += "|" + *field;
  }
  return identity;
}

bool valid(const std::string& text) { return identity_of(text).starts_with('|'); }

TEST(IdentityTest, ReadsModuleAndCodeIdLines) {
  for (const TestCase& c : test_cases("identity_lines.txt", "tree")) {
    EXPECT_EQ(identity_of(c.input), c.expected) << c.input;
  }
}

TEST(IdentityTest, RefusesIdentityLinesThatFillTheirBuffer) {
  const std::string module = "MODULE windows x86 X ";
  const auto text = [&](size_t length) {
    return module + std::string(length - module.size(), 'n') + "\n";
  };
  EXPECT_TRUE(valid(text(4095)));
  EXPECT_FALSE(valid(text(4096)));
  EXPECT_FALSE(valid(module + "a.pdb\n" + text(4096)));
  EXPECT_TRUE(valid(module + "a.pdb\nFUNC " + std::string(9000, 'x') + "\n"));
}

TEST(PrintableTest, EscapesControlCharacters) {
  EXPECT_EQ(printable("a\\b ~\xC3\xA4\xC2\xA0\xC2"), "a\\b ~\xC3\xA4\xC2\xA0\xC2");
  EXPECT_EQ(printable("\x1B[2J\r\n\t\x7F"), "\\x1b[2J\\x0d\\x0a\\x09\\x7f");
  EXPECT_EQ(printable("\xC2\x9B"
                      "2J\xC2\x80"),
            "\\xc2\\x9b"
            "2J\\xc2\\x80");
  EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(JsonTest, TakesUtf8AndReplacesOtherBytes) {
  const auto json = [](const std::string& text) {
    std::string out;
    symforge_internal::append_json_string(out, text);
    return out;
  };
  for (const char* valid : {"c280", "dfbf", "e0a080", "e0bfbf", "e18080", "ed9fbf", "ee8080",
                            "efbfbf", "f0908080", "f0bfbfbf", "f1808080", "f3bfbfbf", "f48fbfbf"}) {
    const std::string bytes = 'a' + builders::from_hex(valid) + 'b';
    EXPECT_EQ(json(bytes), '"' + bytes + '"') << valid;
  }
  for (const char* invalid :
       {"80",       "bf",       "c080",     "c1bf",     "c2",     "c27f",     "c2c0",
        "e0",       "e09f80",   "e0c080",   "e180",     "e17f80", "e1807f",   "e180c0",
        "eda080",   "ed7f80",   "f08f8080", "f0c08080", "f18080", "f1807f80", "f180807f",
        "f18080c0", "f4908080", "f47f8080", "f5808080", "ff"}) {
    std::string expected = "\"a";
    for (const char c : builders::from_hex(invalid)) {
      expected += c == 0x7F ? "\\u007f" : "\xEF\xBF\xBD";
    }
    EXPECT_EQ(json('a' + builders::from_hex(invalid) + 'b'), expected + "b\"") << invalid;
  }
  EXPECT_EQ(json("\"\\\n\t\r\x01\x1f ~"), "\"\\\"\\\\\\n\\t\\u000d\\u0001\\u001f ~\"");
}

}  // namespace
