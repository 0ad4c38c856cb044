// A folder that is closed with the object that owns it.

#pragma once

#include <dirent.h>

#include <memory>
#include <string>

namespace symforge_internal {

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// Null if it cannot be opened; `errno` holds the reason.
inline Directory open_directory(const std::string& path) {
  return Directory(opendir(path.c_str()));
}

}  // namespace symforge_internal
