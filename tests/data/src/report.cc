// Second module of the executables.
#include "shapes.h"

using namespace shapes;

namespace {

struct Totals {
  double sum;
  int count;
  Totals& add(double value) {
    sum += value;
    ++count;
    return *this;
  }
};

class Formatter {
 public:
  explicit Formatter(char* to) : to_(to), begin_(to) {}
  __attribute__((noinline)) Formatter& operator<<(int number) {
    if (number >= 10) *this << number / 10;
    *to_++ = static_cast<char>('0' + number % 10);
    return *this;
  }
  __attribute__((noinline)) Formatter& operator<<(const char* text) {
    while (*text) *to_++ = *text++;
    return *this;
  }
  Size size() const { return static_cast<Size>(to_ - begin_); }

 private:
  char* to_;
  char* begin_;
};

}  // namespace

// The same name as a function of engine.cc, another body.
static __attribute__((noinline)) int clamp(int value) { return value < -5 ? -5 : value; }

// Twelve values that live across calls: non-volatile XMM registers are saved.
extern "C" __attribute__((noinline)) double report_step(double value) {
  return value * 1.5 + shared_count(1);
}
extern "C" __attribute__((noinline)) double report_total(const double* values, int count) {
  double a = values[0], b = values[1], c = values[2], d = values[3];
  double e = values[4], f = values[5], g = values[6], h = values[7];
  for (int i = 0; i < count; ++i) {
    a += report_step(b), c += report_step(d), e += report_step(f), g += report_step(h);
    b -= a, d -= c, f -= e, h -= g;
  }
  Totals totals = {};
  totals.add(a).add(b).add(c).add(d).add(e).add(f).add(g).add(h);
  return totals.sum / totals.count;
}

// A frame of more than a page, and more than 512 KiB: both large forms of allocation.
extern "C" __attribute__((noinline)) int page_frame(int n) {
  volatile char buffer[0x3000];
  buffer[n] = static_cast<char>(n);
  return buffer[n] + clamp(n);
}
extern "C" __attribute__((noinline)) int huge_frame(int n) {
  volatile char buffer[0xA0000];
  buffer[n] = static_cast<char>(n);
  return buffer[n] + clamp(n) + 1;
}

// Dynamic stack allocation: the frame needs a frame pointer.
extern "C" __attribute__((noinline)) int dynamic_frame(int n) {
  char* text = static_cast<char*>(__builtin_alloca(static_cast<Size>(n)));
  Formatter formatter(text);
  formatter << n << " items";
  return static_cast<int>(formatter.size()) + text[0];
}

__attribute__((noinline)) int overloaded(int value) { return clamp(value); }
__attribute__((noinline)) int overloaded(double value) { return static_cast<int>(value) + 7; }
__attribute__((noinline)) int overloaded(const Point& value) { return static_cast<int>(value.y); }

extern "C" int start() {
  double values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const int result = engine_run(page_frame(3) + huge_frame(4) + dynamic_frame(20));
  return overloaded(result) + overloaded(report_total(values, 2)) + overloaded(Point{1, 2}) +
         shared_count(2);
}
