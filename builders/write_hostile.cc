// write_hostile SIZE DIRECTORY: writes the hostile files of that size to a directory.

#include <cstdlib>
#include <string>

#include "builders/bytes.h"
#include "builders/hostile.h"

int main(int argc, char** argv) {
  const size_t size = argc == 3 ? std::strtoul(argv[1], nullptr, 10) : 0;
  if (size < 32 * 1024) return 2;
  for (const auto& files :
       {builders::hostile_files(size), builders::hostile_standard_files(size)}) {
    for (const builders::HostileFile& file : files) {
      builders::write_file(std::string(argv[2]) + "/" + file.name, file.bytes);
    }
  }
  return 0;
}
