// A whole file in memory, mapped and followed by zeros.

#pragma once

#include <cstddef>
#include <cstdint>

namespace symforge_internal {

// A read-only private mapping of a whole file followed by kGuardBytes zeroed bytes.
class MMapWrapper {
 public:
  // Bytes after the file's last one that are readable and zero.
  static constexpr size_t kGuardBytes = 64 * 1024;

  MMapWrapper() = default;
  ~MMapWrapper() { Unmap(); }
  MMapWrapper(const MMapWrapper&) = delete;
  MMapWrapper& operator=(const MMapWrapper&) = delete;

  // Maps the file. False when it cannot be opened or mapped; an empty file is one such. To be
  // called once.
  bool Map(const char* path);
  // The same for an open file, which is not closed.
  bool Map(int fd);
  void Unmap();

  bool Valid() const { return m_base != nullptr; }
  const uint8_t* base() const { return m_base; }
  size_t length() const { return m_length; }  // bytes of the file, without the guard

 private:
  size_t m_length = 0;
  const uint8_t* m_base = nullptr;
};

}  // namespace symforge_internal
