// The options of the command line that conversions depend on.

#pragma once

#include <string_view>

namespace symforge_internal {

// One input, or a pair. Paths are borrowed. At least one of them is not null.
struct ConversionInput {
  // A PDB, a text symbol file or a SYMB image, by content; "-": one of the latter two on standard
  // input.
  const char* pdb = nullptr;
  const char* exe = nullptr;  // the PE image of the PDB; with a null `pdb` it is converted alone

  // The path that messages name.
  const char* name() const { return pdb != nullptr ? pdb : exe; }
};

// (Whether inline sites are converted is in the global flag `do_inline`.)
struct ConversionOptions {
  bool standard = false;  // the published text format with complete content, strict statuses
  bool binary = false;    // the result is a SYMB image instead of text
  bool sync = false;      // results reach the disk before they replace older ones
  bool sandbox = false;   // the process permanently drops rights that are not needed
  // In a batch the number of children at a time, in the conversion of one file of threads; 0: as
  // many as this process has processors.
  unsigned jobs = 1;
  const char* report = nullptr;  // file to append a line about the conversion to, borrowed, or null
  bool in_batch = false;         // a batch waits for the end of this process
  const char* tree = nullptr;    // root of the symbol tree, borrowed; null: standard output
};

constexpr unsigned kMostJobs = 1024;

// The number of jobs that an option asks for, 1 to kMostJobs: the number of processors that this
// process can run on for 0, else the number itself.
unsigned resolved_jobs(unsigned jobs);

// Reads the argument of an option: a decimal number from 0 to kMostJobs. False for another text.
bool parse_jobs(std::string_view text, unsigned& jobs);

}  // namespace symforge_internal
