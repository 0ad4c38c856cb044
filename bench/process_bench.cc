// process_bench SYMFORGE HELPERS WORK RUNS LARGEST [PDB [PE]]: whole-process measurements of every
// conversion of the command line, printed as markdown tables. HELPERS is the directory of
// generate_pdb and floor, WORK a directory for inputs and outputs. Generated PDBs of more than
// LARGEST MB are skipped. Called by scripts/bench.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <string>
#include <vector>

#include "bench/process_runner.h"

namespace {

constexpr int kSizes[] = {5, 98, 498};  // of the generated PDBs, in MB
constexpr double kMegabyte = 1e6;
constexpr double kMebibyte = 1024.0 * 1024.0;

// A PDB to convert. `image` is empty if there is none.
struct Input {
  std::string name;
  std::string pdb;
  std::string image;
  bool has_targets = true;  // whether the targets apply to an input of this size
  bool in_growth = false;
};

// Targets: at most this multiple of the floor for a PDB of about 100 MB or less, and of about 500
// MB. 0 if there is none.
struct Bounds {
  double usual;
  double large;
};

// The time of a conversion, and its lower bound.
struct Time {
  std::string input;
  std::string conversion;
  Usage floor;
  Usage usage;
  double bound;  // one of Bounds
  bool has_targets;
};

struct Memory {
  std::string input;
  std::string conversion;
  double allowed;  // target in bytes; 0 if there is none
  double peak;
  bool has_targets;
};

// The time of one conversion of one input, to compare growth between sizes.
struct Timing {
  std::string conversion;
  uint64_t bytes;
  double seconds;
};

struct Tools {
  std::string symforge;
  std::string helpers;
  std::string work;
  int runs;
};

class Bench {
 public:
  explicit Bench(Tools tools) : tools_(std::move(tools)) {}

  void measure(const Input& input);
  void print() const;

 private:
  void time_row(const Input& input, const char* conversion, const Usage& floor, const Usage& usage,
                const Bounds& bounds);
  void measure_pdb(const Input& input, const std::vector<std::string>& inputs,
                   const std::vector<std::string>& words, uint64_t text_bytes);
  void memory_row(const Input& input, const char* conversion, double allowed, const Usage& usage);
  Command floor(uint64_t bytes, const std::vector<std::string>& inputs) const;
  std::string work(const char* name) const { return tools_.work + "/" + name; }

