// Batch conversion: everything below a folder goes into one symbol tree, each file (or pair of a
// PE and its PDB) in a process of its own, one after the other. A file that crashes its process
// costs only itself.

#pragma once

#include <set>
#include <string>

// The path that the child processes are executed from (argv[0]: no search of PATH is made).
extern const char* command;

// What a walk found to convert. Paths in byte-wise order, which is the order of conversion.
struct BatchInput {
  std::set<std::string> pdbs;  // *.pdb
  std::set<std::string> pes;   // *.exe, *.dll
  std::set<std::string> syms;  // *.sym
};

// Collects the files of a folder and its subfolders, or one file, by their extensions in any case;
// names that begin with a dot are passed over, symbolic links are followed. False, and logged, at
// the first path that cannot be read: `found` is then incomplete.
bool pdb_file_walk(const char* path, BatchInput& found);

// Converts one input in a child process and waits for its end. Arguments as those of symforge();
// the child's standard output goes nowhere, its standard error is ours. True when the child ended
// with status 0. Logs when it was ended by a signal or could not be run.
bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output);

// Runs a whole batch: text symbol files first, so that a PE without a PDB finds the symbol file
// that it belongs to; then PEs, each with the first PDB of its debug identifier that is left; then
// the PDBs that no PE took. True when at least one conversion succeeded.
bool convert_batch(const char* path, const char* sym_path, bool binary_output);
