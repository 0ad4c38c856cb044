#include "base/text_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "base/limits.h"

namespace symforge_internal {

namespace {

size_t whole_units(size_t bytes) {
  constexpr size_t kUnit = HugePageBlock::kUnit;
  return (bytes + kUnit - 1) / kUnit * kUnit;
}

}  // namespace

TextBuffer::~TextBuffer() {
  if (pages_.data() == nullptr) std::free(data_);
}

TextBuffer::TextBuffer(TextBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)),
      front_(std::exchange(other.front_, 0)),
      front_wanted_(std::exchange(other.front_wanted_, 0)),
      limit_(std::exchange(other.limit_, SIZE_MAX)),
      pages_(std::move(other.pages_)) {}

TextBuffer& TextBuffer::operator=(TextBuffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  std::swap(front_, other.front_);
  std::swap(front_wanted_, other.front_wanted_);
  std::swap(limit_, other.limit_);
  std::swap(pages_, other.pages_);
  return *this;
}

const char* TextBuffer::c_str() { return data(); }

char* TextBuffer::data() {
  *prepare(1) = '\0';
  return data_;
}

void TextBuffer::grow(size_t bytes) {
  constexpr size_t kFirstBlock = 64 * 1024;
  constexpr size_t kLargeBlock = HugePageBlock::kUnit;
  if (bytes > SIZE_MAX / 2 - size_) throw std::bad_alloc();
  if (size_ + bytes > limit_) throw LimitExceeded("The text is too long for its input");
  const size_t usual = capacity_ == 0 ? kFirstBlock : capacity_ + capacity_ / 2;
  const size_t capacity = std::max(std::min(usual, limit_), size_ + bytes);
  if (capacity < kLargeBlock) {
    char* data = static_cast<char*>(std::realloc(data_, capacity));
    if (data == nullptr) throw std::bad_alloc();
    data_ = data;
    capacity_ = capacity;
  } else {
    grow_pages(capacity);
  }
}

// At least `capacity` bytes.
void TextBuffer::grow_pages(size_t capacity) {
  if (pages_.data() == nullptr) {
    const size_t front = whole_units(front_wanted_);
    HugePageBlock pages(front + whole_units(capacity));
    if (size_ != 0) std::memcpy(pages.data() + front, data_, size_);
    std::free(data_);
    pages_ = std::move(pages);
    front_ = front;
  } else {
    pages_.enlarge(whole_units(front_ + capacity));
  }
  data_ = pages_.data() + front_;
  capacity_ = pages_.size() - front_;
}

void TextBuffer::insert(size_t at, std::string_view text) {
  assert(at <= size_);
  if (text.empty()) return;
  if (text.size() <= front_ && at < size_ - at && text.size() <= limit_ - size_) {
    char* const moved = data_ - text.size();
    std::memmove(moved, data_, at);
    data_ = moved;
    front_ -= text.size();
    capacity_ += text.size();
  } else {
    prepare(text.size());
    std::memmove(data_ + at + text.size(), data_ + at, size_ - at);
  }
  std::memcpy(data_ + at, text.data(), text.size());
  size_ += text.size();
}

void blank_line_ends(char* text, size_t size) {
  for (char* at = text; at != text + size; ++at) {
    if (*at == '\r' || *at == '\n' || *at == '\0') *at = ' ';
  }
}

}  // namespace symforge_internal
