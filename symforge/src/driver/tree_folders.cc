#include "symforge/src/driver/tree_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace symforge_internal {

namespace {

constexpr mode_t kFolderMode = 0777;

// Makes a folder unless something of that name is there. Several processes may fill one tree, so
// one that another process makes in between is as good; a link that leads nowhere is not.
void make_folder(const std::string& path, const char* step) {
  const auto exists = [&path] { return access(path.c_str(), F_OK) == 0; };
  if (exists() || mkdir(path.c_str(), kFolderMode) == 0) return;
  const int error = errno;
  if (error == EEXIST && exists()) return;
  std::fprintf(stderr, "%s %s: %s\n", step, path.c_str(), std::strerror(error));
  std::exit(-1);
}

}  // namespace

void make_tree_folders(const char* root, std::string_view name, const std::string& id) {
  if (access(root, F_OK) != 0) mkdir(root, kFolderMode);
  const std::string folder = std::string(root).append("/").append(name);
  make_folder(folder, "mkdir1");
  make_folder(folder + "/" + id, "mkdir2");
  assert(name.find('.') != std::string::npos);
}

}  // namespace symforge_internal
