// The conversions of a batch, in their order.

#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "symforge/src/driver/batch_walk.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/pdb_matcher.h"
#include "symforge/src/driver/tree_places.h"

namespace symforge_internal {

// One conversion of a batch.
struct BatchJob {
  // kText comes first, so that an image without PDB finds the symbol file that it belongs to.
  enum class Kind { kText, kPair, kImage, kPdb };

  Kind kind = Kind::kText;
  std::string pdb;  // empty for kImage
  std::string exe;  // empty for kText and kPdb

  ConversionInput input() const {
    return {.pdb = pdb.empty() ? nullptr : pdb.c_str(), .exe = exe.empty() ? nullptr : exe.c_str()};
  }
};

// Text symbol files, then images, each with the first unused PDB of its debug identifier, then the
// PDBs that are left.
class BatchPlan {
 public:
  // `whole_folders`: all files of the inputs' folders are in `found`.
  BatchPlan(const BatchInput& found, bool whole_folders, const ConversionOptions& options);

  BatchPlan(const BatchPlan&) = delete;
  BatchPlan& operator=(const BatchPlan&) = delete;

  const std::vector<BatchJob>& jobs() const { return jobs_; }
  // The number of images that are not converted because they are copies.
  size_t skipped() const { return skipped_; }

  // What a job touches in the tree. Reads parts of its files, so it must not be called before the
  // jobs that make them have ended. (No job makes a file that another one reads.)
  TreePlaces places_of(const BatchJob& job);

  // Removes the jobs for which `unneeded` has true; it has one element for each job.
  void remove(const std::vector<bool>& unneeded);

 private:
  void add_image(const std::string& exe, bool alone, std::set<std::string>& pdbs);
  std::vector<std::string> images_of(const std::string& pdb, const std::string& id) const;

  const ConversionOptions& options_;
  const bool whole_folders_;
  const std::set<std::string> pdbs_;
  PdbMatcher matcher_;
  std::vector<BatchJob> jobs_;
  // Standard mode: by debug identifier, the images that have a PDB.
  std::map<std::string, std::vector<std::string>> images_;
  size_t skipped_ = 0;
};

}  // namespace symforge_internal
