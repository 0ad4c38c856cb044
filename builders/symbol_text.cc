#include "builders/symbol_text.h"

#include <cstdio>

namespace builders {

namespace {

constexpr uint32_t kStart = 0x1000;
constexpr uint32_t kLineSize = 8;
constexpr uint32_t kGap = 0x10;
constexpr uint32_t kFiles = 1000;

// Functions vary in size: between 1 line and twice the average minus 1.
uint32_t line_count(const SymbolTextShape& shape, uint32_t i) {
  const uint32_t mixed = i * 2654435761u;
  return shape.lines == 0 ? 0 : 1 + (mixed >> 16) % (2 * shape.lines - 1);
}
uint32_t function_size(const SymbolTextShape& shape, uint32_t i) {
  return line_count(shape, i) * kLineSize + 8;
}

template <typename... Args>
void print(std::string& text, const char* format, Args... args) {
  char line[256];
  const int length = std::snprintf(line, sizeof(line), format, args...);
  text.append(line, static_cast<size_t>(length));
}

// Names like those of compilers: long common prefixes, different endings.
void print_name(std::string& text, uint32_t i) {
  print(text, "company::product::component%u::Class%u<wchar_t>::method_%u(int,char const *)\n",
        i / 1000, i / 50, i);
}

void print_function(std::string& text, const SymbolTextShape& shape, uint32_t i, uint32_t address) {
  print(text, "FUNC 1:%x %x %x ", address, function_size(shape, i), i % 5 * 4);
  print_name(text, i);
  for (uint32_t n = 0; n < line_count(shape, i); ++n) {
    print(text, "%x %x %u %u\n", address + n * kLineSize, kLineSize, i % 3000 + n,
          i / 7 % kFiles + 1);
  }
  for (uint32_t n = 0; n < shape.inline_depth; ++n) {
    print(text, "I %x %x %u %u %x ", address + n, function_size(shape, i) - 2 * n, 100 + n,
          (i + n) % kFiles + 1, n);
    print_name(text, (i * 7 + n) % 5000);
  }
}

void print_stack_win(std::string& text, uint32_t i, uint32_t address, uint32_t size) {
  print(text, "STACK WIN %u %x %x %x 0 %x 4 %x 0 1 $T0 .raSearch = $eip $T0 ^ = $esp $T0 %u + =\n",
        i % 2 * 4, address, size, i % 7, i % 4 * 4, i % 64, i % 8 * 4);
}

void print_stack_cfi(std::string& text, uint32_t i, uint32_t address, uint32_t size) {
  print(text, "STACK CFI INIT %x %x .cfa: $rsp 8 + .ra: .cfa 8 - ^\n", address, size);
  print(text, "STACK CFI %x .cfa: $rsp %u + $rbx: .cfa 16 - ^\n", address + 6, i % 32 * 8 + 16);
}

// Calls `visit(i, address)` for each function. Returns the end address of the last one.
template <typename Visit>
uint32_t for_each_function(const SymbolTextShape& shape, Visit visit) {
  uint32_t address = kStart;
  for (uint32_t i = 0; i < shape.functions; ++i) {
    visit(i, address);
    address += function_size(shape, i) + kGap;
  }
  return address;
}

}  // namespace

uint64_t symbol_text_end(const SymbolTextShape& shape) {
  return for_each_function(shape, [](uint32_t, uint32_t) {});
}

std::string symbol_text(const SymbolTextShape& shape) {
  std::string text =
      "MODULE windows x86_64 497B72F6390A44FC878E5A2D63B6CC4B1 a.pdb\n"
      "INFO CODE_ID 5F1E2D3C21000 a.exe\n";
  for (uint32_t i = 1; i <= kFiles; ++i) {
    print(text, "FILE %u c:\\build\\source\\component%u\\file%u.cpp\n", i, i / 40, i);
  }
  for_each_function(shape, [&](uint32_t i, uint32_t address) {
    print_function(text, shape, i, address);
    const uint32_t end = address + function_size(shape, i);
    if (i % 10 == 9) print(text, "PUBLIC %x 0 public_%u\n", end + kGap / 2, i);
  });
  if (!shape.unwind) return text;
  for_each_function(shape, [&](uint32_t i, uint32_t address) {
    if (i % 3 == 0) print_stack_win(text, i, address, function_size(shape, i));
  });
  for_each_function(shape, [&](uint32_t i, uint32_t address) {
    print_stack_cfi(text, i, address, function_size(shape, i));
  });
  return text;
}

}  // namespace builders
