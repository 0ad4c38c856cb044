#include "symforge/src/driver/convert.h"

#include <execinfo.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "base/limits.h"
#include "base/printable.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/held_warnings.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/sandbox.h"
#include "symforge/src/driver/sandbox_rights.h"
#include "symforge/src/driver/symbol_text.h"
#include "symforge/src/driver/write_result.h"

bool do_inline = true;

namespace symforge_internal {

namespace {

constexpr int kMaxFrames = 20;

struct Frames {
  void* addresses[kMaxFrames];
  int count = 0;
};

_Unwind_Reason_Code add_frame(_Unwind_Context* context, void* argument) {
  auto& frames = *static_cast<Frames*>(argument);
  const uintptr_t address = _Unwind_GetIP(context);
  if (frames.count == kMaxFrames || address == 0) return _URC_END_OF_STACK;
  frames.addresses[frames.count++] = reinterpret_cast<void*>(address);
  return _URC_NO_REASON;
}

// The innermost frames of the call stack, a line each. Does not use backtrace(), which loads a
// library: a sandboxed conversion cannot.
std::string backtrace_text() {
  Frames frames;
  _Unwind_Backtrace(add_frame, &frames);
  char** const names = backtrace_symbols(frames.addresses, frames.count);
  std::string text;
  for (int i = 0; names != nullptr && i < frames.count; ++i) {
    text.append("\t").append(names[i]).append("\n");
  }
  std::free(names);
  return text;
}

// How many threads help with a conversion; 0: none.
unsigned worker_threads(const OpenedInput& opened, const ConversionOptions& options) {
  constexpr unsigned kMost = 64;  // what is done by one thread would take most of the time
  const unsigned jobs = std::min(resolved_jobs(options.jobs), kMost);
  return opened.kind() == OpenedInput::Kind::kPdb && jobs > 1 ? jobs : 0;
}

// True if the input was converted to text; `written`: whether that was written.
bool convert_to_result(const ConversionInput& input, const ConversionOptions& options,
                       bool& written) {
  OpenedInput opened(input);
  if (!opened.open(options)) return false;
  // A sandboxed process cannot start threads, so they come first; each drops its rights itself.
  std::optional<WorkerPool> workers;
  if (const unsigned threads = worker_threads(opened, options)) workers.emplace(threads);
  WorkerPool* const pool = workers ? &*workers : nullptr;
  if (options.sandbox) {
    prepare_for_sandbox(opened, options);
    const SandboxRights rights = sandbox_rights(opened, options);
    if (pool != nullptr) pool->run([&rights](unsigned) { enter_sandbox(rights); });
    enter_sandbox(rights);
  }
  SymbolText result;
  if (!text_of(opened, options, pool, result)) return false;
  // Workers release the mapping of the PDB while the result is written.
  std::shared_ptr<void> source = std::move(result.source);
  std::optional<WorkerRun> release;
  if (pool != nullptr) {
    release.emplace(*pool, [&source](unsigned worker) {
      if (worker == 0) source.reset();
    });
  }
  written = write_result(std::move(result), options);
  return true;
}

// One line for a conversion that failed, with the last warning, which is often the reason.
void report_failure(const char* what, const HeldWarnings& warnings) {
  const std::string reason = warnings.last();
  if (reason.empty()) {
    report("%s", printable(what).c_str());
  } else {
    report("%s (%s)", printable(what).c_str(), printable(reason).c_str());
  }
}

// Catches every exception: damaged files can cause any of them.
bool convert_standard(const ConversionInput& input, const ConversionOptions& options) {
  HeldWarnings warnings;
  try {
    bool written = false;
    const bool converted = convert_to_result(input, options, written) && written;
    if (converted) warnings.pass_on();
    return converted;
  } catch (const pdb_exception& e) {
    report_failure(e.what(), warnings);
  } catch (const LimitExceeded& e) {
    report_failure(e.what(), warnings);
  } catch (const std::bad_alloc&) {
    report("not enough memory");
  } catch (const std::exception& e) {
    report_failure((std::string("damaged file: ") + e.what()).c_str(), warnings);
  }
  return false;
}

void report_exception(const ConversionInput& input, const std::exception& e) {
  report("Failed to convert symbol file %s.\nException caught: %s\nBacktrace:\n%s",
         printable(input.name()).c_str(), e.what(), backtrace_text().c_str());
}

bool convert_default(const ConversionInput& input, const ConversionOptions& options) {
  try {
    bool written;  // a result that could not be written is not a failure here
    return convert_to_result(input, options, written);
  } catch (const pdb_exception& e) {
    report_exception(input, e);
  } catch (const LimitExceeded& e) {
    report_exception(input, e);
  }
  return false;
}

}  // namespace

bool convert(const ConversionInput& input, const ConversionOptions& options) {
  return options.standard ? convert_standard(input, options) : convert_default(input, options);
}

}  // namespace symforge_internal

using namespace symforge_internal;

bool symforge(const char* pdb_path, const char* exe_path, const char* sym_path,
              bool binary_output) {
  return convert({.pdb = pdb_path, .exe = exe_path}, {.binary = binary_output, .tree = sym_path});
}

bool symforge_sym(TextBuffer symbol_data, const char* sym_path, bool binary_output) {
  SymbolText result;
  result.text = std::move(symbol_data);
  return write_result(std::move(result), {.binary = binary_output, .tree = sym_path});
}

bool symforge_sym(std::string_view symbol_data, const char* sym_path, bool binary_output) {
  TextBuffer text;
  text.append(symbol_data);
  return symforge_sym(std::move(text), sym_path, binary_output);
}

bool pdb_create_codeid_link(const sym_info& info, const char* sym_path) {
  const std::string link = code_id_link(info, sym_path);
  if (link.empty()) return true;
  if (!is_tree_component(info.code_id)) return false;
  return symlink(info.debug_id.c_str(), link.c_str()) == 0;
}

bool string_ends_with(const std::string& s1, const std::string& s2) { return s1.ends_with(s2); }
