#include "symforge/src/parallel/ordered_text.h"

#include <emmintrin.h>

#include <cstring>

namespace symforge_internal {

void OrderedText::append(size_t number, std::string_view text) {
  m_pool.waitForTurn(WorkerPool::kSecondOrder, static_cast<uint32_t>(number));
  // The text may move when it grows.
  if (m_out.room() < text.size()) {
    while (m_copying.load() != 0) {
      m_pool.checkAttempt();
      _mm_pause();
    }
  }
  char* const to = m_out.prepare(text.size());
  m_out.commit(text.size());
  m_copying.fetch_add(1);
  m_pool.passTurn(WorkerPool::kSecondOrder);
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  m_copying.fetch_sub(1);
}

bool OrderedText::isNext(size_t number) const {
  return m_pool.isTurn(WorkerPool::kSecondOrder, static_cast<uint32_t>(number));
}

WaitingTexts::WaitingTexts(OrderedText& out, size_t limit) : m_out(out) {
  for (Text& text : m_texts) text.bytes.set_limit(limit);
}

TextBuffer& WaitingTexts::start() {
  TextBuffer& bytes = m_texts[m_end % kMost].bytes;
  bytes.truncate(0);
  return bytes;
}

// A large text does not wait, so that no more than one is in memory.
void WaitingTexts::end(size_t number) {
  constexpr size_t kLarge = size_t{1} << 20;
  Text& last = m_texts[m_end++ % kMost];
  last.number = number;
  const bool large = last.bytes.size() > kLarge;
  while (m_first != m_end &&
         (large || m_end - m_first == kMost || m_out.isNext(m_texts[m_first % kMost].number))) {
    appendFirst();
  }
  if (!large) return;
  const size_t limit = last.bytes.limit();
  last.bytes = TextBuffer();
  last.bytes.set_limit(limit);
}

void WaitingTexts::finish() {
  while (m_first != m_end) appendFirst();
}

void WaitingTexts::appendFirst() {
  const Text& text = m_texts[m_first++ % kMost];
  m_out.append(text.number, text.bytes.view());
}

}  // namespace symforge_internal
