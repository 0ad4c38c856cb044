#include "symforge/src/driver/image_search.h"

#include <strings.h>

#include <algorithm>
#include <optional>

#include "symforge/src/driver/directory.h"
#include "symforge/src/pe/image_identity.h"

namespace symforge_internal {

namespace {

// Whether `name` is `stem`, or `stem` with an extension.
bool has_stem(const char* name, const std::string& stem) {
  if (strncasecmp(name, stem.c_str(), stem.size()) != 0) return false;
  return name[stem.size()] == '\0' || name[stem.size()] == '.';
}

}  // namespace

std::vector<std::string> default_images(const std::string& pdb) {
  constexpr size_t kExtension = 3;
  if (pdb.size() < kExtension) return {};
  const std::string stem = pdb.substr(0, pdb.size() - kExtension);
  return {stem + "exe", stem + "dll"};
}

std::vector<std::string> files_of_same_stem(const std::string& pdb) {
  const size_t name = pdb.rfind('/') + 1;  // npos + 1 is 0
  const std::string folder = pdb.substr(0, name);
  std::string stem = pdb.substr(name);
  if (const size_t dot = stem.rfind('.'); dot != std::string::npos && dot > 0) stem.resize(dot);

  const Directory directory = open_directory(folder.empty() ? "." : folder);
  std::vector<std::string> found;
  if (!directory) return found;
  while (const dirent* entry = readdir(directory.get())) {
    if (found.size() == kMaxImageCandidates) break;
    if (!has_stem(entry->d_name, stem)) continue;
    std::string path = folder + entry->d_name;
    if (begins_like_image(path.c_str())) found.push_back(std::move(path));
  }
  std::sort(found.begin(), found.end());
  return found;
}

const std::string* find_image(const std::vector<std::string>& candidates,
                              const std::string& debug_id) {
  const auto found =
      std::find_if(candidates.begin(), candidates.end(), [&](const std::string& path) {
        const std::optional<ImageIdentity> identity = pe_debug_id(path.c_str());
        return identity && identity->debug_id == debug_id;
      });
  return found == candidates.end() ? nullptr : &*found;
}

}  // namespace symforge_internal
