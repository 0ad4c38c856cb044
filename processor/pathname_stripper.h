// PathnameStripper: the last component of a Windows or Unix path.

#pragma once

#include <string>

namespace google_breakpad {

class PathnameStripper {
 public:
  // Returns the part after the last '/' or '\', or the whole path if it has neither. The result is
  // empty if the path ends in a separator.
  static std::string File(const std::string& path);
};

}  // namespace google_breakpad
