// The module of the libraries: calling conventions, handlers, functions imported without a
// declaration as such (each becomes a thunk), built without optimisation.
#include "shapes.h"

using namespace shapes;

#if defined(__i386__)
#define STDCALL __stdcall
#define FASTCALL __fastcall
#else
#define STDCALL
#define FASTCALL
#endif

#define IMPORTS(X) \
  X(00) X(01) X(02) X(03) X(04) X(05) X(06) X(07) X(08) X(09) X(10) X(11) X(12) X(13) X(14) X(15)
#define DECLARE(n) extern "C" int host_##n(int);
IMPORTS(DECLARE)

extern "C" __declspec(dllexport) int call_imports(int value) {
#define CALL(n) value = host_##n(value);
  IMPORTS(CALL)
  return value;
}

extern "C" int STDCALL std_call(int a, int b, char c) { return a + b * c; }
extern "C" int FASTCALL fast_call(int a, int b, int c, int d) { return a - b + c - d; }
extern "C" int FASTCALL fast_two(int a, int b) { return a ^ b; }
extern "C" int plain_call(int a, double b) { return a + static_cast<int>(b); }

struct Pair {
  int first, second;
  int total(int scale) const { return (first + second) * scale; }
  static Pair make(int first, int second) { return {first, second}; }
};

extern "C" int STDCALL by_value(Pair pair, Pair* to) {
  *to = Pair::make(pair.second, pair.first);
  return to->total(2);
}

extern "C" __declspec(dllexport) unsigned deep_unoptimised(unsigned a, unsigned b) {
  return mix1(a, b) + mix2(b, a);
}

// Without a frame pointer where the target allows it.
extern "C" __attribute__((optnone)) int recursive(int n) {
  if (n < 2) return n;
  return recursive(n - 1) + recursive(n - 2);
}

static int STDCALL callback(int value) { return value + 1; }
typedef int(STDCALL* Callback)(int);
extern "C" int STDCALL with_callback(Callback function, const Pair (&pairs)[3]) {
  return function(pairs[1].second);
}

class Base {
 public:
  virtual int first(int value) { return value; }
};
class Other {
 public:
  virtual int second(int value) { return value + 1; }
  virtual int third(int value) { return value + 2; }
};
class Derived : public Base, public Other {
 public:
  int first(int value) override { return value + 10; }
  int second(int value) override { return value + 20; }
  int third(int value) override { return value + 30; }
};

static Derived the_derived;

extern "C" __declspec(dllexport) int calls_run(int value) {
  Pair pairs[3] = {{1, 2}, {3, 4}, {5, 6}};
  Pair other;
  Other* through = &the_derived;
  value += std_call(1, 2, 3) + fast_call(1, 2, 3, 4) + fast_two(5, 6) + plain_call(7, 8.5);
  value += by_value(pairs[0], &other) + with_callback(callback, pairs) + recursive(value & 7);
  return value + through->second(1) + through->third(2) + static_cast<Base*>(&the_derived)->first(3);
}
