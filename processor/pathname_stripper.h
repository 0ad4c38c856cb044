// PathnameStripper: the last component of a path of either system.

#pragma once

#include <string>

namespace google_breakpad {

class PathnameStripper {
 public:
  // What follows the last '/' or '\', whichever stands later; the path itself if it has neither.
  // A path that ends in a separator gives the empty string.
  static std::string File(const std::string& path);
};

}  // namespace google_breakpad
