// A resolver with one loaded module, for lookups of addresses relative to that module.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "builders/guarded_block.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "google_breakpad/processor/cfi_frame_info.h"
#include "tests/support/code_module.h"

namespace test_support {

// The rules as one text; empty if there are none.
inline std::string text_of(const google_breakpad::CFIFrameInfo* info) {
  if (info == nullptr) return {};
  std::string text = ".cfa: " + info->cfa_rule() + " .ra: " + info->ra_rule();
  for (const auto& [name, rule] : info->register_rules()) text += ' ' + name + ": " + rule;
  return text;
}

class Symbols {
 public:
  // Loads text, or a SYMB block that has passed symb_validate(), at `base`. Text is freed after
  // loading, a block is read-only from the start; both end at an inaccessible page.
  explicit Symbols(std::string_view content, uint64_t base = 0) : module_(base) {
    const bool is_text = !content.starts_with("SYMB");
    block_.emplace(is_text ? std::string(content) + '\0' : std::string(content));
    if (!is_text) block_->make_read_only();
    if (!resolver_.LoadModuleUsingMemoryBuffer(&module_, block_->data(), block_->size()))
      throw std::runtime_error("a load does not fail");
    if (is_text) block_.reset();
  }

  google_breakpad::StackFrame frame(uint64_t address) const {
    google_breakpad::StackFrame frame = question(address);
    resolver_.FillSourceLineInfo(&frame);
    return frame;
  }
  // Null if there is none.
  std::unique_ptr<google_breakpad::WindowsFrameInfo> windows(uint64_t address) const {
    const google_breakpad::StackFrame frame = question(address);
    return std::unique_ptr<google_breakpad::WindowsFrameInfo>(
        resolver_.FindWindowsFrameInfo(&frame));
  }
  std::string cfi(uint64_t address) const {
    const google_breakpad::StackFrame frame = question(address);
    return text_of(
        std::unique_ptr<google_breakpad::CFIFrameInfo>(resolver_.FindCFIFrameInfo(&frame)).get());
  }

 private:
  // Different from all values that a lookup writes, so that missing writes are detected.
  google_breakpad::StackFrame question(uint64_t address) const {
    google_breakpad::StackFrame frame;
    frame.module = &module_;
    frame.instruction = module_.base_address() + address;
    frame.source_file_name = "-";
    frame.source_line = -1;
    return frame;
  }

  const TestModule module_;
  std::optional<builders::GuardedBlock> block_;
  mutable google_breakpad::BasicSourceLineResolver resolver_;
};

}  // namespace test_support
