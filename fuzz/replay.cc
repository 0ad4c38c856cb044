// fuzz_TARGET [-m COUNT] [-o] FILE|FOLDER...
//
// The main() of a fuzz target in builds without a fuzzing engine: runs the target on each file, and
// on COUNT mutations of each, which are the same in every run. A fault ends the process after the
// line with the name of the file. With -o each mutation is first written to ./fault.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "builders/bytes.h"
#include "fuzz/harness.h"
#include "fuzz/mutate.h"

namespace {

namespace fs = std::filesystem;

std::minstd_rand engine;

void run(const std::string& input) {
  // A copy of exactly the input's size, so that a sanitizer detects reads beyond it.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

std::string mutated(const std::string& seed) {
  constexpr size_t kGrowth = 4096;
  std::string input = seed;
  input.resize(seed.size() + kGrowth);
  auto* const data = reinterpret_cast<uint8_t*>(input.data());
  const auto mutate = [&](size_t size) {
    return LLVMFuzzerCustomMutator != nullptr
               ? LLVMFuzzerCustomMutator(data, size, input.size(), static_cast<unsigned>(engine()))
               : LLVMFuzzerMutate(data, size, input.size());
  };
  size_t size = seed.size();
  for (unsigned left = 1 + engine() % 4; left > 0; --left) size = mutate(size);
  input.resize(size);
  return input;
}

void replay(const fs::path& file, int mutations, bool keep) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  const std::string seed = builders::read_file(file);
  run(seed);
  for (int i = 0; i < mutations; ++i) {
    const std::string input = mutated(seed);
    if (keep) builders::write_file("fault", input);
    run(input);
  }
}

std::vector<fs::path> files_in(const char* path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(path)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

// Changes a byte, removes or duplicates a range, or inserts a number.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size) {
  constexpr uint32_t kNumbers[] = {0,      1,          0x7FFFFFFF, 0x80000000,
                                   0xFFFF, 0xFFFFFFFF, 0x10000,    0xFFFFFFF0};
  if (size == 0) return 0;
  const size_t at = engine() % size;
  const size_t length = std::min<size_t>(1 + engine() % 16, size - at);
  switch (engine() % 4) {
    case 0:
      data[at] = static_cast<uint8_t>(engine());
      return size;
    case 1:
      std::copy(data + at + length, data + size, data + at);
      return size - length;
    case 2:
      if (size + length > max_size) return size;
      std::copy_backward(data + at, data + size, data + size + length);
      return size + length;
    default:
      const uint32_t number = kNumbers[engine() % std::size(kNumbers)];
      for (size_t i = 0; i < 4 && at + i < size; ++i)
        data[at + i] = static_cast<uint8_t>(number >> (8 * i));
      return size;
  }
}

int main(int argc, char** argv) {
  int mutations = 0;
  bool keep = false;
  for (int option; (option = getopt(argc, argv, "m:o")) != -1;) {
    if (option == '?') return 2;
    if (option == 'm') mutations = std::atoi(optarg);
    if (option == 'o') keep = true;
  }
  int files = 0;
  for (int i = optind; i < argc; ++i) {
    for (const fs::path& file : files_in(argv[i])) {
      replay(file, mutations, keep);
      ++files;
    }
  }
  std::printf("%d files, %zu runs ended by a documented abort\n", files, fuzzing::aborted_runs());
  return files == 0;
}
