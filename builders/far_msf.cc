#include "builders/far_msf.h"

#include <unistd.h>

#include <stdexcept>

#include "builders/bytes.h"
#include "builders/msf_builder.h"

namespace builders {

namespace {

constexpr size_t kWord = 4;
constexpr size_t kPageSize = 32;
constexpr size_t kDirectorySize = 44;
constexpr size_t kIndexPages = 52;

size_t divided_up(size_t number, size_t by) { return (number + by - 1) / by; }

void write_at(int fd, const std::string& bytes, uint64_t position) {
  const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(position));
  if (written != static_cast<ssize_t>(bytes.size())) throw std::runtime_error("no sparse file");
}

}  // namespace

FarMsf::FarMsf(std::string msf) : bytes_(std::move(msf)), page_size_(word(kPageSize)) {
  const size_t directory = word(kDirectorySize);
  const size_t pages = divided_up(directory, page_size_);
  for (size_t i = 0; i < divided_up(pages * kWord, page_size_); ++i) {
    index_pages_.push_back(kIndexPages + i * kWord);
  }
  directory_pages_ = words_in(index_pages_, pages);
  const std::vector<size_t> words = words_in(directory_pages_, directory / kWord);
  streams_.resize(word(words.at(0)));
  size_t next = 1 + streams_.size();
  for (size_t i = 0; i < streams_.size(); ++i) {
    const uint32_t size = word(words.at(1 + i));
    const size_t count = size == kDeletedStream ? 0 : divided_up(size, page_size_);
    for (size_t page = 0; page < count; ++page) streams_[i].push_back(words.at(next++));
  }
}

uint32_t FarMsf::word(size_t position) const { return get_u32(bytes_, position); }

// Positions of the first `count` words in the pages that the words of `list` name.
std::vector<size_t> FarMsf::words_in(const std::vector<size_t>& list, size_t count) const {
  const size_t in_page = page_size_ / kWord;
  std::vector<size_t> positions(count);
  for (size_t i = 0; i < count; ++i) {
    positions[i] = size_t{word(list.at(i / in_page))} * page_size_ + i % in_page * kWord;
  }
  return positions;
}

void FarMsf::move_pages(const std::vector<size_t>& list, uint64_t distance) {
  for (const size_t at : list) {
    const uint32_t page = word(at);
    const auto moved = static_cast<uint32_t>(page + distance / page_size_);
    put_u32(bytes_, at, moved);
    moves_.emplace_back(page, moved);
  }
}

FarMsf& FarMsf::move_stream(uint32_t stream, uint64_t distance) {
  move_pages(streams_.at(stream), distance);
  return *this;
}

FarMsf& FarMsf::move_directory(uint64_t distance) {
  move_pages(directory_pages_, distance);
  move_pages(index_pages_, distance);
  return *this;
}

void FarMsf::write(int fd) {
  for (const auto& [page, moved] : moves_) {
    write_at(fd, bytes_.substr(size_t{page} * page_size_, page_size_),
             uint64_t{moved} * page_size_);
  }
  for (const auto& [page, moved] : moves_) {
    bytes_.replace(size_t{page} * page_size_, page_size_, page_size_, '\xEE');
  }
  write_at(fd, bytes_, 0);
}

}  // namespace builders
