// Classes of a host with the names and member functions of internal classes of the library. Some
// functions are inline, others in own_names.cc.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class PageBlock {
 public:
  explicit PageBlock(size_t size) : size_(size) {}
  ~PageBlock() { size_ = 0; }
  void enlarge(size_t size);
  size_t size() const { return size_; }

 private:
  size_t size_;
};

class HugePageBlock {
 public:
  explicit HugePageBlock(size_t size);
  ~HugePageBlock();
  void enlarge(size_t size) { size_ += size; }
  size_t size() const { return size_; }

 private:
  size_t size_;
};

class TextBuffer {
 public:
  TextBuffer() = default;
  ~TextBuffer();
  const char* c_str();
  char* data();
  void grow(size_t bytes);
  void append(std::string_view text) { text_ += text; }
  size_t size() const { return text_.size(); }

 private:
  std::string text_;
};

class LineWriter {
 public:
  LineWriter(TextBuffer& text, size_t room);
  ~LineWriter() { text_.append("\n"); }
  LineWriter& str(std::string_view text);
  LineWriter& chr(char c) {
    text_.append({&c, 1});
    return *this;
  }

 private:
  TextBuffer& text_;
};

class SymbStrings {
 public:
  void add(std::string_view text);
  void place(uint64_t offset) { next_ = offset; }
  uint64_t next() { return next_++; }
  void write(char* to) const;

 private:
  uint64_t next_ = 0;
};

// Uses all of them. Returns true if they worked.
bool own_names_work();
