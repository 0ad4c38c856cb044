// A host of the C interface with an untrusted symbol file in memory, text or SYMB: opens it,
// resolves addresses one by one and as an array, and asks for unwind data. Everything stays within
// its limits, and the answers are those of the resolver in C++.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/lookup_limits.h"
#include "common/symb.h"
#include "common/symb_safety.h"
#include "fuzz/addresses.h"
#include "fuzz/harness.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "symforge/symforge.h"
#include "tests/support/code_module.h"

using fuzzing::bounded;
using fuzzing::require;
using google_breakpad::BasicSourceLineResolver;
using google_breakpad::CFIFrameInfo;
using google_breakpad::StackFrame;
using google_breakpad::WindowsFrameInfo;

namespace {

constexpr double kSeconds = 0.010;
constexpr size_t kBytes = 16 * fuzzing::kMebibyte;
constexpr size_t kMostAddresses = 60;

const test_support::TestModule kModule(0);

// The resolver truncates very long names, the C interface does not.
bool same(const char* string, const std::string& expected) {
  return std::string_view(string, strnlen(string, symforge_internal::kMaxStringBytes)) == expected;
}

bool same_position(const symforge_frame& frame, const std::string& file, int line) {
  return same(frame.file == nullptr ? "" : frame.file, file) &&
         frame.line == static_cast<uint32_t>(std::max(line, 0));
}

void compare(const symforge_answer& answer, const symforge_frame* frames, const StackFrame& frame) {
  if (answer.found == SYMFORGE_FOUND_NOTHING) {
    require(frame.function_name.empty() && answer.frame_count == 0, "one answer of nothing");
    return;
  }
  require(same(answer.function, frame.function_name), "one function");
  require(answer.function_start == frame.function_base, "one start");
  require(answer.line_start == frame.source_line_base, "one start of the line");
  require(answer.frame_count == frame.inlines.size() + 1, "one number of frames");
  for (size_t i = 0; i < frame.inlines.size(); ++i) {
    const StackFrame::Inline& call = frame.inlines[i];
    require(same(frames[i].function, call.name), "one inlined function");
    require(same_position(frames[i], call.source_file_name, call.source_line), "its position");
  }
  require(same_position(frames[frame.inlines.size()], frame.source_file_name, frame.source_line),
          "one position");
}

// The capacity that one lookup needs, and then its answer.
void ask(const symforge_module* module, uint64_t address, BasicSourceLineResolver& resolver) {
  symforge_answer answer = {};
  answer.size = sizeof answer;
  std::vector<symforge_frame> frames(2);
  frames[0].size = sizeof frames[0];
  symforge_status status = SYMFORGE_OK;
  const auto resolve = [&] {
    status = symforge_resolve(module, address, &answer, frames.data(), frames.size());
  };
  bounded("a lookup", kSeconds, kBytes, resolve);
  if (status == SYMFORGE_ERROR_TOO_SMALL) {
    require(answer.frame_count > frames.size(), "more frames are needed");
    frames.resize(answer.frame_count);
    frames[0].size = sizeof frames[0];
    bounded("a lookup", kSeconds, kBytes, resolve);
  }
  require(status == SYMFORGE_OK, "a lookup succeeds");
  StackFrame frame;
  frame.module = &kModule;
  frame.instruction = address;
  resolver.FillSourceLineInfo(&frame);
  compare(answer, frames.data(), frame);
}

void ask_unwind(const symforge_module* module, uint64_t address,
                BasicSourceLineResolver& resolver) {
  StackFrame frame;
  frame.module = &kModule;
  frame.instruction = address;
  std::vector<char> text(64);
  symforge_frame_data data = {};
  data.size = sizeof data;
  symforge_status status = SYMFORGE_OK;
  const auto find_data = [&] {
    status = symforge_find_frame_data(module, address, &data, text.data(), text.size());
  };
  bounded("a STACK WIN lookup", kSeconds, kBytes, find_data);
  if (status == SYMFORGE_ERROR_TOO_SMALL) {
    text.resize(data.text_size);
    find_data();
  }
  const std::unique_ptr<WindowsFrameInfo> windows(resolver.FindWindowsFrameInfo(&frame));
  require((status == SYMFORGE_OK) == (windows != nullptr), "one result of frame data");
  if (windows != nullptr) {
    require(data.type == windows->type_ && data.parameter_size == windows->parameter_size &&
                windows->program_string == text.data(),
            "one record of frame data");
  }

  symforge_frame_rules rules = {};
  rules.size = sizeof rules;
  const auto find_rules = [&] {
    status = symforge_find_frame_rules(module, address, &rules, text.data(), text.size());
  };
  bounded("a STACK CFI lookup", kSeconds, kBytes, find_rules);
  if (status == SYMFORGE_ERROR_TOO_SMALL) {
    text.resize(rules.text_size);
    find_rules();
  }
  const std::unique_ptr<CFIFrameInfo> cfi(resolver.FindCFIFrameInfo(&frame));
  require((status == SYMFORGE_OK) == (cfi != nullptr), "one result of rules");
  if (cfi == nullptr) return;
  const size_t expected =
      cfi->register_rules().size() + !cfi->cfa_rule().empty() + !cfi->ra_rule().empty();
  require(rules.rule_count == expected, "one number of rules");
  require(static_cast<size_t>(std::count(
              text.begin(), text.begin() + static_cast<ptrdiff_t>(rules.text_size), '\0')) ==
              2 * expected,
          "two strings a rule");
}

void ask_array(const symforge_module* module, const std::vector<uint64_t>& addresses) {
  std::vector<symforge_answer> answers(addresses.size());
  answers[0].size = sizeof answers[0];
  std::vector<symforge_frame> frames(3);
  frames[0].size = sizeof frames[0];
  size_t answered = 0;
  const symforge_status status =
      symforge_resolve_array(module, addresses.data(), addresses.size(), answers.data(),
                             frames.data(), frames.size(), &answered);
  require(status == SYMFORGE_OK ? answered == addresses.size()
                                : status == SYMFORGE_ERROR_TOO_SMALL && answered < addresses.size(),
          "all answers, or those that fit");
}

}  // namespace

