// A read-only memory mapping of a whole file, followed by zeros.

#pragma once

#include <cstddef>
#include <cstdint>

namespace symforge_internal {

// A private read-only mapping of a file, followed by kGuardBytes zero bytes. Unmapped on
// destruction.
// NOLINTBEGIN(readability-identifier-naming): the names of its operations are those of its users
class MMapWrapper {
 public:
  // Number of readable zero bytes after the end of the file.
  static constexpr size_t kGuardBytes = 64 * 1024;

  MMapWrapper() = default;
  ~MMapWrapper() { Unmap(); }
  MMapWrapper(const MMapWrapper&) = delete;
  MMapWrapper& operator=(const MMapWrapper&) = delete;

  // Maps the file at `path`. Returns false when it cannot be opened or mapped, or is empty. Call at
  // most once per object.
  bool Map(const char* path);
  // As above for an open file. The caller keeps ownership of `fd`.
  bool Map(int fd);
  void Unmap();

  // Releases the pages of a part of the file, of `parts` parts of equal size, counted from 0.
  // Threads that release parts of a large file at the same time take less time than Unmap(). A
  // later access reads the file again.
  void ReleasePart(size_t part, size_t parts) const;

  bool Valid() const { return base_ != nullptr; }
  const uint8_t* base() const { return base_; }
  size_t length() const { return length_; }  // size of the file in bytes, without the guard

 private:
  size_t length_ = 0;
  const uint8_t* base_ = nullptr;
};
// NOLINTEND(readability-identifier-naming)

}  // namespace symforge_internal
