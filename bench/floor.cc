// floor BYTES INPUT...: reads the inputs and writes BYTES bytes to standard output in large blocks.
// Any converter has to do at least that; scripts/bench reports times relative to it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr size_t kPiece = size_t{1} << 20;

bool read_all(const char* path, char* buffer) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  ssize_t count;
  while ((count = read(file, buffer, kPiece)) > 0) {
  }
  close(file);
  return count == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const auto buffer = std::make_unique<char[]>(kPiece);
  for (int i = 2; i < argc; ++i) {
    if (!read_all(argv[i], buffer.get())) {
      std::perror(argv[i]);
      return 1;
    }
  }
  for (size_t left = std::strtoull(argv[1], nullptr, 10); left > 0;) {
    const ssize_t count = write(STDOUT_FILENO, buffer.get(), std::min(left, kPiece));
    if (count < 0) return 1;
    left -= static_cast<size_t>(count);
  }
}
