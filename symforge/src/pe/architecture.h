// The names of processors in the MODULE line.

#pragma once

#include <cstdint>

#include "common/symb_text.h"
#include "symforge/src/WinStructs.h"

namespace symforge_internal {

// The name of a machine of PDB and PE files (IMAGE_FILE_MACHINE_*), "unknown" for all others. The
// default text has no name for ARM64.
inline const char* architectureName(uint16_t machine, TextDialect dialect) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_I386:
      return "x86";
    case IMAGE_FILE_MACHINE_ARM:
      return "arm";
    case IMAGE_FILE_MACHINE_ARM64:
      return dialect == TextDialect::kStandard ? "arm64" : "unknown";
    case IMAGE_FILE_MACHINE_PPC64:
      return "ppc64";
    case IMAGE_FILE_MACHINE_AMD64:
      return "x86_64";
    default:
      return "unknown";
  }
}

}  // namespace symforge_internal
