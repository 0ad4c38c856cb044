// Batches: what is converted and how files are paired, the effect of a bad file, and what is
// printed.

#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/batch_inputs.h"
#include "tests/support/program.h"

namespace test_support {
namespace {

using BatchTest = ProgramTest;

TEST_F(BatchTest, MatchesSingleConversions) {
  BatchInputs in(temp_);
  in.add_good_files(32);
  in.add_bad_files();
  in.pair(4000, "folder.pdb/a.pdb", "folder.pdb/a.dll");
  in.pe("folder.pdb/b_second_of_its_identifier.dll", make_pe(4000, "a.pdb"));
  ASSERT_GE(list_tree(temp_ / "in").size(), 200u);

  const std::string expected = temp_.folder("expected");
  EXPECT_EQ(run({"-r", temp_ / "in", tree_}).status, 0);
  for (const auto& args : in.conversions(expected)) run(args);
  EXPECT_EQ(list_tree(tree_), list_tree(expected));
}

TEST_F(BatchTest, ReportsEachFileOnceAndSucceedsForOneGoodOne) {
  const std::string batch_in = temp_.folder("in");
  temp_.file("in/a.exe", make_pe(1, "a.pdb"));
  temp_.file("in/foreign.pdb", "no PDB, but long enough to be one: " + std::string(64, 'x'));

  Result result = run({"-r", batch_in, tree_});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("PE file without matching pdb or sym file"));
  const std::string report = "Failed to convert symbol file " + batch_in + "/foreign.pdb.\n";
  const size_t at = result.err.find(report);
  EXPECT_NE(at, std::string::npos);
  EXPECT_EQ(result.err.find("foreign.pdb", at + report.size()), std::string::npos);

  temp_.file("in/b.sym", make_text(1, "a.pdb"));
  result = run({"-r", batch_in, tree_});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.err, Not(HasSubstr("a.exe")));
}

// A PDB that kills the process reading its identifier must not stop the pairing.
TEST_F(BatchTest, ContinuesAfterAChildKilledByASignal) {
  for (const char* name : {"in/a.pdb", "in/d.pdb"}) temp_.file(name, aborting_pdb());
  temp_.file("in/b.pdb", make_pdb(2));
  temp_.file("in/c.exe", make_pe(2));
  const Result result = run({"-r", "in", "tree"}, {.directory = temp_.path()});
  EXPECT_EQ(result.status, 0);
  for (const char* path : {"in/a.pdb", "in/d.pdb"}) {
    const std::string message =
        std::string(SYMFORGE_PROGRAM) + " [" + path + "] was terminated by signal: Aborted\n";
    EXPECT_THAT(result.err, HasSubstr("symforge: " + message.substr(0, 127)));
  }
  const Tree converted = list_tree(tree_);
  EXPECT_EQ(converted.count("b.pdb/" + id_of(2) + "/b.sym"), 1u);
  EXPECT_EQ(converted.at("b.pdb/5F0000024000000"), "link " + id_of(2));
}

// Closed standard streams and ignored signals: pairing reads identifiers through a pipe and waits
// for its children.
TEST_F(BatchTest, PairsWithClosedStreamsAndIgnoredSignals) {
  for (const std::string parent : {">&- 2>&- ", "<&- 2>&- ", "env --ignore-signal=CHLD "}) {
    const TemporaryDirectory temp;
    temp.file("in/a.pdb", make_pdb(1));
    temp.file("in/b.exe", make_pe(1));
    const std::string tree = temp.folder("tree");
    const std::string batch = parent + SYMFORGE_PROGRAM " -r " + temp / "in" + " " + tree;
    EXPECT_EQ(std::system(batch.c_str()), 0) << parent;
    EXPECT_EQ(list_tree(tree).count("a.pdb/5F0000014000000"), 1u) << parent;
  }
}

TEST_F(BatchTest, PassesItsOptionsOn) {
  temp_.file("in/a.pdb", make_pdb(1));
  EXPECT_EQ(run({"-r", "-b", "-i", temp_ / "in/a.pdb", tree_}).status, 0);
  EXPECT_EQ(run({"-r", "-b", temp_ / "in", tree_}).status, 0);
  EXPECT_THAT(list_tree(tree_).at("a.pdb/" + id_of(1) + "/a.symb"), StartsWith("file 0600 SYMB"));
}

// A batch re-runs its own executable, whatever its argv[0] and whatever PATH finds under that name.
TEST_F(BatchTest, RunsItsOwnProgramUnderABareName) {
  temp_.file("in/a.sym", make_text(1, "a.pdb"));
  const std::string planted = temp_.file("in/symforge", "#!/bin/sh\ntouch " + temp_ / "ran");
  chmod(planted.c_str(), 0755);
  EXPECT_THAT(run({"-r", in_, tree_}, {.directory = in_, .name = "symforge"}), ended(0, ""));
  EXPECT_EQ(list_tree(tree_).size(), 3u);
  EXPECT_FALSE(std::filesystem::exists(temp_ / "ran"));
}

// What a batch prints on a terminal.
std::string terminal_output(const std::vector<std::string>& args) {
  std::string command = "exec " SYMFORGE_PROGRAM;
  for (const std::string& arg : args) command += " " + arg;
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  std::string output;
  char block[4096];
  for (ssize_t got; (got = read(terminal, block, sizeof block)) > 0;) {
    output.append(block, static_cast<size_t>(got));
  }
  close(terminal);
  waitpid(pid, nullptr, 0);
  return output;
}

using BatchProgressTest = ProgramTest;

TEST_F(BatchProgressTest, IsShownOnTerminalsAlone) {
  temp_.file("in/a.sym", make_text(1, "a.pdb"));
  temp_.file("in/b\x1B.sym", "MODULE no\n");
  const std::string progress = "\r0 done, 0 failed, 2 left, 0.0/s: " + in_ + "/a.sym";
  const std::string message =
      "symforge: " + in_ + "/b\\x1b.sym: the text has no complete MODULE line";
  const std::string summary =
      "symforge: 1 converted, 1 failed (" + in_ + "/b\\x1b.sym), 0 skipped, ";
  const std::string shown = terminal_output({"--standard", "-r", in_, tree_});
  EXPECT_THAT(shown, StartsWith(progress));
  EXPECT_THAT(shown, HasSubstr(" \r" + message + "\r\n"));
  EXPECT_THAT(shown, HasSubstr(" \r" + summary));
  EXPECT_THAT(terminal_output({"-r", in_, tree_}), StartsWith(progress));
  EXPECT_EQ(terminal_output({"--standard", "-q", "-r", in_, tree_}), message + "\r\n");

  EXPECT_THAT(run({"--standard", "-r", in_, tree_}),
              ended(2, StartsWith(message + "\n" + summary)));
  EXPECT_EQ(run({"-r", temp_ / "in/a.sym", tree_}).err, "");
}

}  // namespace
}  // namespace test_support
