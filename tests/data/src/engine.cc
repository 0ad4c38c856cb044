// First module of the executables.
#include "shapes.h"

namespace shapes {

double Circle::area() const { return 3.14159 * radius_ * radius_; }
void Circle::move(const Point& by) { centre_ = centre_ + by; }
const char* Circle::name() const { return text; }
void Circle::rename(const char* to) { text = to; }

void Canvas::fill(Colour colour, unsigned char (&row)[16]) {
  for (unsigned char& pixel : pixels_) pixel = static_cast<unsigned char>(colour);
  for (int i = 0; i < 16; ++i) row[i] = pixels_[i];
}

int Canvas::blend(Canvas* to, const Canvas& from, Mode mode) {
  for (int i = 0; i < 0x9000; i += 2) to->pixels_[i] ^= from.pixels_[i];
  return mode == Mode::kExact ? to->pixels_[0] : 0;
}

}  // namespace shapes

using namespace shapes;

// The same name as a function of report.cc.
static __attribute__((noinline)) int clamp(int value) { return value > 100 ? 100 : value; }

// Lines from two files.
extern "C" __attribute__((noinline)) double polygon_area(const Point* points, int count) {
  double sum = 0;
  for (int i = 0; i < count; ++i) {
#include "polygon.inc"
  }
  return sum / 2;
}

// Two functions with equal code: the linker folds them.
extern "C" __attribute__((noinline)) int fold_first(int* to, int by) {
  *to += by * 3;
  return *to ^ 0x55;
}
extern "C" __attribute__((noinline)) int fold_second(int* to, int by) {
  *to += by * 3;
  return *to ^ 0x55;
}

__attribute__((noinline)) int sum_of(int count, ...) {
  __builtin_va_list arguments;
  __builtin_va_start(arguments, count);
  int sum = 0;
  for (int i = 0; i < count; ++i) sum += __builtin_va_arg(arguments, int);
  __builtin_va_end(arguments);
  return sum;
}

__attribute__((noinline)) int apply(int (*function)(int), int argument) {
  return function(argument) + 1;
}

__attribute__((noinline)) int call_member(Circle& circle, void (Circle::*move)(const Point&),
                                          int Shape::*field) {
  (circle.*move)(Point{1, 2});
  return circle.*field;
}

__attribute__((noinline)) int many_types(const char* text, volatile int& counter, Word&& word,
                                         const wchar_t* const wide, bool flag, long long big,
                                         unsigned short small, float** table, Colour colour) {
  counter = counter + static_cast<int>(big) + small + colour;
  return text[0] + word.number + wide[0] + flag + static_cast<int>(**table);
}

extern "C" __attribute__((noinline)) unsigned deep(unsigned a, unsigned b) {
  unsigned c = mix1(a, b);
  return mix1(c, a) + 1;
}

static __attribute__((noinline)) void visit_all(Stack<int, 8>& stack, int* total) {
  stack.visit([total](int value) { *total += value; });
}

static Circle the_circle;
static Canvas the_canvas, the_other;

extern "C" __attribute__((noinline)) int engine_run(int argument) {
  Stack<int, 8> numbers;
  Stack<Point, 4> points;
  numbers.push(argument);
  numbers.push(clamp(argument));
  points.push(Point{1, 2});
  int total = 0;
  visit_all(numbers, &total);
  unsigned char row[16];
  the_canvas.fill(kBlue, row);
  volatile int counter = Canvas::blend(&the_canvas, the_other, Mode::kExact);
  float value = 1;
  float* pointer = &value;
  total += many_types("a", counter, Word{1}, L"b", true, 3, 4, &pointer, kGreen);
  total += apply(clamp, total) + sum_of(3, 1, 2, 3);
  total += call_member(the_circle, &Circle::move, &Circle::id);
  Named* named = &the_circle;
  named->rename("c");
  Shape* shape = &the_circle;
  total += static_cast<int>(shape->area() + points.top().dot(Point{1, 1}));
  total += fold_first(&total, 1) + fold_second(&total, 2) + shared_count(total);
  total += static_cast<int>(polygon_area(&points.top(), 1)) + named->name()[0];
  return total + static_cast<int>(deep(static_cast<unsigned>(total), 3));
}
