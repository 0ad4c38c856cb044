// A conversion with several threads does not differ from one with one thread: not in its result,
// its messages or its status, whatever the file.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "builders/bytes.h"
#include "tests/support/data.h"
#include "tests/support/process.h"

namespace {

using namespace test_support;

// Without the addresses of the backtrace, which differ between processes.
std::string comparable(const std::string& messages) {
  return without(messages, "\\[0x[0-9a-f]+\\]");
}

void expect_same(const std::string& pdb, const std::string& image) {
  for (const char* mode : {"--no-sync", "--standard", "-b", "-i"}) {
    std::vector<std::string> words = {mode, pdb};
    if (!image.empty()) words.insert(words.begin(), {"-e", image});
    const Result one = run(words);
    words.insert(words.begin(), {"-j", "3"});
    const Result three = run(words);
    EXPECT_EQ(one.status, three.status) << mode;
    EXPECT_EQ(comparable(one.err), comparable(three.err)) << mode;
    EXPECT_TRUE(one.out == three.out) << mode;
  }
}

TEST(JobsTest, DoNotChangeAConversion) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(SYMFORGE_FIXTURES)) {
    if (entry.path().extension() != ".pdb") continue;
    SCOPED_TRACE(entry.path());
    std::filesystem::path image = entry.path();
    image.replace_extension(".dll");
    if (!exists(image)) image.replace_extension(".exe");
    expect_same(entry.path(), image);
  }
}

// Damage is met by a worker: in an exception, a warning, a failed check or a limit.
TEST(JobsTest, DoNotChangeWhatIsSaidOfDamagedFiles) {
  const TemporaryDirectory temp;
  std::mt19937 random(8);
  const std::string sound = builders::read_file(SYMFORGE_FIXTURES "/engine64.pdb");
  for (int mutant = 0; mutant < (kSlowProgram ? 8 : 24); ++mutant) {
    SCOPED_TRACE(mutant);
    std::string damaged = sound;
    for (uint32_t faults = 1 + random() % 40; faults != 0; --faults) {
      // The first page is the container's.
      const size_t at = 4096 + random() % (damaged.size() - 4096);
      damaged[at] = static_cast<char>(random() % 3 == 0 ? 0xFF : random() % 256);
    }
    expect_same(temp.file("damaged.pdb", damaged), "");
  }
}

}  // namespace
