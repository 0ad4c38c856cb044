// OrderedText: one text from texts that workers make, in the order of their numbers.
//
//   OrderedText text(pool, out);
//   pool.run([&](unsigned) {
//     WaitingTexts parts(text, limit);
//     while (chunks.take(chunk)) {
//       print(chunk, parts.start());
//       parts.end(chunk);
//     }
//     parts.finish();
//   });

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text_buffer.h"
#include "symforge/src/parallel/worker_pool.h"

namespace symforge_internal {

// Appends texts of workers to one text, in the order of their numbers, each copied by its worker.
// Uses the pool's second order.
class OrderedText {
 public:
  // Both must outlive this.
  OrderedText(WorkerPool& pool, TextBuffer& out) : m_pool(pool), m_out(out) {}

  // To be called for each number from 0 on, by the worker that has the text. Waits for the lower
  // numbers. Throws what TextBuffer::prepare() throws.
  void append(size_t number, std::string_view text);

  // Whether append() would not wait.
  bool isNext(size_t number) const;

 private:
  WorkerPool& m_pool;
  TextBuffer& m_out;
  std::atomic<uint32_t> m_copying = 0;  // texts that are being copied
};

// The texts that one worker makes for an OrderedText. One can wait here for lower numbers while the
// worker makes the next one.
class WaitingTexts {
 public:
  // `out` must outlive this. Each text is limited to `limit` bytes.
  WaitingTexts(OrderedText& out, size_t limit);

  // An empty buffer for the next text, valid until end().
  TextBuffer& start();
  // Ends that text; numbers ascend. Throws what OrderedText::append() throws.
  void end(size_t number);
  // Waits until all texts are appended.
  void finish();

 private:
  static constexpr size_t kMost = 2;

  struct Text {
    size_t number = 0;
    TextBuffer bytes;
  };

  void appendFirst();

  OrderedText& m_out;
  std::array<Text, kMost> m_texts;  // a ring
  size_t m_first = 0;               // of those that wait, counted from the start
  size_t m_end = 0;
};

}  // namespace symforge_internal
