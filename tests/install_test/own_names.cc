#include "own_names.h"

void PageBlock::enlarge(size_t size) { size_ += size; }

HugePageBlock::HugePageBlock(size_t size) : size_(size) {}
HugePageBlock::~HugePageBlock() { size_ = 0; }

TextBuffer::~TextBuffer() { text_.clear(); }
const char* TextBuffer::c_str() { return text_.c_str(); }
char* TextBuffer::data() { return text_.data(); }
void TextBuffer::grow(size_t bytes) { text_.append(bytes, '.'); }

LineWriter::LineWriter(TextBuffer& text, size_t room) : text_(text) { text_.grow(room); }
LineWriter& LineWriter::str(std::string_view text) {
  text_.append(text);
  return *this;
}

void SymbStrings::add(std::string_view text) { next_ += text.size(); }
void SymbStrings::write(char* to) const { *to = static_cast<char>('0' + next_); }

bool own_names_work() {
  PageBlock pages(1);
  pages.enlarge(2);
  HugePageBlock huge_pages(4);
  huge_pages.enlarge(3);
  TextBuffer text;
  LineWriter(text, pages.size()).str("own").chr(' ');
  SymbStrings strings;
  strings.place(2);
  strings.add(text.c_str());
  strings.next();
  char digit = ' ';
  strings.write(&digit);
  return huge_pages.size() == 7 && std::string(text.data()) == "...own \n" && digit == '0' + 11;
}
