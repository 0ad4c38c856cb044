// Lookups in one module of a resolver by the routes that a plain load does not take: array lookups,
// and lookups by the index of a SYMB block.

#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "google_breakpad/processor/stack_frame.h"
#include "processor/basic_source_line_resolver_module.h"
#include "tests/support/code_module.h"
#include "tests/support/symbols.h"

namespace test_support {

// The results of a lookup that are strings, as one.
inline std::string text_of(const google_breakpad::StackFrame& frame) {
  std::string text = frame.function_name + '@' + std::to_string(frame.function_base) + ' ' +
                     frame.source_file_name + ':' + std::to_string(frame.source_line) + '@' +
                     std::to_string(frame.source_line_base);
  for (const auto& site : frame.inlines) {
    text += '|' + site.name + ' ' + site.source_file_name + ':' + std::to_string(site.source_line);
  }
  return text;
}

class ModuleLookups {
 public:
  // A block must outlive the object.
  ModuleLookups(std::string_view content, bool with_index) : text_(content), module_("tested") {
    const bool is_text = !content.starts_with("SYMB");
    char* buffer = is_text ? text_.data() : const_cast<char*>(content.data());
    module_.LoadMapFromMemory(buffer, content.size() + (is_text ? 1 : 0));
    if (with_index) module_.IndexTables();
  }

  std::string one(uint64_t address) const {
    google_breakpad::StackFrame frame = frame_at(address);
    module_.LookupAddress(&frame);
    return text_of(frame);
  }
  std::vector<std::string> array(const std::vector<uint64_t>& addresses) const {
    std::vector<google_breakpad::ResolvedAddress> answers(addresses.size());
    google_breakpad::ResolvedInlines inlines;
    module_.LookupAddresses(addresses, answers, &inlines);
    std::vector<std::string> texts;
    for (const google_breakpad::ResolvedAddress& answer : answers) {
      google_breakpad::StackFrame frame = frame_at(0);
      const auto first = inlines.begin() + static_cast<ptrdiff_t>(answer.first_inline);
      copy_to_frame(answer, {first, first + answer.inline_count}, &frame);
      texts.push_back(text_of(frame));
    }
    return texts;
  }
  std::string rules(uint64_t address) const {
    const google_breakpad::StackFrame frame = frame_at(address);
    return text_of(
        std::unique_ptr<google_breakpad::CFIFrameInfo>(module_.FindCFIFrameInfo(&frame)).get());
  }

 private:
  google_breakpad::StackFrame frame_at(uint64_t address) const {
    google_breakpad::StackFrame frame;
    frame.module = &code_;
    frame.instruction = address;
    frame.source_file_name = "-";  // shows what is not written
    return frame;
  }

  const TestModule code_{0};
  std::string text_;
  google_breakpad::BasicSourceLineResolver::Module module_;
};

}  // namespace test_support
