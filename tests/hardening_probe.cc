// A program whose machine code shows hardening_test the build's flags: hardening_probe SIZE copies
// SIZE bytes into a block of 8.

#include <cstdio>
#include <cstdlib>
#include <cstring>

// The frame has several pages, which -fstack-clash-protection probes one by one.
extern "C" __attribute__((noinline)) char large_frame(const char* text) {
  char frame[64 * 1024];
  std::snprintf(frame, sizeof(frame), "%s", text);
  return frame[0];
}

// The size of the block is only known at run time: _FORTIFY_SOURCE checks it from level 3.
extern "C" __attribute__((noinline)) char* copy(const char* from, size_t size, size_t block_size) {
  char* const block = static_cast<char*>(std::malloc(block_size));
  if (block != nullptr) {
    std::memcpy(block, from, size);
  }
  return block;
}

int main(int argc, char** argv) {
  static const char source[64] = {};
  const size_t size = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
  if (size > sizeof(source)) {
    return 1;
  }
  char* const block = copy(source, size, static_cast<size_t>(argc) * 4);
  std::printf("%p %d\n", static_cast<void*>(block), large_frame(argv[0]));
  std::free(block);
}
