// SymbolFile: the contents of a symbol file, mapped or read.

#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "base/mapped_file.h"

namespace google_breakpad {

class SymbolFile {
 public:
  enum class Symb { kMap, kRead };

  // Opens a regular file of any content and of less than 2 GiB; a FIFO or a device is not opened.
  // SYMB data are mapped read-only with kMap. Everything else is read into an array, followed by
  // one NUL. Sets the file's access time to now, which marks it as used.
  //
  // Returns null on success, otherwise the beginning of a message, "Could not open " or "Could not
  // slurp "; errno says why. Throws std::bad_alloc. Call once per object.
  const char* Open(const std::string& path, Symb symb);

  bool is_symb() const;
  // Only an array may be written.
  char* data() const { return data_; }
  size_t size() const { return size_; }  // of the file, without the NUL
  // Returns the array, which the caller then owns; null for a mapping.
  std::unique_ptr<char[]> TakeArray() { return std::move(array_); }

 private:
  bool Read(int fd);

  symforge_internal::MMapWrapper mapping_;
  std::unique_ptr<char[]> array_;
  char* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace google_breakpad
