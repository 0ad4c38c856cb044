#include "builders/msf_builder.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "builders/bytes.h"

namespace builders {

namespace {

constexpr uint32_t kHeaderSize = 52;

size_t offset_in(const MsfFile& file, const std::vector<uint32_t>& pages, uint32_t offset) {
  return size_t{pages.at(offset / file.page_size)} * file.page_size + offset % file.page_size;
}

}  // namespace

size_t MsfFile::offset_of(uint32_t stream, uint32_t offset) const {
  return offset_in(*this, stream_pages.at(stream), offset);
}

size_t MsfFile::directory_offset(uint32_t offset) const {
  return offset_in(*this, directory_pages, offset);
}

MsfBuilder::MsfBuilder(uint32_t page_size) : page_size_(page_size) {
  assert(page_size >= 64 && page_size % 4 == 0);
}

uint32_t MsfBuilder::add_stream(std::string bytes) {
  streams_.push_back(std::move(bytes));
  return stream_count() - 1;
}

MsfBuilder& MsfBuilder::set_stream(uint32_t stream, std::string bytes) {
  if (stream >= stream_count()) streams_.resize(stream + 1);
  streams_[stream] = std::move(bytes);
  return *this;
}

MsfBuilder& MsfBuilder::order(PageOrder order) {
  order_ = order;
  return *this;
}

MsfBuilder& MsfBuilder::split(uint32_t stream, uint32_t page) {
  splits_.emplace(stream, page);
  return *this;
}

MsfBuilder& MsfBuilder::override_size(uint32_t stream, uint32_t size) {
  sizes_[stream] = size;
  return *this;
}

MsfBuilder& MsfBuilder::override_pages(uint32_t stream, std::vector<uint32_t> pages) {
  page_lists_[stream] = std::move(pages);
  return *this;
}

MsfBuilder& MsfBuilder::reverse_directory() {
  directory_reversed_ = true;
  return *this;
}

MsfBuilder& MsfBuilder::override_directory_size(uint32_t size) {
  directory_size_ = size;
  return *this;
}

MsfFile MsfBuilder::build() {
  MsfFile file;
  file.page_size = page_size_;
  lay_streams(file);
  const std::string directory_bytes = directory(file);
  file.directory_pages = allocate_pages(pages_for(directory_bytes.size()), directory_reversed_);
  Bytes index;
  for (const uint32_t page : file.directory_pages) index.u32(page);
  file.index_pages = allocate_pages(pages_for(index.size()), false);

  file.bytes.assign(size_t{next_page_} * page_size_, '\xEE');
  write_header(file, static_cast<uint32_t>(directory_bytes.size()));
  for (uint32_t stream = 0; stream < stream_count(); ++stream) {
    copy_to_pages(file, streams_[stream], file.stream_pages[stream]);
    std::string().swap(streams_[stream]);
  }
  copy_to_pages(file, directory_bytes, file.directory_pages);
  copy_to_pages(file, index.str(), file.index_pages);
  return file;
}

// Allocates the next page that is not part of a free page map.
uint32_t MsfBuilder::allocate_page() {
  while (next_page_ % page_size_ == 1 || next_page_ % page_size_ == 2) ++next_page_;
  return next_page_++;
}

std::vector<uint32_t> MsfBuilder::allocate_pages(uint32_t count, bool reversed) {
  std::vector<uint32_t> pages(count);
  for (uint32_t& page : pages) page = allocate_page();
  if (reversed) std::reverse(pages.begin(), pages.end());
  return pages;
}

uint32_t MsfBuilder::pages_for(uint64_t size) const {
  return static_cast<uint32_t>((size + page_size_ - 1) / page_size_);
}

uint32_t MsfBuilder::directory_size_of(uint32_t stream) const {
  const auto found = sizes_.find(stream);
  return found == sizes_.end() ? static_cast<uint32_t>(streams_[stream].size()) : found->second;
}

// Assigns pages to every stream.
void MsfBuilder::lay_streams(MsfFile& file) {
  file.stream_pages.resize(stream_count());
  for (const auto& [stream, size] : sizes_) {
    if (page_lists_.contains(stream)) continue;
    const size_t bytes = size == kDeletedStream ? 0 : size;
    streams_.at(stream).resize(bytes);
  }
  if (order_ == PageOrder::kInterleaved) {
    lay_interleaved(file);
  } else {
    lay_one_by_one(file);
  }
}

void MsfBuilder::lay_one_by_one(MsfFile& file) {
  for (uint32_t stream = 0; stream < stream_count(); ++stream) {
    std::vector<uint32_t>& pages = file.stream_pages[stream];
    const uint32_t count = pages_for(streams_[stream].size());
    pages.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      if (splits_.contains({stream, i})) allocate_page();
      pages.push_back(allocate_page());
    }
    if (order_ == PageOrder::kReversed) std::reverse(pages.begin(), pages.end());
  }
}

void MsfBuilder::lay_interleaved(MsfFile& file) {
  for (uint32_t i = 0, left = 1; left != 0; ++i) {
    left = 0;
    for (uint32_t stream = 0; stream < stream_count(); ++stream) {
      if (i >= pages_for(streams_[stream].size())) continue;
      file.stream_pages[stream].push_back(allocate_page());
      ++left;
    }
  }
}

// Stream count, the size of each stream, the page numbers of each stream.
std::string MsfBuilder::directory(const MsfFile& file) const {
  Bytes bytes;
  bytes.u32(stream_count());
  for (uint32_t stream = 0; stream < stream_count(); ++stream) bytes.u32(directory_size_of(stream));
  for (uint32_t stream = 0; stream < stream_count(); ++stream) {
    const auto found = page_lists_.find(stream);
    const auto& pages = found == page_lists_.end() ? file.stream_pages[stream] : found->second;
    for (const uint32_t page : pages) bytes.u32(page);
  }
  return std::move(bytes).str();
}

void MsfBuilder::copy_to_pages(MsfFile& file, const std::string& bytes,
                               const std::vector<uint32_t>& pages) {
  for (size_t i = 0, done = 0; i < pages.size() && done < bytes.size(); ++i, done += page_size_) {
    const size_t count = std::min<size_t>(page_size_, bytes.size() - done);
    std::memcpy(&file.bytes[size_t{pages[i]} * page_size_], &bytes[done], count);
  }
}

void MsfBuilder::write_header(MsfFile& file, uint32_t directory_size) {
  constexpr char kSignature[] = "Microsoft C/C++ MSF 7.00\r\n\x1A\x44\x53\0\0";
  Bytes header;
  header.text({kSignature, 32});
  header.u32(page_size_).u32(1).u32(next_page_);
  header.u32(directory_size_.value_or(directory_size)).u32(0);
  for (const uint32_t page : file.index_pages) header.u32(page);
  // A longer list would need a larger page size: all index pages have to fit into the header page.
  assert(header.size() <= page_size_ && header.size() >= kHeaderSize);
  std::memcpy(file.bytes.data(), header.str().data(), header.size());
  for (size_t page = 1; page < next_page_; page += page_size_) {
    const size_t end = std::min<size_t>(page + 2, next_page_);
    std::fill(&file.bytes[page * page_size_], file.bytes.data() + end * page_size_, '\xFF');
  }
}

}  // namespace builders
