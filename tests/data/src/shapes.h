// Shared by all fixture modules: code that lives in a header, templates, and five functions that
// are inlined into each other.
#pragma once

namespace shapes {

typedef unsigned long long Size;
enum Colour { kRed, kGreen, kBlue };
enum class Mode : unsigned char { kFast, kExact };

union Word {
  int number;
  float real;
  unsigned char bytes[4];
};

struct Point {
  double x, y;
  double dot(const Point& other) const { return x * other.x + y * other.y; }
  Point operator+(const Point& other) const { return {x + other.x, y + other.y}; }
};

template <typename T, int N>
class Stack {
 public:
  __attribute__((noinline)) bool push(const T& value) {
    if (size_ == N) return false;
    items_[size_++] = value;
    return true;
  }
  __attribute__((noinline)) T& top() { return items_[size_ - 1]; }
  template <typename Visitor>
  __attribute__((noinline)) void visit(Visitor visitor) {
    for (int i = 0; i < size_; ++i) visitor(items_[i]);
  }

 private:
  T items_[N] = {};
  int size_ = 0;
};

// One inside the other, five deep; each adds a range of its own.
inline __attribute__((always_inline)) unsigned mix5(unsigned a, unsigned b) {
  unsigned c = a ^ (b << 7);
  return c * 0x85EBCA6Bu;
}
inline __attribute__((always_inline)) unsigned mix4(unsigned a, unsigned b) {
  unsigned c = mix5(a + 4, b);
  return c ^ (c >> 13);
}
inline __attribute__((always_inline)) unsigned mix3(unsigned a, unsigned b) {
  unsigned c = mix4(a, b * 3);
  return c + mix5(c, a);
}
inline __attribute__((always_inline)) unsigned mix2(unsigned a, unsigned b) {
  if (a > b) return mix3(b, a);
  return mix3(a, b) + 2;
}
inline __attribute__((always_inline)) unsigned mix1(unsigned a, unsigned b) {
  unsigned c = mix2(a, b);
  for (unsigned i = 0; i < (b & 3); ++i) c = mix4(c, i);
  return c;
}

// Not inlined, so that both modules hold a copy and the linker keeps one.
__attribute__((noinline)) inline int shared_count(int by) {
  static int count;
  return count += by;
}

class Shape {
 public:
  virtual double area() const = 0;
  virtual void move(const Point& by) = 0;
  int id = 0;
};

class Named {
 public:
  virtual const char* name() const = 0;
  virtual void rename(const char* to) = 0;
  const char* text = "";
};

class Circle : public Shape, public Named {
 public:
  double area() const override;
  void move(const Point& by) override;
  // Called through Named these two need a thunk that adjusts `this`.
  const char* name() const override;
  void rename(const char* to) override;

 private:
  Point centre_ = {};
  double radius_ = 1;
};

// More than 0x8000 bytes: its size is no short number in its type record.
class Canvas {
 public:
  void fill(Colour colour, unsigned char (&row)[16]);
  static int blend(Canvas* to, const Canvas& from, Mode mode);

 private:
  unsigned char pixels_[0x9000];
};

}  // namespace shapes

extern "C" {
int engine_run(int argument);
double report_total(const double* values, int count);
}
