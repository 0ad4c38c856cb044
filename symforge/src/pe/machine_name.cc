#include "symforge/src/pe/machine_name.h"

#include "symforge/src/WinStructs.h"

namespace symforge_internal {

const char* machineName(uint16_t machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_I386:
      return "x86";
    case IMAGE_FILE_MACHINE_ARM:
      return "arm";
    case IMAGE_FILE_MACHINE_ARM64:
      return "arm64";
    case IMAGE_FILE_MACHINE_PPC64:
      return "ppc64";
    case IMAGE_FILE_MACHINE_AMD64:
      return "x86_64";
    default:
      return nullptr;
  }
}

}  // namespace symforge_internal
