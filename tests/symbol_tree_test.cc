// Paths in a symbol tree, and the identity of a symbol file from its text.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/printable.h"
#include "symforge/src/utils.h"
#include "tests/support/process.h"

namespace {

using symforge_internal::existing_tree_path;
using symforge_internal::printable;
using test_support::list_tree;
using test_support::TemporaryDirectory;
using test_support::Tree;

std::string sym_path_of(const char* debug_file, bool binary) {
  std::string path;
  EXPECT_TRUE(synthesize_sym_path("R", debug_file, "X", binary, false, path));
  return path;
}

TEST(SymPathTest, NamesTheFileAfterTheDebugFile) {
  const struct {
    const char* debug_file;
    const char* path;
  } cases[] = {
      {"a.pdb", "R/a.pdb/X/a.sym"},
      {"a.dll", "R/a.dll/X/a.dll.sym"},
      {"A.PDB", "R/A.PDB/X/A.PDB.sym"},
      {".pdb", "R/.pdb/X/.pdb.sym"},
      {"a.pdb.pdb", "R/a.pdb.pdb/X/a.pdb.sym"},
      {"my a.pdb", "R/my a.pdb/X/my a.sym"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sym_path_of(c.debug_file, false), c.path);
    EXPECT_EQ(sym_path_of(c.debug_file, true), std::string(c.path) + "b");
  }
}

TEST(SymPathTest, RejectsNamesThatLeaveTheirDirectory) {
  const TemporaryDirectory root;
  const std::string tree = root.folder("tree");
  const struct {
    const char* debug_file;
    const char* debug_id;
  } cases[] = {{"..", "X"},     {".", "X"},           {"../a", "X"},   {"/a", "X"},
               {"a.pdb", ".."}, {"a.pdb", "../../b"}, {"a.pdb", "x/y"}};
  for (const auto& c : cases) {
    std::string path;
    EXPECT_FALSE(synthesize_sym_path(tree.c_str(), c.debug_file, c.debug_id, false, true, path));
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
  const struct {
    const char* target;
    bool replaced;
  } cases[] = {{"EVIL", true}, {"nowhere", true}, {"../a.pdb/EVIL", false}, {"/tmp", false}};
  for (const auto& c : cases) {
    std::filesystem::create_symlink(c.target, link);
    EXPECT_EQ(existing_tree_path(tree, "a.pdb", "VICTIM", false), "");
    std::string path;
    EXPECT_EQ(synthesize_sym_path(tree.c_str(), "a.pdb", "VICTIM", false, true, path), c.replaced);
    EXPECT_EQ(list_tree(tree).at("a.pdb/VICTIM"),
              c.replaced ? "dir 0700" : std::string("link ") + c.target);
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
  const struct {
    const char* what;
    const char* text;
    const char* identity;
  } cases[] = {
      {"empty text", "", "invalid||||||"},
      {"no line feed", "MODULE windows x86 X a.pdb", "invalid||||||"},
      {"blanks in names, around names, and runs of them between words",
       "MODULE windows  x86 X   my a.pdb \nINFO CODE_ID     5F00 my a.exe  \n",
       "|windows|x86|X|my a.pdb|5F00|my a.exe"},
      {"carriage returns", "MODULE windows x86 X a.pdb\r\r\nINFO CODE_ID 5F00 a.exe\r\n",
       "|windows|x86|X|a.pdb|5F00|a.exe"},
      {"code identifier late in the text",
       "MODULE windows x86 X a.pdb\nFUNC 1 1 1 f\n\nINFO CODE_ID 5F00 a.exe\nSTACK CFI 1 x\n",
       "|windows|x86|X|a.pdb|5F00|a.exe"},
      {"the last MODULE line counts, up to INFO CODE_ID",
       "MODULE windows x86 X a.pdb\nMODULE os arch Y b.pdb\nINFO CODE_ID 1 a.exe\nMODULE a b Z c\n",
       "|os|arch|Y|b.pdb|1|a.exe"},
      {"INFO CODE_ID ahead of MODULE ends the scan",
       "INFO CODE_ID 5F00 a.exe\nMODULE windows x86 X a.pdb\n", "invalid|||||5F00|a.exe"},
      {"words run out", "MODULE windows x86 X\n", "invalid|windows|x86|X|||"},
      {"fields not reached keep their values",
       "MODULE windows x86 X a.pdb\nMODULE os\nINFO CODE_ID \n", "|os|x86|X|a.pdb||"},
      {"keywords need their blank", "MODULES a b c d\nMODULE\n", "invalid||||||"},
  };
  for (const auto& c : cases) EXPECT_EQ(identity_of(c.text), c.identity) << c.what;
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

}  // namespace
