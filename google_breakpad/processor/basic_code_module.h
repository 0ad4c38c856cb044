// BasicCodeModule: a code module that is a plain value, for hosts that need no class of their own.

#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "google_breakpad/processor/code_module.h"

namespace google_breakpad {

// Set what you know. The resolver needs the debug identifier and the base address.
class BasicCodeModule : public CodeModule {
 public:
  BasicCodeModule(std::string debug_file, std::string debug_identifier, uint64_t base_address)
      : base_address_(base_address),
        debug_file_(std::move(debug_file)),
        debug_identifier_(std::move(debug_identifier)) {}

  void set_size(uint64_t size) { size_ = size; }
  void set_code_file(std::string code_file) { code_file_ = std::move(code_file); }
  void set_code_identifier(std::string identifier) { code_identifier_ = std::move(identifier); }
  void set_version(std::string version) { version_ = std::move(version); }
  void set_is_unloaded(bool is_unloaded) { is_unloaded_ = is_unloaded; }

  uint64_t base_address() const override { return base_address_; }
  uint64_t size() const override { return size_; }
  // The debug file if no code file is set, because log lines show it.
  std::string code_file() const override { return code_file_.empty() ? debug_file_ : code_file_; }
  std::string code_identifier() const override { return code_identifier_; }
  std::string debug_file() const override { return debug_file_; }
  std::string debug_identifier() const override { return debug_identifier_; }
  std::string version() const override { return version_; }
  CodeModule* Copy() const override { return new BasicCodeModule(*this); }
  uint64_t shrink_down_delta() const override { return shrink_down_delta_; }
  void SetShrinkDownDelta(uint64_t shrink_down_delta) override {
    shrink_down_delta_ = shrink_down_delta;
  }
  bool is_unloaded() const override { return is_unloaded_; }

 private:
  uint64_t base_address_;
  uint64_t size_ = 0;
  uint64_t shrink_down_delta_ = 0;
  bool is_unloaded_ = false;
  std::string code_file_;
  std::string code_identifier_;
  std::string debug_file_;
  std::string debug_identifier_;
  std::string version_;
};

}  // namespace google_breakpad
