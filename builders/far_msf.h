// FarMsf: spreads a sound MSF file over a sparse file of many gigabytes.
//
//   FarMsf far(bytes);
//   far.move_stream(3, 4ull << 30).move_directory(8ull << 30);
//   far.write(fd);
//
// The former place of a moved page is filled with 0xEE, so that a reader whose file positions have
// 32 bits reads wrong bytes.

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace builders {

class FarMsf {
 public:
  explicit FarMsf(std::string msf);

  uint32_t stream_count() const { return static_cast<uint32_t>(streams_.size()); }
  bool is_empty(uint32_t stream) const { return streams_.at(stream).empty(); }

  // Move all pages of a stream, or those of the directory and of its page list, up by a number of
  // bytes that is a multiple of the page size. Once for each of them.
  FarMsf& move_stream(uint32_t stream, uint64_t distance);
  FarMsf& move_directory(uint64_t distance);

  // Writes the file into an empty one.
  void write(int fd);

 private:
  uint32_t word(size_t position) const;
  std::vector<size_t> words_in(const std::vector<size_t>& list, size_t count) const;
  void move_pages(const std::vector<size_t>& list, uint64_t distance);

  std::string bytes_;
  uint32_t page_size_;
  // File positions of the words that name the pages.
  std::vector<size_t> index_pages_;
  std::vector<size_t> directory_pages_;
  std::vector<std::vector<size_t>> streams_;
  std::vector<std::pair<uint32_t, uint32_t>> moves_;  // old and new page number
};

}  // namespace builders
