// CodeRows: a list of rows whose memory is kept and filled without a check for each row.

#pragma once

#include <cassert>
#include <cstddef>
#include <vector>

#include "symforge/src/standard/code_row.h"

namespace symforge_internal {

class CodeRows {
 public:
  // Room for `count` further rows. What is written there becomes part of the list by commit().
  CodeRow* prepare(size_t count) {
    if (count > m_room.size() - m_size) grow(count);
    return m_room.data() + m_size;
  }
  // `end`: of what was written from the address on that prepare() returned.
  void commit(const CodeRow* end) {
    const auto size = static_cast<size_t>(end - m_room.data());
    assert(size >= m_size && size <= m_room.size());
    m_size = size;
  }
  void push_back(const CodeRow& row) {
    *prepare(1) = row;
    ++m_size;
  }
  void clear() { m_size = 0; }
  // Leaves only the first `size` rows.
  void truncate(size_t size) {
    assert(size <= m_size);
    m_size = size;
  }

  bool empty() const { return m_size == 0; }
  size_t size() const { return m_size; }
  const CodeRow& operator[](size_t i) const {
    assert(i < m_size);
    return m_room.data()[i];
  }
  CodeRow* begin() { return m_room.data(); }
  CodeRow* end() { return m_room.data() + m_size; }
  const CodeRow* begin() const { return m_room.data(); }
  const CodeRow* end() const { return m_room.data() + m_size; }

 private:
  void grow(size_t count) { m_room.resize(2 * (m_size + count)); }

  std::vector<CodeRow> m_room;  // longer than the list
  size_t m_size = 0;
};

}  // namespace symforge_internal
