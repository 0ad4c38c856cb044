// PDBParser: converts one PDB (with or without its PE image) to a Breakpad text symbol file, or
// adds the lines of one PE image to an existing symbol file.
//
//   PDBParser parser(/*with_inlines=*/true);
//   TextBuffer text;
//   parser.load("a.pdb", nullptr, nullptr, text);
//   parser.printBreakpadSymbols(text, nullptr);
//
// A parser is used once, by one thread. All failures of a file are pdb_exceptions with the text
// that the user is shown, or LimitExceeded for input that costs more than base/limits.h allows;
// warnings go to standard error. Some damage ends the process instead: assertions, range checks and
// exceptions of the standard library (out_of_range, bad_alloc), which default mode does not catch.
//
// Addresses are RVAs (relative to the image base), 32 bits wide, and wrap; sizes are in bytes.
//
// The work is done by the classes in msf/ (the container), pdb/ (its streams), pe/ (the image) and
// emit/ and standard/ (functions and their lines in either mode). Records stay in the mapped file:
// tables hold handles into the mapping, which the parser owns.

#pragma once

#include <memory>
#include <string>

#include "base/text_buffer.h"
#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/pdb/file_mod.h"
#include "symforge/src/pdb_exception.h"
#include "symforge/src/standard/standard_counts.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

class CodeFile;

class PDBParser {
 public:
  // with_inlines: whether inline sites are resolved and printed.
  explicit PDBParser(bool with_inlines);
  ~PDBParser();
  PDBParser(const PDBParser&) = delete;
  PDBParser& operator=(const PDBParser&) = delete;

  // Converts with the threads of `pool`. What is printed does not depend on it, but its end, the
  // unwind rules, can then be in `unwindRules` instead of `out`, which saves a copy. Both must
  // outlive this.
  void useWorkers(WorkerPool& pool, TextBuffer& unwindRules);

  // Opens the PDB and the PE. `pdb` null: PE-only mode; the symbol file that the tree has for `exe`
  // is appended to `out` as text. `exe` null: tries the PDB's name with the extension exe or dll.
  // `sympath`: root of the symbol tree, or null; with a PDB, makes its folders for this PDB; if
  // that fails the process ends with status 255. Paths are not kept. Throws pdb_exception; a
  // missing PE is not an error.
  void load(const char* pdb, const char* exe, const char* sympath, TextBuffer& out);

  // Appends the whole symbol file to `out`, in the PE-only mode only the lines that the PE adds.
  // `fileMod` may be null. Throws pdb_exception; `out` then holds the lines so far.
  void printBreakpadSymbols(TextBuffer& out, FileMod* fileMod);

  // Makes load() of an image alone read a SYMB file as text in the standard format.
  void selectStandard();

  // Appends the whole symbol file in the standard format to `out` and counts what it holds. For an
  // image alone, adds what the image tells to the symbol file that load() has read. Throws
  // pdb_exception; `out` then holds an unspecified part.
  void printStandardSymbols(TextBuffer& out, StandardCounts& counts);

  // Debug identifier: GUID in upper-case digits, age in lower-case ones. Empty in the PE-only mode.
  const std::string& debug_id() const;

  // The identity of the PDB's symbol file, taken from the PDB and the image, not from lines of the
  // text. `os` and `arch` stay empty. Valid after load() of a PDB.
  sym_info identity() const;

  // The image, if there is one. Valid after load().
  const CodeFile& codeFile() const;

  // Releases the mapping of the PDB.
  void close();
  // Releases the pages of the part that worker `worker` of `workers` has of the mapping, which the
  // workers can do at the same time; close() then takes no time. Nothing may be read any more.
  void releasePart(unsigned worker, unsigned workers) const;

 private:
  struct Rep;

  bool readRootStream(const char* sympath);
  void printHeader(TextBuffer& out) const;

  const std::unique_ptr<Rep> m_rep;
};

// The debug identifier of a PDB. False for every file for which load() throws anything; a damaged
// image next to an intact PDB is enough. Warnings are written to standard error as by load(), and
// files that end the process there end it here too.
bool pdb_debug_id(const char* file, std::string& id);

}  // namespace symforge_internal
