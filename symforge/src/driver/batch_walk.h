// Which files a batch converts: the walk over its folder.

#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace symforge_internal {

// The result of a walk: the files to convert. Paths in byte-wise order, which is the order of
// conversion.
struct BatchInput {
  std::set<std::string> pdbs;  // *.pdb
  std::set<std::string> pes;   // *.exe, *.dll
  std::set<std::string> syms;  // *.sym
  // Standard mode alone: files with other names, which may be images.
  std::set<std::string> others;
};

// Collects the files of a folder and its subfolders, or one file, by their extensions in any case.
// Names that begin with a dot are skipped, symbolic links are followed, and all but regular files
// are ignored. At most one folder is open at any time.
class BatchWalk {
 public:
  // `standard`: paths that cannot be read are reported and skipped, and a folder with several paths
  // is entered once. Otherwise the first path that cannot be read ends the walk.
  BatchWalk(bool standard, BatchInput& found) : standard_(standard), found_(found) {}

  // False when the walk ended early.
  bool run(const char* path);

  // Collects one file by its content, whatever its name: text and SYMB files, images, everything
  // else as a PDB. What is not a regular file counts as unreadable. False when the walk ended.
  bool add_file(const std::string& path);

  // The paths that could not be read.
  const std::vector<std::string>& unreadable() const { return unreadable_; }

 private:
  bool visit(const std::string& path);
  bool visit_folder(const std::string& path);
  bool enter(unsigned long device, unsigned long inode);
  void collect(const std::string& path);
  bool failed(const char* step, const std::string& path);

  const bool standard_;
  BatchInput& found_;
  std::vector<std::string> unreadable_;
  std::vector<std::string> pending_;                           // paths to visit, the next one last
  std::set<std::pair<unsigned long, unsigned long>> entered_;  // folders by device and inode
};

}  // namespace symforge_internal

// Collects in default mode. False, and logged, at the first path that cannot be read: `found` is
// then incomplete.
bool pdb_file_walk(const char* path, symforge_internal::BatchInput& found);
