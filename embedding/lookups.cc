// The lookups of the C interface.

#include <algorithm>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <string_view>

#include "embedding/module.h"
#include "embedding/status.h"
#include "embedding/structure.h"
#include "google_breakpad/processor/basic_code_module.h"
#include "google_breakpad/processor/cfi_frame_info.h"
#include "google_breakpad/processor/stack_frame.h"
#include "google_breakpad/processor/windows_frame_info.h"

namespace symforge_internal {

namespace {

using google_breakpad::ResolvedAddress;
using google_breakpad::ResolvedInline;
using google_breakpad::ResolvedInlines;
using google_breakpad::StackFrame;

// How many addresses of an array are looked up together.
constexpr size_t kPortion = 32;

// Strings of a module that was opened by this interface end with a NUL.
const char* c_string(std::string_view text) { return text.data() == nullptr ? "" : text.data(); }

symforge_answer answer_of(const ResolvedAddress& resolved) {
  symforge_answer answer = {};
  if (!resolved.has_function) return answer;
  answer.found = resolved.is_public ? SYMFORGE_FOUND_PUBLIC : SYMFORGE_FOUND_FUNCTION;
  answer.frame_count = resolved.inline_count + 1;
  answer.function_start = resolved.function_base;
  answer.line_start = resolved.has_line ? resolved.line_base : 0;
  answer.function = c_string(resolved.function_name);
  return answer;
}

symforge_frame frame_of(std::string_view name, bool has_file, std::string_view file, int line) {
  symforge_frame frame = {};
  frame.function = c_string(name);
  frame.file = has_file ? c_string(file) : nullptr;
  frame.line = line > 0 ? static_cast<uint32_t>(line) : 0;
  return frame;
}

// Writes answers and frames to the caller's memory.
class AnswerWriter {
 public:
  AnswerWriter(symforge_answer* answers, size_t count, symforge_frame* frames, size_t capacity)
      : answers_(answers, count), frames_(frames, capacity), capacity_(capacity) {}

  size_t capacity() const { return capacity_; }

  // Returns false if the frames do not fit. The answer then says how many there are.
  bool write(size_t index, const ResolvedAddress& resolved, const ResolvedInlines& inlines) {
    symforge_answer answer = answer_of(resolved);
    const bool fits = answer.frame_count <= capacity_ - used_;
    if (fits && answer.frame_count > 0) {
      answer.first_frame = used_;
      for (size_t i = 0; i < resolved.inline_count; ++i) {
        const ResolvedInline& call = inlines[resolved.first_inline + i];
        frames_.set(used_++, frame_of(call.name, !call.source_file.empty(), call.source_file,
                                      call.source_line));
      }
      frames_.set(used_++, frame_of(resolved.function_name, resolved.has_file, resolved.source_file,
                                    resolved.has_line ? resolved.source_line : 0));
    }
    answers_.set(index, answer);
    return fits;
  }

 private:
  CallersArray<symforge_answer> answers_;
  CallersArray<symforge_frame> frames_;
  const size_t capacity_;
  size_t used_ = 0;
};

// A frame for lookups of one address, in a module at address 0.
class FrameAt {
 public:
  explicit FrameAt(uint64_t address) {
    frame_.instruction = address;
    frame_.module = &module_;
  }
  StackFrame* get() { return &frame_; }

 private:
  google_breakpad::BasicCodeModule module_{"", "", 0};
  StackFrame frame_;
};

// Looks up addresses in portions, so that the memory in between does not grow with their number.
template <size_t kCount>
symforge_status resolve(const symforge_module& module, std::span<const uint64_t> addresses,
                        AnswerWriter& writer, size_t* answered) {
  char memory[16 * 1024];
  std::pmr::monotonic_buffer_resource resource(memory, sizeof memory);
  ResolvedInlines inlines(&resource);
  ResolvedAddress resolved[kCount];
  for (size_t done = 0; done < addresses.size();) {
    const size_t count = std::min(kCount, addresses.size() - done);
    inlines.clear();
    module.contents.symbols().LookupAddresses(addresses.subspan(done, count), {resolved, count},
                                              &inlines);
    for (size_t i = 0; i < count; ++i, ++done) {
      *answered = done;
      if (!writer.write(done, resolved[i], inlines)) {
        return fail(SYMFORGE_ERROR_TOO_SMALL, "%zu frames are not enough for %u more",
                    writer.capacity(), resolved[i].inline_count + 1);
      }
    }
  }
  *answered = addresses.size();
  return SYMFORGE_OK;
}

symforge_status too_small(const char* what, uint64_t needed) {
  return fail(SYMFORGE_ERROR_TOO_SMALL, "the %s needs %llu bytes", what,
              static_cast<unsigned long long>(needed));
}

symforge_frame_data frame_data_of(const google_breakpad::WindowsFrameInfo& found) {
  symforge_frame_data data = {};
  data.type = found.type_;
  data.prolog_size = found.prolog_size;
  data.epilog_size = found.epilog_size;
  data.parameter_size = found.parameter_size;
  data.saved_register_size = found.saved_register_size;
  data.local_size = found.local_size;
  data.max_stack_size = found.max_stack_size;
  data.allocates_base_pointer = found.allocates_base_pointer ? 1 : 0;
  data.text_size = found.program_string.size() + 1;
  return data;
}

// Calls `take` for each rule in the documented order.
template <typename Take>
void for_each_rule(const google_breakpad::CFIFrameInfo& found, Take take) {
  if (!found.cfa_rule().empty()) take(".cfa", found.cfa_rule());
  if (!found.ra_rule().empty()) take(".ra", found.ra_rule());
  for (const auto& [name, expression] : found.register_rules()) take(name, expression);
}

}  // namespace

}  // namespace symforge_internal

