// Benchmarks of the resolver on one core: loading a text symbol file, and lookups. The argument is
// the number of functions. As in the symbol file of a large 64-bit C++ program, generated functions
// have 8 line records on average, a quarter have inline sites, and all have a signature as name and
// STACK CFI lines.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "processor/basic_source_line_resolver_module.h"
#include "tests/support/code_module.h"

namespace {

using google_breakpad::BasicSourceLineResolver;
using google_breakpad::StackFrame;
using Module = BasicSourceLineResolver::Module;

constexpr uint64_t kBase = 0x140000000;
constexpr uint64_t kFunctionSpacing = 0x90;

struct Text {
  std::string text;
  size_t lines = 0;
};

class TextMaker {
 public:
  explicit TextMaker(int64_t functions) {
    add("MODULE windows x86_64 0123456789ABCDEF0123456789ABCDEF1 big.pdb\n");
    for (int i = 0; i < 3000; ++i)
      add("FILE %d d:\\src\\component%d\\source_file_%d.cpp\n", i, i / 50, i);
    for (int64_t i = 0; i < functions; ++i) add_function(i);
    for (int64_t i = 0; i < functions; ++i) add_unwind_rules(0x1000 + i * kFunctionSpacing);
  }
  Text& result() { return text_; }

 private:
  template <typename... Args>
  void add(const char* format, Args... args) {
    char line[256];
    const int length = snprintf(line, sizeof(line), format, args...);
    text_.text.append(line, static_cast<size_t>(length));
    ++text_.lines;
  }

  void add_function(int64_t number) {
    const uint64_t address = 0x1000 + static_cast<uint64_t>(number) * kFunctionSpacing;
    add("FUNC 1:%lx 80 0 component::Class%ld::method%ld(int, char const*)\n", address, number / 20,
        number);
    const unsigned lines = 1 + random_() % 15;
    for (unsigned i = 0; i < lines; ++i) {
      add("%lx 8 %u %ld\n", address + i * 8, 100 + i, number / 20 % 3000);
    }
    if (number % 4 != 0) return;
    add("I %lx 20 12 7 0 std::vector<int>::push_back\n", address + 8);
    add("I %lx 8 12 7 1 std::vector<int>::end\n", address + 16);
    add("I %lx 8 12 7 1 std::vector<int>::end\n", address + 16);
  }

  void add_unwind_rules(uint64_t address) {
    add("STACK CFI INIT %lx 80 .cfa: $rsp 8 + .ra: .cfa 8 - ^\n", address);
    add("STACK CFI %lx .cfa: $rsp 64 +\n", address + 4);
  }

  Text text_;
  std::mt19937 random_{1};
};

const Text& text_of(int64_t functions) {
  static std::map<int64_t, TextMaker> texts;
  return texts.try_emplace(functions, functions).first->second.result();
}

// Allocated memory of this process in bytes.
size_t resident_bytes() {
  malloc_trim(0);
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<size_t>(pages) * 4096;
}

std::unique_ptr<Module> load(std::string& buffer) {
  auto module = std::make_unique<Module>("bench");
  module->LoadMapFromMemory(buffer.data(), buffer.size() + 1);
  return module;
}

void BM_TextLoad(benchmark::State& state) {
  const Text& text = text_of(state.range(0));
  size_t resident = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string buffer = text.text;
    const size_t before = resident_bytes();
    state.ResumeTiming();
    std::unique_ptr<Module> module = load(buffer);
    state.PauseTiming();
    if (module->IsCorrupt()) state.SkipWithError("the text did not parse");
    resident = resident_bytes() - before;
    module.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.text.size()));
  state.counters["lines/s"] =
      benchmark::Counter(static_cast<double>(text.lines) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
  state.counters["memory/text"] =
      static_cast<double>(resident) / static_cast<double>(text.text.size());
}
BENCHMARK(BM_TextLoad)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// Random addresses in all functions, about half of them in code with a line record.
template <typename Ask>
void look_up(benchmark::State& state, Ask ask) {
  std::string buffer = text_of(state.range(0)).text;
  const std::unique_ptr<Module> module = load(buffer);
  std::string().swap(buffer);
  std::mt19937_64 random(2);
  std::vector<uint64_t> addresses(1 << 20);
  for (uint64_t& address : addresses) {
    address =
        kBase + 0x1000 + random() % (static_cast<uint64_t>(state.range(0)) * kFunctionSpacing);
  }
  const test_support::TestModule code(kBase);
  StackFrame frame;
  frame.module = &code;
  size_t next = 0;
  for (auto _ : state) {
    frame.instruction = addresses[next++ % addresses.size()];
    ask(*module, frame);
    benchmark::DoNotOptimize(frame.source_line);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_LookupAddress(benchmark::State& state) {
  look_up(state, [](const Module& module, StackFrame& frame) { module.LookupAddress(&frame); });
}
BENCHMARK(BM_LookupAddress)->Arg(1000)->Arg(100000)->Arg(1000000);

void BM_FindCFIFrameInfo(benchmark::State& state) {
  look_up(state,
          [](const Module& module, StackFrame& frame) { delete module.FindCFIFrameInfo(&frame); });
}
BENCHMARK(BM_FindCFIFrameInfo)->Arg(100000);

// Loads functions and lines in descending order, the slow case of the containers.
void BM_TextLoadReversed(benchmark::State& state) {
  std::string text;
  char line[160];
  for (int64_t i = state.range(0); i > 0; --i) {
    snprintf(line, sizeof(line), "FUNC %lx 10 0 function%ld\n%lx 8 2 1\n%lx 8 1 1\n", i * 16, i,
             i * 16 + 8, i * 16);
    text += line;
  }
  for (auto _ : state) {
    std::string buffer = text;
    benchmark::DoNotOptimize(load(buffer)->Functions().GetCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_TextLoadReversed)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace
