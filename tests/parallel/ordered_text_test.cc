// Texts of several workers: joined in order, whatever their sizes and however long one takes.

#include "symforge/src/parallel/ordered_text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "symforge/src/parallel/file_workers.h"

namespace {

using namespace symforge_internal;

// Some are larger than what can wait.
std::string text_of(size_t number) {
  const size_t size = number % 7 == 5 ? size_t{3} << 20 : number * 37 % 1000;
  return std::string(size, static_cast<char>('a' + number % 26));
}

std::string all_texts(size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text_of(i);
  return all;
}

TEST(OrderedTextTest, IsInOrderForAnyNumberOfWorkers) {
  constexpr size_t kCount = 60;
  for (const unsigned workers : {1, 2, 5}) {
    WorkerPool pool(workers);
    ASSERT_EQ(pool.size(), workers);
    TextBuffer out;
    OrderedText text(pool, out);
    WorkQueue numbers(kCount);
    EXPECT_TRUE(pool.run([&](unsigned) {
      WaitingTexts parts(text, SIZE_MAX);
      size_t number;
      while (numbers.take(number)) {
        parts.start().append(text_of(number));
        parts.end(number);
      }
      parts.finish();
    }));
    EXPECT_TRUE(out.view() == all_texts(kCount)) << workers;
  }
}

TEST(OrderedTextTest, AWorkerGoesOnWhileAnEarlierTextIsMade) {
  using namespace std::chrono_literals;
  WorkerPool pool(2);
  TextBuffer out;
  OrderedText text(pool, out);
  std::atomic<size_t> made = 0;
  EXPECT_TRUE(pool.run([&](unsigned worker) {
    WaitingTexts parts(text, SIZE_MAX);
    const auto make = [&](size_t number) {
      parts.start().append(text_of(number));
      ++made;
      parts.end(number);
    };
    if (worker == 0) {
      const auto latest = std::chrono::steady_clock::now() + 20s;
      while (made < 2 && std::chrono::steady_clock::now() < latest) std::this_thread::yield();
      EXPECT_EQ(made, 2u);
      make(0);
    } else {
      make(1);
      make(2);
    }
    parts.finish();
  }));
  EXPECT_EQ(out.view(), all_texts(3));
}

// A text that exceeds its limit ends the attempt for all.
TEST(OrderedTextTest, FailsWithAnyOfItsTexts) {
  WorkerPool pool(2);
  TextBuffer out;
  OrderedText text(pool, out);
  WorkQueue numbers(20);
  EXPECT_FALSE(pool.run([&](unsigned) {
    WaitingTexts parts(text, size_t{1} << 16);
    size_t number;
    while (numbers.take(number)) {
      parts.start().append(text_of(number));
      parts.end(number);
    }
    parts.finish();
  }));
}

}  // namespace
