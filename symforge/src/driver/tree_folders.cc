#include "symforge/src/driver/tree_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/printable.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

void make_folders_or_exit(const char* root, std::string_view name, const std::string& id) {
  constexpr mode_t kFolderMode = 0777;
  if (access(root, F_OK) != 0) mkdir(root, kFolderMode);
  const TreeFolders made = make_tree_folders(root, name, id, kFolderMode);
  if (made == TreeFolders::kMade) return;
  const int error = errno;
  const bool first = made == TreeFolders::kNoFileFolder;
  std::string folder = std::string(root).append("/").append(name);
  if (!first) folder.append("/").append(id);
  std::fprintf(stderr, "%s %s: %s\n", first ? "mkdir1" : "mkdir2", printable(folder).c_str(),
               std::strerror(error));
  std::exit(-1);
}

}  // namespace symforge_internal
