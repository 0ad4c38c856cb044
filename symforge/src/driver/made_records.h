// Records about how symbol files of a tree were made, for the option --if-changed: which inputs
// need not be converted again.
//
// The record of ROOT/a.pdb/ID/a.sym is ROOT/a.pdb/ID/.a.sym.made, a text file. It has the
// modification time of its symbol file, and so is not valid for a file that replaces that one.

#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include "symforge/src/driver/batch_plan.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/tree_places.h"

namespace symforge_internal {

class MadeRecords {
 public:
  explicit MadeRecords(const ConversionOptions& options) : options_(options) {}

  // Which jobs of a plan need not run: those of a symbol file for which all of this holds.
  // - It was made by this version of the program, in this mode, with or without inlined calls as
  //   now, for the same debug identifier, and its record is valid.
  // - It is newer than each of its inputs in this batch: texts, PDBs and images.
  // - If an input has an image or a code identifier, that was used.
  // As long as one of the inputs of a symbol file is to be converted, all of them are: the last one
  // decides. Inputs whose identifiers cannot be read are always converted.
  std::vector<bool> unneeded(BatchPlan& plan) const;

  // Stores the record after a conversion, which started at the time `start` of now(). Without a
  // record the input is converted again: when an input changed since then, the conversion has not
  // made a symbol file, or the record cannot be written.
  void store(const BatchJob& job, const TreePlaces& places, const timespec& start) const;

  // The time in the units of files.
  static timespec now();

 private:
  std::string target_of(const TreePlaces& places) const;
  std::string first_lines(const TreePlaces& places) const;
  bool is_up_to_date(const BatchJob& job, const TreePlaces& places) const;

  const ConversionOptions& options_;
};

}  // namespace symforge_internal
