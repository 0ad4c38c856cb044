#include "symforge/src/driver/batch_walk.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/printable.h"
#include "base/text_buffer.h"
#include "common/symb_block.h"
#include "symforge/src/driver/directory.h"
#include "symforge/src/driver/input_list.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/symbol_text.h"
#include "symforge/src/pe/image_identity.h"

namespace symforge_internal {

namespace {

constexpr size_t kLongestPath = 4095;  // bytes

// Whether a file begins like a text symbol file or a SYMB image.
bool begins_like_symbol_file(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  TextBuffer begin;
  if (!file.is_open() || !read_file(file.get(), begin, kTextMagic.size())) return false;
  return begin.view().starts_with(kTextMagic) || begin.view().starts_with(kSymbMagic);
}

bool has_extension(const std::string& path, const char* extension) {
  const size_t dot = path.rfind('.');
  return dot != std::string::npos && strcasecmp(path.c_str() + dot, extension) == 0;
}

}  // namespace

void BatchWalk::collect(const std::string& path) {
  if (has_extension(path, ".pdb")) {
    found_.pdbs.insert(path);
  } else if (has_extension(path, ".dll") || has_extension(path, ".exe")) {
    found_.pes.insert(path);
  } else if (has_extension(path, ".sym")) {
    found_.syms.insert(path);
  } else if (standard_) {
    found_.others.insert(path);
  }
}

bool BatchWalk::failed(const char* step, const std::string& path) {
  if (standard_) {
    report("%s: %s", printable(path).c_str(), strerror(errno));
  } else {
    report("%s %s", step, printable(path).c_str());
  }
  unreadable_.push_back(path);
  return standard_;
}

bool BatchWalk::enter(unsigned long device, unsigned long inode) {
  return !standard_ || entered_.emplace(device, inode).second;
}

// Adds the entries so that the folder's first one is visited next.
bool BatchWalk::visit_folder(const std::string& path) {
  const Directory directory = open_directory(path);
  if (!directory) return failed("Failed to opendir", path);
  const size_t before = pending_.size();
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    pending_.push_back(path + "/" + entry->d_name);
  }
  const auto first = pending_.begin() + static_cast<std::ptrdiff_t>(before);
  // In standard mode the order decides which of several paths to a folder is used.
  if (standard_) std::sort(first, pending_.end());
  std::reverse(first, pending_.end());
  return true;
}

bool BatchWalk::visit(const std::string& path) {
  struct stat status;
  if (path.size() > kLongestPath) {
    errno = ENAMETOOLONG;
    return failed("Failed to stat", path.substr(0, kLongestPath));
  }
  if (stat(path.c_str(), &status) != 0) return failed("Failed to stat", path);
  if (S_ISREG(status.st_mode)) collect(path);
  if (!S_ISDIR(status.st_mode) || !enter(status.st_dev, status.st_ino)) return true;
  return visit_folder(path);
}

bool BatchWalk::run(const char* path) {
  pending_.emplace_back(path);
  while (!pending_.empty()) {
    const std::string next = std::move(pending_.back());
    pending_.pop_back();
    if (!visit(next)) return false;
  }
  return true;
}

bool BatchWalk::add_file(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return failed("Failed to stat", path);
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return failed("Failed to read", path);
  }
  // Children take a dash for standard input.
  const std::string file = path == kStandardInput ? "./" + path : path;
  if (begins_like_symbol_file(file)) {
    found_.syms.insert(file);
  } else if (begins_like_image(file.c_str())) {
    found_.pes.insert(file);
  } else {
    found_.pdbs.insert(file);
  }
  return true;
}

}  // namespace symforge_internal

bool pdb_file_walk(const char* path, symforge_internal::BatchInput& found) {
  return symforge_internal::BatchWalk(/*standard=*/false, found).run(path);
}