  Tools tools_;
  std::vector<Time> times_;
  std::vector<Memory> memory_;
  std::vector<Timing> growth_;
  std::vector<std::string> sizes_;
};

Command Bench::floor(uint64_t bytes, const std::vector<std::string>& inputs) const {
  Command command{{tools_.helpers + "/floor", std::to_string(bytes)}, work("floor.out")};
  command.words.insert(command.words.end(), inputs.begin(), inputs.end());
  return command;
}

void Bench::time_row(const Input& input, const char* conversion, const Usage& floor,
                     const Usage& usage, const Bounds& bounds) {
  constexpr double kLarge = 200 * kMegabyte;
  const bool large = static_cast<double>(file_size(input.pdb)) >= kLarge;
  const double bound = large ? bounds.large : bounds.usual;
  times_.push_back({input.name, conversion, floor, usage, bound, input.has_targets && bound != 0});
}

void Bench::memory_row(const Input& input, const char* conversion, double allowed,
                       const Usage& usage) {
  memory_.push_back(
      {input.name, conversion, allowed, static_cast<double>(usage.peak_bytes), input.has_targets});
}

// Both modes on one thread and on two. `words` convert in default mode to `text_bytes` bytes.
void Bench::measure_pdb(const Input& input, const std::vector<std::string>& inputs,
                        const std::vector<std::string>& words, uint64_t text_bytes) {
  const auto with = [&words](std::initializer_list<std::string> options) {
    std::vector<std::string> changed = words;
    changed.insert(changed.begin() + 1, options);
    return changed;
  };
  const std::string standard = work("standard.sym");
  run_once({with({"--standard"}), standard});
  const uint64_t standard_bytes = file_size(standard);
  const std::vector<Usage> usage =
      run_interleaved({floor(text_bytes, inputs),
                       {with({"-j", "2"}), work("f.out")},
                       floor(standard_bytes, inputs),
                       {with({"--standard"}), work("g.out")},
                       {with({"--standard", "-j", "2"}), work("h.out")}},
                      tools_.runs);
  time_row(input, "PDB to text, -j 2", usage[0], usage[1], {0, 0});
  time_row(input, "PDB to text, standard", usage[2], usage[3], {3.0, 3.5});
  time_row(input, "PDB to text, standard, -j 2", usage[2], usage[4], {1.9, 2.2});
  const double bytes = static_cast<double>(file_size(input.pdb));
  const double allowed = bytes + 2.5 * static_cast<double>(standard_bytes) + 16 * kMebibyte;
  memory_row(input, "PDB to text, -j 2", 0, usage[1]);
  memory_row(input, "PDB to text, standard", allowed, usage[3]);
  memory_row(input, "PDB to text, standard, -j 2", allowed, usage[4]);
}

void Bench::measure(const Input& input) {
  const std::string text = work("out.sym");
  const std::string symb = work("out.symb");
  std::vector<std::string> inputs = {input.pdb};
  std::vector<std::string> pdb_words = {tools_.symforge};
  if (!input.image.empty()) {
    inputs.push_back(input.image);
    pdb_words.insert(pdb_words.end(), {"-e", input.image});
  }
  pdb_words.push_back(input.pdb);
  std::vector<std::string> pdb_to_symb = pdb_words;
  pdb_to_symb.insert(pdb_to_symb.begin() + 1, "-b");

  // The outputs are inputs of the reverse conversions. These runs also warm the page cache.
  run_once({pdb_words, text});
  run_once({{tools_.symforge, "-b", text}, symb});
  sync();
  const uint64_t text_bytes = file_size(text);
  const uint64_t input_bytes = file_size(input.pdb);

  measure_pdb(input, inputs, pdb_words, text_bytes);
  const std::vector<Usage> usage = run_interleaved({floor(text_bytes, inputs),
                                                    {pdb_words, work("a.out")},
                                                    {pdb_to_symb, work("b.out")},
                                                    {{"cat", text}, work("c.out")},
                                                    {{tools_.symforge, "-b", text}, work("d.out")},
                                                    floor(text_bytes, {symb}),
                                                    {{tools_.symforge, symb}, work("e.out")}},
                                                   tools_.runs);
  time_row(input, "PDB to text", usage[0], usage[1], {2.0, 2.5});
  time_row(input, "PDB to SYMB", usage[0], usage[2], {3.2, 4.5});
  time_row(input, "text to SYMB", usage[3], usage[4], {3.2, 3.8});
  time_row(input, "SYMB to text", usage[5], usage[6], {1.4, 1.6});
  memory_row(
      input, "PDB to text",
      static_cast<double>(input_bytes) + 1.5 * static_cast<double>(text_bytes) + 16 * kMebibyte,
      usage[1]);
  memory_row(input, "PDB to SYMB", 0, usage[2]);
  memory_row(input, "text to SYMB", 4.0 * static_cast<double>(text_bytes), usage[4]);
  memory_row(input, "SYMB to text", 0, usage[6]);
  if (input.in_growth) {
    growth_.push_back({"PDB to text", input_bytes, usage[1].seconds});
    growth_.push_back({"PDB to SYMB", input_bytes, usage[2].seconds});
    growth_.push_back({"text to SYMB", text_bytes, usage[4].seconds});
    growth_.push_back({"SYMB to text", file_size(symb), usage[6].seconds});
  }
  char sizes[200];
  std::snprintf(sizes, sizeof sizes, "| %s | %.2f | %.2f | %.2f |", input.name.c_str(),
                static_cast<double>(input_bytes) / kMegabyte,
                static_cast<double>(text_bytes) / kMegabyte,
                static_cast<double>(file_size(symb)) / kMegabyte);
  sizes_.emplace_back(sizes);
}

const char* verdict(bool has_targets, bool holds) {
  if (!has_targets) return "";
  return holds ? "holds" : "**missed**";
}

void print_times(const std::vector<Time>& times) {
  std::printf("\n| input | conversion | floor, ms | time, ms | ratio | at most | | CPU ratio |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  for (const Time& time : times) {
    const double ratio = time.usage.seconds / time.floor.seconds;
    char bound[16] = "";
    if (time.bound != 0) std::snprintf(bound, sizeof bound, "%.1f", time.bound);
    std::printf("| %s | %s | %.1f | %.1f | %.2f | %s | %s | %.2f |\n", time.input.c_str(),
                time.conversion.c_str(), time.floor.seconds * 1e3, time.usage.seconds * 1e3, ratio,
                bound, verdict(time.has_targets, ratio <= time.bound),
                time.usage.cpu_seconds / time.floor.cpu_seconds);
  }
}

void print_memory(const std::vector<Memory>& rows) {
  std::printf("\n| input | conversion | peak, MiB | allowed, MiB | |\n|---|---|---|---|---|\n");
  for (const Memory& row : rows) {
    std::printf("| %s | %s | %.1f |", row.input.c_str(), row.conversion.c_str(),
                row.peak / kMebibyte);
    if (row.allowed > 0) {
      std::printf(" %.1f | %s |\n", row.allowed / kMebibyte,
                  verdict(row.has_targets, row.peak <= row.allowed));
    } else {
      std::printf(" | |\n");
    }
  }
}

// Prints the time per byte at the larger of two sizes relative to the smaller one. Both inputs have
// their rows in the same order.
void print_growth(const std::vector<Timing>& timings) {
  std::printf("\n| conversion | growth of input | growth of time | over linear | at most | |\n");
  std::printf("|---|---|---|---|---|---|\n");
  const size_t half = timings.size() / 2;
  for (size_t i = 0; i < half; ++i) {
    const Timing& small = timings[i];
    const Timing& large = timings[half + i];
    const double input = static_cast<double>(large.bytes) / static_cast<double>(small.bytes);
    const double time = large.seconds / small.seconds;
    std::printf("| %s | %.1f | %.1f | %.2f | 1.25 | %s |\n", small.conversion.c_str(), input, time,
                time / input, verdict(true, time / input <= 1.25));
  }
}

void Bench::print() const {
  std::printf("| input | PDB, MB | text, MB | SYMB, MB |\n|---|---|---|---|\n");
  for (const std::string& line : sizes_) std::printf("%s\n", line.c_str());
  print_times(times_);
  const Usage idle = run_once({{tools_.symforge, "-v"}, work("idle.out")});
  std::printf("\nA run that converts nothing peaks at %.1f MiB.\n",
              static_cast<double>(idle.peak_bytes) / kMebibyte);
  print_memory(memory_);
  if (growth_.size() >= 8) print_growth(growth_);
}

// Generated in a separate process because this one has to stay small.
Input generated(const Tools& tools, int megabytes) {
  const std::string size = std::to_string(megabytes);
  const std::string path = tools.work + "/generated" + size;
  run_once({{tools.helpers + "/generate_pdb", size, path}, tools.work + "/generate.out"});
  const bool has_targets = megabytes > kSizes[0];
  return {size + " MB, generated", path + ".pdb", path + ".exe", has_targets, has_targets};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr, "usage: %s SYMFORGE HELPERS WORK RUNS LARGEST [PDB [PE]]\n", argv[0]);
    return 2;
  }
  const Tools tools{argv[1], argv[2], argv[3], std::atoi(argv[4])};
  const int largest = std::atoi(argv[5]);
  try {
    Bench bench(tools);
    if (argc > 6) {
      const std::string pdb = argv[6];
      bench.measure({pdb.substr(pdb.rfind('/') + 1), pdb, argc > 7 ? argv[7] : ""});
    }
    for (const int megabytes : kSizes) {
      if (megabytes <= largest) bench.measure(generated(tools, megabytes));
    }
    bench.print();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
