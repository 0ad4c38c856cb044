// fuzz_replay TARGET [-m COUNT] [-o] FILE|FOLDER...
//
// The fuzz targets in builds without a fuzzing engine: runs one on each file, and on COUNT
// mutations of each, which are the same in every run. A fault ends the process after the line with
// the name of the file. With -o each mutation is first written to ./fault.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "builders/bytes.h"
#include "fuzz/harness.h"
#include "fuzz/target.h"

namespace {

namespace fs = std::filesystem;

struct Target {
  fuzzing::Run run = nullptr;
  fuzzing::Mutate mutate = nullptr;
};

std::map<std::string_view, Target>& targets() {
  static std::map<std::string_view, Target> by_name;
  return by_name;
}

std::minstd_rand engine;

void run_on(const Target& target, const std::string& input) {
  // A copy of exactly the input's size, so that a sanitizer detects reads beyond it.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  target.run(bytes.data(), bytes.size());
}

std::string mutated(const Target& target, const std::string& seed) {
  constexpr size_t kGrowth = 4096;
  std::string input = seed;
  input.resize(seed.size() + kGrowth);
  auto* const data = reinterpret_cast<uint8_t*>(input.data());
  const auto mutate = [&](size_t size) {
    return target.mutate != nullptr
               ? target.mutate(data, size, input.size(), static_cast<unsigned>(engine()))
               : LLVMFuzzerMutate(data, size, input.size());
  };
  size_t size = seed.size();
  for (unsigned left = 1 + engine() % 4; left > 0; --left) size = mutate(size);
  input.resize(size);
  return input;
}

void replay(const Target& target, const fs::path& file, int mutations, bool keep) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  const std::string seed = builders::read_file(file);
  run_on(target, seed);
  for (int i = 0; i < mutations; ++i) {
    const std::string input = mutated(target, seed);
    if (keep) builders::write_file("fault", input);
    run_on(target, input);
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

bool fuzzing::add_target(const char* name, Run run) {
  targets()[name].run = run;
  return true;
}

bool fuzzing::add_mutator(const char* name, Mutate mutate) {
  targets()[name].mutate = mutate;
  return true;
}

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
  const auto target = targets().find(optind < argc ? argv[optind] : "");
  if (target == targets().end()) return 2;
  int files = 0;
  for (int i = optind + 1; i < argc; ++i) {
    for (const fs::path& file : files_in(argv[i])) {
      replay(target->second, file, mutations, keep);
      ++files;
    }
  }
  std::printf("%d files, %zu runs ended by a documented abort\n", files, fuzzing::aborted_runs());
  return files == 0;
}
