// Texts and tables that tests read from tests/data.

#pragma once

#include <string>

#include "builders/bytes.h"

namespace test_support {

inline std::string test_data(const std::string& name) {
  return builders::read_file(SYMFORGE_TEST_DATA "/" + name);
}

}  // namespace test_support
