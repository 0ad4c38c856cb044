// Benchmarks of conversions inside one process, without start-up and without writing files: opening
// a PDB, PDB to text, text to SYMB, SYMB to text. The argument is the size of the PDB in MB. Bytes
// per second refer to the input of the conversion. For whole processes see process_bench.cc.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "base/text_buffer.h"
#include "bench/pdb_generator.h"
#include "builders/bytes.h"
#include "common/symb.h"
#include "common/symb_text.h"
#include "symforge/src/PDBParser.h"

using symforge_internal::TextBuffer;

namespace {

// A generated PDB in a temporary directory, and its conversions, each made on first use.
class Input {
 public:
  explicit Input(int64_t megabytes) {
    char folder[] = "/tmp/conversion_bench.XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = std::string(folder) + "/generated";
    GeneratedPdb generated = generate_pdb(static_cast<uint64_t>(megabytes) * 1000000);
    builders::write_file(path_ + ".pdb", generated.pdb);
    builders::write_file(path_ + ".exe", generated.image);
    pdb_bytes_ = generated.pdb.size();
  }
  ~Input() {
    unlink((path_ + ".pdb").c_str());
    unlink((path_ + ".exe").c_str());
    rmdir(path_.substr(0, path_.rfind('/')).c_str());
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  std::string pdb() const { return path_ + ".pdb"; }
  size_t pdb_bytes() const { return pdb_bytes_; }

  TextBuffer& text() {
    if (text_.empty()) {
      symforge_internal::PDBParser parser(true);
      parser.load(pdb().c_str(), nullptr, nullptr, text_);
      parser.printBreakpadSymbols(text_, nullptr);
    }
    return text_;
  }

  const std::string& symb() {
    if (symb_.empty()) {
      char* block = nullptr;
      size_t size = 0;
      if (!symb_write(text().c_str(), &block, &size)) throw std::runtime_error("no SYMB image");
      symb_.assign(block, size);
      delete[] block;
    }
    return symb_;
  }

 private:
  std::string path_;
  size_t pdb_bytes_ = 0;
  TextBuffer text_;
  std::string symb_;
};

Input& input(const benchmark::State& state) {
  static std::map<int64_t, std::unique_ptr<Input>> inputs;
  std::unique_ptr<Input>& found = inputs[state.range(0)];
  if (!found) found = std::make_unique<Input>(state.range(0));
  return *found;
}

void count_bytes(benchmark::State& state, size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

void Open(benchmark::State& state) {
  const std::string path = input(state).pdb();
  for ([[maybe_unused]] auto _ : state) {
    symforge_internal::PDBParser parser(true);
    TextBuffer text;
    parser.load(path.c_str(), nullptr, nullptr, text);
    benchmark::DoNotOptimize(parser.debug_id().data());
  }
}

void PdbToText(benchmark::State& state) {
  Input& from = input(state);
  for ([[maybe_unused]] auto _ : state) {
    symforge_internal::PDBParser parser(true);
    TextBuffer text;
    parser.load(from.pdb().c_str(), nullptr, nullptr, text);
    parser.printBreakpadSymbols(text, nullptr);
    benchmark::DoNotOptimize(text.size());
  }
  count_bytes(state, from.pdb_bytes());
}

void TextToSymb(benchmark::State& state) {
  TextBuffer& text = input(state).text();
  for ([[maybe_unused]] auto _ : state) {
    char* block = nullptr;
    size_t size = 0;
    benchmark::DoNotOptimize(symb_write(text.c_str(), &block, &size));
    delete[] block;
  }
  count_bytes(state, text.size());
}

void SymbToText(benchmark::State& state) {
  const std::string& symb = input(state).symb();
  const std::unique_ptr<char[]> block(new char[symb.size()]);
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    std::copy(symb.begin(), symb.end(), block.get());  // a warm private copy of the image
    state.ResumeTiming();
    TextBuffer text;
    benchmark::DoNotOptimize(symb_read(block.get(), symb.size(), text));
  }
  count_bytes(state, symb.size());
}

void three_sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Unit(benchmark::kMillisecond)->Arg(1)->Arg(20)->Arg(400);
}

BENCHMARK(Open)->Apply(three_sizes);
BENCHMARK(PdbToText)->Apply(three_sizes);
BENCHMARK(TextToSymb)->Apply(three_sizes);
BENCHMARK(SymbToText)->Apply(three_sizes);

}  // namespace
