// A code module for tests and benchmarks of the resolver. It is the only support file that
// implements an interface of the program.

#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "google_breakpad/processor/code_module.h"

namespace test_support {

class TestModule : public google_breakpad::CodeModule {
 public:
  explicit TestModule(uint64_t base, std::string debug_identifier = "0123")
      : base_(base), debug_identifier_(std::move(debug_identifier)) {}
  uint64_t base_address() const override { return base_; }
  uint64_t size() const override { return 0; }
  std::string code_file() const override { return "a.exe"; }
  std::string code_identifier() const override { return ""; }
  std::string debug_file() const override { return "a.pdb"; }
  std::string debug_identifier() const override { return debug_identifier_; }
  std::string version() const override { return ""; }
  CodeModule* Copy() const override { return new TestModule(*this); }
  uint64_t shrink_down_delta() const override { return 0; }
  void SetShrinkDownDelta(uint64_t) override {}
  bool is_unloaded() const override { return false; }

 private:
  uint64_t base_;
  std::string debug_identifier_;
};

}  // namespace test_support
