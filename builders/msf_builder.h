// MsfBuilder: composes an MSF 7.00 file, the container of a PDB, stream by stream.
//
//   MsfBuilder msf(512);
//   uint32_t number = msf.add_stream(bytes);   // 0, 1, 2, ...
//   msf.split(number, 1);                      // a strange page between the stream's first two
//   MsfFile file = msf.build();
//
// Layout of the file: page 0 is the header; pages 1 and 2, and the same two of every further
// page-size pages, belong to the free page maps (filled with 0xFF here); then the streams in order
// of number, the directory, and the list of the directory's pages. What belongs to nobody, the
// pages put in by split() and the rest of each stream's last page, is filled with 0xEE, so that a
// reader that strays shows it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace builders {

// A finished file, with what is needed to find things in it and to damage them.
struct MsfFile {
  std::string bytes;
  uint32_t page_size = 0;
  std::vector<std::vector<uint32_t>> stream_pages;  // page numbers, by stream, in stream order
  std::vector<uint32_t> directory_pages;
  std::vector<uint32_t> index_pages;  // pages that list the directory's pages

  // Position in the file of a byte of a stream, or of the directory.
  size_t offset_of(uint32_t stream, uint32_t offset) const;
  size_t directory_offset(uint32_t offset) const;
};

enum class PageOrder {
  kContiguous,   // each stream in one piece (but for the free page maps)
  kReversed,     // each stream backwards: no two of its pages follow each other
  kInterleaved,  // a page of each stream in turn
};

class MsfBuilder {
 public:
  // Page sizes that real files have are 512, 1024, 2048 and 4096; any multiple of 4 from 64 works.
  explicit MsfBuilder(uint32_t page_size = 4096);

  // Appends a stream and returns its number.
  uint32_t add_stream(std::string bytes);
  // Replaces the contents of a stream; streams between the present last one and it become empty.
  MsfBuilder& set_stream(uint32_t stream, std::string bytes);
  uint32_t stream_count() const { return static_cast<uint32_t>(streams_.size()); }

  MsfBuilder& order(PageOrder order);
  // Puts a page that belongs to nobody before the given page (1 or more) of the stream.
  MsfBuilder& split(uint32_t stream, uint32_t page);
  // The size that the directory gives, in place of the true one. The stream gets the pages that
  // such a size needs, new ones zeroed; 0xFFFFFFFF (a deleted stream) gets none.
  MsfBuilder& override_size(uint32_t stream, uint32_t size);
  // The page numbers that the directory gives, in place of the true ones.
  MsfBuilder& override_pages(uint32_t stream, std::vector<uint32_t> pages);
  // Writes the directory's pages in reverse, so that a directory longer than a page is split.
  MsfBuilder& reverse_directory();
  // The size of the directory that the header gives, in place of the true one.
  MsfBuilder& override_directory_size(uint32_t size);

  // The streams are moved into the file: a builder builds once.
  MsfFile build();

 private:
  uint32_t take_page();
  uint32_t pages_for(uint64_t size) const;
  void lay_streams(MsfFile& file);
  void lay_one_by_one(MsfFile& file);
  void lay_interleaved(MsfFile& file);
  std::string directory(const MsfFile& file) const;
  std::vector<uint32_t> take_pages(uint32_t count, bool reversed);
  void copy_to_pages(MsfFile& file, const std::string& bytes, const std::vector<uint32_t>& pages);
  void write_header(MsfFile& file, uint32_t directory_size);
  uint32_t directory_size_of(uint32_t stream) const;

  uint32_t page_size_;
  uint32_t next_page_ = 3;
  PageOrder order_ = PageOrder::kContiguous;
  bool directory_reversed_ = false;
  std::vector<std::string> streams_;
  std::set<std::pair<uint32_t, uint32_t>> splits_;
  std::map<uint32_t, uint32_t> sizes_;
  std::map<uint32_t, std::vector<uint32_t>> page_lists_;
  std::optional<uint32_t> directory_size_;
};

}  // namespace builders
