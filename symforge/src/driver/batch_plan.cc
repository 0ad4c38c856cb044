#include "symforge/src/driver/batch_plan.h"

#include <utility>

#include "symforge/src/driver/image_search.h"
#include "symforge/src/pe/image_identity.h"

namespace symforge_internal {

BatchPlan::BatchPlan(const BatchInput& found, bool whole_folders, const ConversionOptions& options)
    : options_(options),
      whole_folders_(whole_folders),
      pdbs_(found.pdbs),
      matcher_(pdbs_, options) {
  using Kind = BatchJob::Kind;
  for (const std::string& sym : found.syms) jobs_.push_back({Kind::kText, sym, {}});
  std::set<std::string> left = pdbs_;
  for (const std::string& exe : found.pes) add_image(exe, /*alone=*/true, left);
  for (const std::string& other : found.others) {
    if (begins_like_image(other.c_str())) add_image(other, /*alone=*/false, left);
  }
  for (const std::string& pdb : left) jobs_.push_back({Kind::kPdb, pdb, {}});
}

// Adds an image with its PDB, or alone if it has none and that is requested.
void BatchPlan::add_image(const std::string& exe, bool alone, std::set<std::string>& pdbs) {
  std::string pdb;
  switch (matcher_.exe_pdb_match(exe, pdb)) {
    case PdbMatcher::Match::kFound:
      pdbs.erase(pdb);
      if (options_.standard) images_[matcher_.id_of(pdb)].push_back(exe);
      jobs_.push_back({BatchJob::Kind::kPair, pdb, exe});
      return;
    case PdbMatcher::Match::kTaken:
      // A copy of an image adds nothing. In default mode its conversion fails.
      if (options_.standard) {
        ++skipped_;
        if (const auto identity = pe_debug_id(exe.c_str())) {
          images_[identity->debug_id].push_back(exe);
        }
        return;
      }
      break;
    case PdbMatcher::Match::kNone:
      break;
  }
  if (alone) jobs_.push_back({BatchJob::Kind::kImage, {}, exe});
}

TreePlaces BatchPlan::places_of(const BatchJob& job) {
  switch (job.kind) {
    case BatchJob::Kind::kText:
      return places_of_text(job.pdb);
    case BatchJob::Kind::kImage:
      return places_of_image(job.exe);
    case BatchJob::Kind::kPair:
    case BatchJob::Kind::kPdb:
      break;
  }
  const std::string id = matcher_.id_of(job.pdb);
  return places_of_pdb(job.pdb, id, job.exe, images_of(job.pdb, id));
}

// The images that the conversion of a PDB alone can find. In standard mode they have its
// identifier.
std::vector<std::string> BatchPlan::images_of(const std::string& pdb, const std::string& id) const {
  if (!options_.standard) return default_images(pdb);
  std::vector<std::string> images;
  if (const auto found = images_.find(id); found != images_.end()) images = found->second;
  if (whole_folders_) return images;
  const std::vector<std::string> candidates = files_of_same_stem(pdb);
  if (const std::string* image = find_image(candidates, id)) {
    images.insert(images.begin(), *image);
  }
  return images;
}

void BatchPlan::remove(const std::vector<bool>& unneeded) {
  std::vector<BatchJob> left;
  for (size_t i = 0; i < jobs_.size(); ++i) {
    if (!unneeded[i]) left.push_back(std::move(jobs_[i]));
  }
  jobs_ = std::move(left);
}

}  // namespace symforge_internal
