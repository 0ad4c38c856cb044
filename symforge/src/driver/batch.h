// Batch conversion: everything below a folder goes into one symbol tree, each file (or pair of a PE
// and its PDB) in a process of its own. A file that crashes its process affects no other.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "symforge/src/driver/conversion_options.h"

// The program's name as it was called (argv[0]); child processes get the same.
extern const char* command;

// Converts one input in a child process and waits for its end. Arguments as those of symforge();
// the child's standard output is discarded, its standard error is this process's. True when the
// child ended with status 0. Logs when it was ended by a signal or could not be run.
bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output);

namespace symforge_internal {

// What concerns a batch alone.
struct BatchOptions {
  bool recursive = false;        // folders are walked, and files in them selected by extension
  bool if_changed = false;       // inputs whose result is up to date are skipped, see MadeRecords
  bool quiet = false;            // neither a line of progress nor a summary
  uint64_t min_free_memory = 0;  // bytes; with less, no conversion starts while another one runs
};

// Runs a whole batch over folders, or files selected by content: text symbol files first, so that a
// PE without a PDB finds the symbol file that it belongs to; then PEs, each with the first unused
// PDB of its debug identifier; then the PDBs that are left. Returns the exit status.
//
// With several jobs the tree is the same as with one, and the messages of a conversion are printed
// together when it ends.
//
// Default mode: 0 when at least one conversion succeeded or was not needed; what cannot be walked
// ends the batch before the first conversion. Standard mode: 0 when everything found was converted,
// 2 when some of it was, else 1; what cannot be walked is reported and counts as an input that
// failed.
//
// SIGHUP, SIGINT and SIGTERM end the running conversions; the status is then 128 and the number of
// the signal.
int convert_batch(const std::vector<std::string>& paths, const ConversionOptions& options,
                  const BatchOptions& batch_options);

}  // namespace symforge_internal
