// Batch conversion: everything below a folder goes into one symbol tree, each file (or pair of a
// PE and its PDB) in a process of its own, one after the other. A file that crashes its process
// costs only itself.

#pragma once

#include <set>
#include <string>

#include "symforge/src/driver/batch_walk.h"
#include "symforge/src/driver/conversion_options.h"

// The program's name as it was called (argv[0]), which child processes get too.
extern const char* command;

// Converts one input in a child process and waits for its end. Arguments as those of symforge();
// the child's standard output goes nowhere, its standard error is ours. True when the child ended
// with status 0. Logs when it was ended by a signal or could not be run.
bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output);

namespace symforge_internal {

// pdb_execve() with all options.
bool convert_in_child(const ConversionInput& input, const ConversionOptions& options);

// Runs a whole batch over a folder, or one file: text symbol files first, so that a PE without a
// PDB finds the symbol file that it belongs to; then PEs, each with the first PDB of its debug
// identifier that is left; then the PDBs that no PE took. Returns the exit status.
//
// Default mode: 0 when at least one conversion succeeded; what cannot be walked ends the batch
// before the first conversion. Standard mode: 0 when everything found was converted, 2 when some
// of it was, else 1; what cannot be walked is reported and counts as an input that failed.
int convert_batch(const char* path, const ConversionOptions& options);

}  // namespace symforge_internal
