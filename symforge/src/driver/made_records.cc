#include "symforge/src/driver/made_records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string_view>

#include "base/file_io.h"
#include "common/symforge_version.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

bool is_before(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

bool is_same(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The modification time of a regular file that is not empty.
bool time_of(const std::string& path, timespec& time) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  time = status.st_mtim;
  return status.st_size > 0;
}

// Whether all files that a job reads are older than `time`.
bool are_older(const BatchJob& job, const TreePlaces& places, const timespec& time) {
  for (const std::string& path : {job.pdb, job.exe, places.image}) {
    timespec changed;
    if (!path.empty() && !(time_of(path, changed) && is_before(changed, time))) return false;
  }
  return true;
}

std::string record_of(const std::string& target) {
  const size_t name = target.rfind('/') + 1;
  return target.substr(0, name) + "." + target.substr(name) + ".made";
}

std::string code_id_line(const std::string& code_id) { return "code_id " + code_id + "\n"; }

}  // namespace

timespec MadeRecords::now() {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &time);
  return time;
}

// The path of the symbol file, or nothing if it is not in the tree.
std::string MadeRecords::target_of(const TreePlaces& places) const {
  if (!places.known) return {};
  return existing_tree_path(options_.tree, places.debug_file, places.debug_id, options_.binary);
}

std::string MadeRecords::first_lines(const TreePlaces& places) const {
  std::string lines = "symforge " SYMFORGE_VERSION_STRING;
  lines += options_.standard ? " standard" : " default";
  lines += do_inline ? " inlines\n" : " no-inlines\n";
  return lines + "debug_id " + places.debug_id + "\n";
}

bool MadeRecords::is_up_to_date(const BatchJob& job, const TreePlaces& places) const {
  const std::string target = target_of(places);
  timespec made;
  timespec recorded;
  if (target.empty() || !time_of(target, made)) return false;
  const std::string path = record_of(target);
  if (!time_of(path, recorded) || !is_same(made, recorded)) return false;
  const std::string record = content_of(path);
  const std::string first = first_lines(places);
  if (!record.starts_with(first)) return false;
  const auto& ids = places.code_ids;
  const bool image_used = ids.empty() || std::any_of(ids.begin(), ids.end(), [&](const auto& id) {
                            return record.substr(first.size()) == code_id_line(id);
                          });
  return image_used && are_older(job, places, made);
}

std::vector<bool> MadeRecords::unneeded(BatchPlan& plan) const {
  const std::vector<BatchJob>& jobs = plan.jobs();
  std::vector<std::string> keys(jobs.size());
  std::map<std::string, bool> changed;  // by the first key of the places
  for (size_t i = 0; i < jobs.size(); ++i) {
    const TreePlaces places = plan.places_of(jobs[i]);
    if (!places.known || places.debug_file.empty()) continue;
    keys[i] = places.keys().front();
    bool& group = changed[keys[i]];
    group = group || !is_up_to_date(jobs[i], places);
  }
  std::vector<bool> unneeded(jobs.size());
  for (size_t i = 0; i < jobs.size(); ++i) unneeded[i] = !keys[i].empty() && !changed[keys[i]];
  return unneeded;
}

void MadeRecords::store(const BatchJob& job, const TreePlaces& places,
                        const timespec& start) const {
  const std::string target = target_of(places);
  timespec made;
  if (target.empty() || !time_of(target, made)) return;
  const std::string path = record_of(target);
  unlink(path.c_str());
  // In default mode a conversion that could not write its result also counts as done.
  if (is_before(made, start) || !are_older(job, places, start)) return;
  const std::string code_id = places.code_ids.empty() ? "" : places.code_ids.front();
  const mode_t mode = options_.standard ? 0666 : 0600;
  if (replace_file(path, first_lines(places) + code_id_line(code_id), {.mode = mode}) != nullptr) {
    return;
  }
  const timespec times[2] = {made, made};
  if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) unlink(path.c_str());
}

}  // namespace symforge_internal
