#include "symforge/src/pdb/debug_id.h"

#include <cstdio>

namespace symforge_internal {

std::string formatDebugId(const GUID& guid, uint32_t age) {
  char text[64];
  const uint8_t* d = guid.Data4;
  std::snprintf(text, sizeof(text), "%08X%04X%04X%02X%02X%02X%02X%02X%02X%02X%02X%x",
                uint32_t{guid.Data1}, uint32_t{guid.Data2}, uint32_t{guid.Data3}, d[0], d[1], d[2],
                d[3], d[4], d[5], d[6], d[7], age);
  return text;
}

}  // namespace symforge_internal
