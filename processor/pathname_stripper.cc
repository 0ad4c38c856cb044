#include "processor/pathname_stripper.h"

namespace google_breakpad {

std::string PathnameStripper::File(const std::string& path) {
  const size_t separator = path.find_last_of("/\\");
  return separator == std::string::npos ? path : path.substr(separator + 1);
}

}  // namespace google_breakpad
