#include "common/text_buffer.h"

#include <cstdlib>
#include <new>
#include <utility>

TextBuffer::~TextBuffer() { std::free(data_); }

TextBuffer::TextBuffer(TextBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

TextBuffer& TextBuffer::operator=(TextBuffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  return *this;
}

const char* TextBuffer::c_str() { return data(); }

char* TextBuffer::data() {
  *prepare(1) = '\0';
  return data_;
}

void TextBuffer::grow(size_t bytes) {
  constexpr size_t kFirstBlock = 64 * 1024;
  size_t capacity = capacity_ == 0 ? kFirstBlock : capacity_ + capacity_ / 2;
  if (capacity - size_ < bytes) capacity = size_ + bytes;
  if (capacity < size_) throw std::bad_alloc();  // the sum of sizes wrapped
  char* data = static_cast<char*>(std::realloc(data_, capacity));
  if (data == nullptr) throw std::bad_alloc();
  data_ = data;
  capacity_ = capacity;
}