using symforge_internal::AnswerWriter;
using symforge_internal::fail;
using symforge_internal::guarded;
using symforge_internal::has_size;

namespace {

symforge_status wrong_argument(const char* operation) {
  return fail(SYMFORGE_ERROR_ARGUMENT, "%s: null argument or wrong size of a structure", operation);
}

bool is_array(const symforge_frame* frames, size_t capacity) {
  return capacity == 0 || has_size(frames);
}

}  // namespace

symforge_status symforge_resolve(const symforge_module* module, uint64_t address,
                                 symforge_answer* answer, symforge_frame* frames,
                                 size_t frame_capacity) {
  if (module == nullptr || !has_size(answer) || !is_array(frames, frame_capacity)) {
    return wrong_argument("symforge_resolve");
  }
  return guarded([&] {
    AnswerWriter writer(answer, 1, frames, frame_capacity);
    size_t answered = 0;
    return resolve<1>(*module, {&address, 1}, writer, &answered);
  });
}

symforge_status symforge_resolve_array(const symforge_module* module, const uint64_t* addresses,
                                       size_t count, symforge_answer* answers,
                                       symforge_frame* frames, size_t frame_capacity,
                                       size_t* answered) {
  size_t ignored = 0;
  if (answered == nullptr) answered = &ignored;
  *answered = 0;
  const bool has_arrays = count == 0 || (addresses != nullptr && has_size(answers));
  if (module == nullptr || !has_arrays || !is_array(frames, frame_capacity)) {
    return wrong_argument("symforge_resolve_array");
  }
  return guarded([&] {
    AnswerWriter writer(answers, count, frames, frame_capacity);
    return resolve<symforge_internal::kPortion>(*module, {addresses, count}, writer, answered);
  });
}

symforge_status symforge_find_frame_data(const symforge_module* module, uint64_t address,
                                         symforge_frame_data* data, char* text,
                                         size_t text_capacity) {
  if (module == nullptr || !has_size(data) || (text == nullptr && text_capacity > 0)) {
    return wrong_argument("symforge_find_frame_data");
  }
  return guarded([&]() -> symforge_status {
    using google_breakpad::WindowsFrameInfo;
    symforge_internal::store(symforge_frame_data(), data->size, data);
    symforge_internal::FrameAt frame(address);
    const std::unique_ptr<WindowsFrameInfo> found(
        module->contents.symbols().FindWindowsFrameInfo(frame.get()));
    if (!found) return fail(SYMFORGE_ERROR_NOT_FOUND, "no frame data for the address");
    const symforge_frame_data result = symforge_internal::frame_data_of(*found);
    symforge_internal::store(result, data->size, data);
    if (result.text_size > text_capacity) {
      return symforge_internal::too_small("program", result.text_size);
    }
    std::memcpy(text, found->program_string.c_str(), result.text_size);
    return SYMFORGE_OK;
  });
}

symforge_status symforge_find_frame_rules(const symforge_module* module, uint64_t address,
                                          symforge_frame_rules* rules, char* text,
                                          size_t text_capacity) {
  if (module == nullptr || !has_size(rules) || (text == nullptr && text_capacity > 0)) {
    return wrong_argument("symforge_find_frame_rules");
  }
  return guarded([&]() -> symforge_status {
    symforge_internal::store(symforge_frame_rules(), rules->size, rules);
    symforge_internal::FrameAt frame(address);
    const std::unique_ptr<google_breakpad::CFIFrameInfo> found(
        module->contents.symbols().FindCFIFrameInfo(frame.get()));
    if (!found) return fail(SYMFORGE_ERROR_NOT_FOUND, "no call frame rules for the address");
    symforge_frame_rules result = {};
    symforge_internal::for_each_rule(*found, [&](std::string_view name, std::string_view rule) {
      ++result.rule_count;
      result.text_size += name.size() + rule.size() + 2;
    });
    symforge_internal::store(result, rules->size, rules);
    if (result.text_size > text_capacity) {
      return symforge_internal::too_small("text of the rules", result.text_size);
    }
    symforge_internal::for_each_rule(*found, [&](std::string_view name, std::string_view rule) {
      for (const std::string_view part : {name, rule}) {
        text = std::copy(part.begin(), part.end(), text);
        *text++ = '\0';
      }
    });
    return SYMFORGE_OK;
  });
}
