// MsfBuilder: builds an MSF 7.00 file, the container of a PDB, from streams.
//
//   MsfBuilder msf(512);
//   uint32_t number = msf.add_stream(bytes);   // 0, 1, 2, ...
//   msf.split(number, 1);                      // an unused page between the stream's first two
//   MsfFile file = msf.build();
//
// Layout: page 0 is the header. Pages 1 and 2 of every interval of page-size pages are the free
// page maps (filled with 0xFF here). The streams follow in order of number, then the directory,
// then the list of the directory's pages. Unused bytes (pages added by split(), the rest of each
// stream's last page) are 0xEE, so that misdirected reads show.

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

// The size of a deleted stream.
inline constexpr uint32_t kDeletedStream = 0xFFFFFFFF;

// A finished file and the positions of its parts, for tests that damage them.
struct MsfFile {
  std::string bytes;
  uint32_t page_size = 0;
  std::vector<std::vector<uint32_t>> stream_pages;  // page numbers by stream, in stream order
  std::vector<uint32_t> directory_pages;
  std::vector<uint32_t> index_pages;  // pages that contain the list of the directory's pages

  // File position of a byte of a stream, or of the directory.
  size_t offset_of(uint32_t stream, uint32_t offset) const;
  size_t directory_offset(uint32_t offset) const;
};

enum class PageOrder {
  kContiguous,   // pages in ascending order, adjacent except at the free page maps
  kReversed,     // pages in descending order, so that no two are adjacent
  kInterleaved,  // one page of each stream in rotation
};

class MsfBuilder {
 public:
  // Real files have page sizes of 512, 1024, 2048 or 4096. Any multiple of 4 from 64 works here.
  explicit MsfBuilder(uint32_t page_size = 4096);

  // Appends a stream and returns its number.
  uint32_t add_stream(std::string bytes);
  // Replaces the contents of a stream. Adds empty streams up to that number if needed.
  MsfBuilder& set_stream(uint32_t stream, std::string bytes);
  uint32_t stream_count() const { return static_cast<uint32_t>(streams_.size()); }
  const std::string& stream(uint32_t stream) const { return streams_.at(stream); }

  MsfBuilder& order(PageOrder order);
  // Inserts an unused page before the given page (1 or more) of the stream.
  MsfBuilder& split(uint32_t stream, uint32_t page);
  // Sets the stream's size in the directory to a wrong value. The stream gets as many pages as that
  // size needs, the added ones zeroed, unless override_pages() lists them. 0xFFFFFFFF (a deleted
  // stream) gets none.
  MsfBuilder& override_size(uint32_t stream, uint32_t size);
  // Sets the stream's page numbers in the directory to wrong values.
  MsfBuilder& override_pages(uint32_t stream, std::vector<uint32_t> pages);
  // Writes the directory's pages in reverse order, so that a directory of several pages is not
  // contiguous.
  MsfBuilder& reverse_directory();
  // Sets the size of the directory in the header to a wrong value.
  MsfBuilder& override_directory_size(uint32_t size);

  // Moves the streams into the file; call only once.
  MsfFile build();

 private:
  uint32_t allocate_page();
  uint32_t pages_for(uint64_t size) const;
  void lay_streams(MsfFile& file);
  void lay_one_by_one(MsfFile& file);
  void lay_interleaved(MsfFile& file);
  std::string directory(const MsfFile& file) const;
  std::vector<uint32_t> allocate_pages(uint32_t count, bool reversed);
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
