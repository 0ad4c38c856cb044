// generate_pdb MEGABYTES PATH: writes PATH.pdb of about that size and the matching image PATH.exe.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/pdb_generator.h"
#include "builders/bytes.h"

int main(int argc, char** argv) {
  const double megabytes = argc == 3 ? std::atof(argv[1]) : 0;
  if (megabytes <= 0) {
    std::fprintf(stderr, "usage: %s MEGABYTES PATH\n", argv[0]);
    return 2;
  }
  const GeneratedPdb generated = generate_pdb(static_cast<uint64_t>(megabytes * 1e6));
  const std::string path = argv[2];
  builders::write_file(path + ".pdb", generated.pdb);
  builders::write_file(path + ".exe", generated.image);
}