FUZZ_TARGET(embedding)(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const bool is_symb = content.starts_with("SYMB");
  symforge_module* opened = nullptr;
  symforge_status status = SYMFORGE_OK;
  bounded("a load", 0.1 + 2e-6 * static_cast<double>(size), 64 * fuzzing::kMebibyte + 6 * size,
          [&] { status = symforge_module_open_memory(data, size, &opened); });
  require((status == SYMFORGE_OK) == (opened != nullptr), "a module or an error");
  require(opened != nullptr || status == SYMFORGE_ERROR_FORMAT, "an error of the format");
  if (is_symb) {
    const bool valid = symb_validate(reinterpret_cast<uint64_t>(data), size) &&
                       symforge_internal::symb_check_safety(content.data(), size);
    require((opened != nullptr) == valid, "valid blocks open");
  }
  const std::unique_ptr<symforge_module, decltype(&symforge_module_close)> module(
      opened, symforge_module_close);
  if (module == nullptr) return 0;

  symforge_module_info info = {};
  info.size = sizeof info;
  require(symforge_module_get_info(module.get(), &info) == SYMFORGE_OK, "information");
  require(info.debug_file != nullptr && info.code_file != nullptr, "names");
  BasicSourceLineResolver resolver;
  require(resolver.LoadModuleUsingMapBuffer(&kModule, content), "what opens here loads in C++");
  std::vector<uint64_t> addresses =
      is_symb ? fuzzing::words_in(content, kMostAddresses) : fuzzing::addresses_in(content);
  addresses.push_back(0);
  addresses.resize(std::min(addresses.size(), kMostAddresses));
  for (const uint64_t address : addresses) {
    ask(module.get(), address, resolver);
    ask_unwind(module.get(), address, resolver);
  }
  ask_array(module.get(), addresses);
  return 0;
}
