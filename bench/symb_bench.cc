// Benchmarks of SYMB: text to image, image to text, validation, lookups. Each conversion reports
// `x_floor`: its processor time divided by that of copying the bytes that it reads and writes,
// measured in the same run. Arguments are numbers of functions.

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "base/huge_page_block.h"
#include "base/text_buffer.h"
#include "builders/symbol_text.h"
#include "common/symb.h"
#include "common/symb_text.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "google_breakpad/processor/stack_frame.h"
#include "processor/basic_source_line_resolver_module.h"

using symforge_internal::TextBuffer;

namespace {

using builders::symbol_text;
using builders::SymbolTextShape;

SymbolTextShape shape_of(int64_t functions, int64_t inline_depth) {
  SymbolTextShape shape;
  shape.functions = static_cast<uint32_t>(functions);
  shape.inline_depth = static_cast<uint32_t>(inline_depth);
  return shape;
}

// A block as returned by symb_write().
struct Image {
  std::unique_ptr<char[]> block;
  size_t size = 0;

  std::string_view view() const { return {block.get(), size}; }
};

Image image_of(const std::string& text) {
  char* block = nullptr;
  size_t size = 0;
  if (!symb_write(text.c_str(), &block, &size)) std::abort();
  return {std::unique_ptr<char[]>(block), size};
}

// Cached between runs of a benchmark, because generating a large input takes seconds.
const std::string& text_for(const benchmark::State& state) {
  static std::map<std::pair<int64_t, int64_t>, std::string> texts;
  std::string& text = texts[{state.range(0), state.range(1)}];
  if (text.empty()) text = symbol_text(shape_of(state.range(0), state.range(1)));
  return text;
}
const Image& image_for(const benchmark::State& state) {
  static std::map<std::pair<int64_t, int64_t>, Image> images;
  Image& image = images[{state.range(0), state.range(1)}];
  if (image.block == nullptr) image = image_of(text_for(state));
  return image;
}

// Processor time, which depends less on other processes than wall time.
double cpu_seconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The time to read `input` and to write as many bytes as `output` has to fresh memory.
double floor_seconds(std::string_view input, std::string_view output) {
  double best = 1e9;
  for (int i = 0; i < 3; ++i) {
    const double start = cpu_seconds();
    const std::unique_ptr<char[]> copy(new char[std::max(input.size(), output.size())]);
    std::memcpy(copy.get(), input.data(), input.size());
    benchmark::DoNotOptimize(copy[input.size() / 2]);
    std::memcpy(copy.get(), output.data(), output.size());
    benchmark::DoNotOptimize(copy[output.size() / 2]);
    best = std::min(best, cpu_seconds() - start);
  }
  return best;
}

void set_ratio(benchmark::State& state, double seconds, std::string_view in, std::string_view out) {
  state.counters["x_floor"] =
      seconds / static_cast<double>(state.iterations()) / floor_seconds(in, out);
}

void text_to_symb(benchmark::State& state) {
  const std::string& text = text_for(state);
  double seconds = 0;
  for (auto _ : state) {
    const double start = cpu_seconds();
    char* block = nullptr;
    size_t size = 0;
    if (!symb_write(text.c_str(), &block, &size)) state.SkipWithError("symb_write");
    seconds += cpu_seconds() - start;
    delete[] block;
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  set_ratio(state, seconds, text, image_for(state).view());
}

void symb_to_text(benchmark::State& state) {
  const std::string_view image = image_for(state).view();
  std::string text;
  double seconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string block(image);
    state.ResumeTiming();
    const double start = cpu_seconds();
    TextBuffer out;
    if (!symb_read(block.data(), block.size(), out)) state.SkipWithError("symb_read");
    seconds += cpu_seconds() - start;
    state.PauseTiming();
    if (text.empty()) text = out.view();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  set_ratio(state, seconds, image, text);
}

void validate(benchmark::State& state) {
  const std::string_view image = image_for(state).view();
  for (auto _ : state) {
    if (!symb_validate(reinterpret_cast<uint64_t>(image.data()), image.size())) {
      state.SkipWithError("symb_validate");
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(image.size()));
}

class Code : public google_breakpad::CodeModule {
 public:
  uint64_t base_address() const override { return 0x7ff600000000; }
  uint64_t size() const override { return 0; }
  std::string code_file() const override { return "a.exe"; }
  std::string code_identifier() const override { return ""; }
  std::string debug_file() const override { return "a.pdb"; }
  std::string debug_identifier() const override { return "0123"; }
  std::string version() const override { return ""; }
  CodeModule* Copy() const override { return new Code; }
  uint64_t shrink_down_delta() const override { return 0; }
  void SetShrinkDownDelta(uint64_t) override {}
  bool is_unloaded() const override { return false; }
};

void open(benchmark::State& state) {
  const Image& image = image_for(state);
  const Code code;
  std::clog.setstate(std::ios::failbit);
  for (auto _ : state) {
    google_breakpad::BasicSourceLineResolver resolver;
    resolver.LoadModuleUsingMemoryBuffer(&code, image.block.get(), image.size);
    benchmark::DoNotOptimize(resolver.HasModule(&code));
  }
  std::clog.clear();
}

std::vector<uint64_t> random_addresses(const benchmark::State& state) {
  std::mt19937_64 random(1);
  const uint64_t end = symbol_text_end(shape_of(state.range(0), state.range(1)));
  std::vector<uint64_t> addresses(1 << 20);
  for (uint64_t& address : addresses) address = 0x1000 + random() % (end - 0x1000);
  return addresses;
}

// All lookups reuse one frame object, as a stack walker would.
template <typename Ask>
void ask_all(benchmark::State& state, Ask ask) {
  const std::vector<uint64_t> addresses = random_addresses(state);
  const Code code;
  google_breakpad::StackFrame frame;
  frame.module = &code;
  size_t i = 0;
  for (auto _ : state) {
    frame.instruction = code.base_address() + addresses[i++ % addresses.size()];
    frame.inlines.clear();
    ask(frame);
    benchmark::DoNotOptimize(frame.function_base);
  }
  state.SetItemsProcessed(state.iterations());
}

// A block that the host has mapped: no check, no index.
void lookup(benchmark::State& state) {
  const Image& image = image_for(state);
  const Code code;
  google_breakpad::BasicSourceLineResolver resolver;
  std::clog.setstate(std::ios::failbit);
  resolver.LoadModuleUsingMemoryBuffer(&code, image.block.get(), image.size);
  std::clog.clear();
  ask_all(state, [&](google_breakpad::StackFrame& frame) { resolver.FillSourceLineInfo(&frame); });
}

using Module = google_breakpad::BasicSourceLineResolver::Module;

// A block with an index, as LoadModule leaves it.
std::unique_ptr<Module> indexed_module(const Image& image) {
  auto module = std::make_unique<Module>("bench");
  module->LoadMapFromMemory(image.block.get(), image.size);
  module->IndexTables();
  return module;
}

void make_index(benchmark::State& state) {
  const Image& image = image_for(state);
  for (auto _ : state) benchmark::DoNotOptimize(indexed_module(image));
}

void lookup_indexed(benchmark::State& state) {
  const auto module = indexed_module(image_for(state));
  ask_all(state, [&](google_breakpad::StackFrame& frame) { module->LookupAddress(&frame); });
}

void rules_indexed(benchmark::State& state) {
  const auto module = indexed_module(image_for(state));
  ask_all(state,
          [&](google_breakpad::StackFrame& frame) { delete module->FindCFIFrameInfo(&frame); });
}

void lookup_array(benchmark::State& state) {
  constexpr size_t kArray = 256;
  const auto module = indexed_module(image_for(state));
  const std::vector<uint64_t> addresses = random_addresses(state);
  std::vector<google_breakpad::ResolvedAddress> answers(kArray);
  google_breakpad::ResolvedInlines inlines;
  size_t at = 0;
  for (auto _ : state) {
    inlines.clear();
    module->LookupAddresses(std::span(addresses).subspan(at, kArray), answers, &inlines);
    benchmark::DoNotOptimize(answers.data());
    at = (at + kArray) % addresses.size();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kArray));
}

// The machine's time for one access to memory that no cache holds: each address comes from the last
// access. On huge pages, like the block.
void random_access(benchmark::State& state) {
  constexpr size_t kLine = 64;
  const size_t bytes = static_cast<size_t>(state.range(0)) << 20;
  const size_t lines = bytes / kLine;
  const symforge_internal::HugePageBlock block(bytes);
  const auto line = [&](uint32_t number) {
    return reinterpret_cast<uint32_t*>(block.data() + number * kLine);
  };
  std::vector<uint32_t> order(lines);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  for (size_t i = 0; i < lines; ++i) *line(order[i]) = order[(i + 1) % lines];
  uint32_t at = 0;
  for (auto _ : state) at = *line(at);
  benchmark::DoNotOptimize(at);
  state.SetItemsProcessed(state.iterations());
}

// The same with addresses that are known before: as many accesses overlap as the machine allows. No
// lookup in a large block can be faster than its misses at this rate.
void parallel_access(benchmark::State& state) {
  constexpr size_t kLine = 64;
  const size_t bytes = static_cast<size_t>(state.range(0)) << 20;
  const symforge_internal::HugePageBlock block(bytes);
  std::memset(block.data(), 1, bytes);
  std::mt19937 random(1);
  std::vector<uint32_t> lines(1 << 20);
  for (uint32_t& line : lines) line = static_cast<uint32_t>(random() % (bytes / kLine));
  uint64_t sum = 0;
  for (auto _ : state) {
    for (const uint32_t line : lines) sum += static_cast<uint8_t>(block.data()[line * kLine]);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"functions", "sites"});
  for (const int functions : {1000, 100000, 1000000}) {
    for (const int sites : {0, 4}) benchmark->Args({functions, sites});
  }
}

BENCHMARK(text_to_symb)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(symb_to_text)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(validate)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(open)->Apply(sizes);
BENCHMARK(random_access)->ArgName("MiB")->Arg(256);
BENCHMARK(parallel_access)->ArgName("MiB")->Arg(256);
BENCHMARK(make_index)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(lookup)->Apply(sizes);
BENCHMARK(lookup_indexed)->Apply(sizes);
BENCHMARK(lookup_array)->Apply(sizes);
BENCHMARK(rules_indexed)->Apply(sizes);

}  // namespace
