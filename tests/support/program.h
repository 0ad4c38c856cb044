// For tests of the program as a process: running it, small inputs, and matchers for its output.

#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/data.h"
#include "tests/support/lines.h"
#include "tests/support/process.h"
#include "tests/support/small_files.h"

namespace test_support {

using namespace builders;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

inline const std::string kFixtures = SYMFORGE_FIXTURES "/";
inline const std::string kEngineId = "515D2ED965ADFF5D4C4C44205044422E1";  // of engine64

// A run with this exit status, and with this text or a match of this matcher on standard error.
template <typename Err>
auto ended(int status, Err err) {
  return AllOf(::testing::Field("status", &Result::status, status),
               ::testing::Field("err", &Result::err, err));
}

// A test with a folder of inputs and a symbol tree, both empty.
class ProgramTest : public ::testing::Test {
 protected:
  const TemporaryDirectory temp_;
  const std::string in_ = temp_.folder("in");
  const std::string tree_ = temp_.folder("tree");
};

}  // namespace test_support
