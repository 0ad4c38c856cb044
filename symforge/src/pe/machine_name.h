// Names of machines, as MODULE lines have them.

#pragma once

#include <cstdint>

namespace symforge_internal {

// `machine`: IMAGE_FILE_MACHINE_*. Null for a machine without a name here.
const char* machineName(uint16_t machine);

}  // namespace symforge_internal
