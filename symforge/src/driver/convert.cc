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
#include "symforge/src/driver/conversion_report.h"
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

void note_opened(const OpenedInput& opened, ConversionFacts& facts) {
  FileIdentity& identity = facts.identity;
  if (identity.kind_name.empty() && opened.file_kind() != FileKind::kUnknown) {
    identity.kind_name = kind_name(opened.file_kind());
  }
  if (facts.bytes_in == 0) facts.bytes_in = opened.content().size();  // not a regular file
}

void note_text(const ConversionInput& input, const SymbolText& result, ConversionFacts& facts) {
  TextCounts& counts = facts.counts.emplace();
  count_lines(result.text.view(), counts);
  count_lines(result.unwind_rules.view(), counts);
  if (result.counts) facts.left_out = left_out_of(*result.counts);
  if (input.pdb == nullptr || !result.identity) return;
  facts.image = result.image;
  facts.bytes_in += result.image_bytes;
  if (result.image.empty()) facts.left_out.push_back({"image", 1, "not found"});
}

void note_written(const WrittenResult& written, ConversionFacts& facts) {
  if (written.target.empty()) return;
  facts.target = written.target;
  facts.bytes_out = written.bytes;
  facts.identity.debug_file = written.identity.debug_file;
  facts.identity.debug_id = written.identity.debug_id;
  facts.identity.code_file = written.identity.code_file;
  facts.identity.code_id = written.identity.code_id;
}

// How many threads help with a conversion; 0: none.
unsigned worker_threads(const OpenedInput& opened, const ConversionOptions& options) {
  constexpr unsigned kMost = 64;  // what is done by one thread would take most of the time
  const unsigned jobs = std::min(resolved_jobs(options.jobs), kMost);
  return opened.kind() == OpenedInput::Kind::kPdb && jobs > 1 ? jobs : 0;
}

// True if the input was converted to text; `written`: whether that was written.
bool convert_to_result(OpenedInput& opened, const ConversionOptions& options, bool& written) {
  if (!opened.open(options)) return false;
  ConversionFacts* const facts = report_facts();
  if (facts != nullptr) note_opened(opened, *facts);
  if (options.standard && opened.refusal() != nullptr) {
    report("%s", opened.refusal());
    return false;
  }
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
  if (facts != nullptr) note_text(opened.input(), result, *facts);
  // Workers release the mapping of the PDB while the result is written.
  const std::unique_ptr<const PDBParser> parser = std::move(result.parser);
  std::optional<WorkerRun> release;
  if (parser != nullptr) {
    release.emplace(
        *pool, [&parser, pool](unsigned worker) { parser->releasePart(worker, pool->size()); });
  }
  WrittenResult target;
  written = write_result(std::move(result), options, &target);
  if (facts != nullptr) note_written(target, *facts);
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
  OpenedInput opened(input);
  try {
    bool written = false;
    const bool converted = convert_to_result(opened, options, written) && written;
    if (converted) warnings.pass_on();
    return converted;
  } catch (const pdb_refusal& e) {
    report("%s", printable(e.advice()).c_str());
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
  set_latest_message(e.what());
}

// What the input is, after the message about its failure.
void report_advice(const ConversionInput& input, const std::string& advice) {
  report("%s: %s", printable(input.name()).c_str(), printable(advice).c_str());
}

bool convert_default(const ConversionInput& input, const ConversionOptions& options) {
  OpenedInput opened(input);
  try {
    bool written;  // a result that could not be written is not a failure here
    return convert_to_result(opened, options, written);
  } catch (const pdb_refusal& e) {
    report_exception(input, e);
    report_advice(input, e.advice());
  } catch (const pdb_exception& e) {
    report_exception(input, e);
    if (opened.refusal() != nullptr) report_advice(input, opened.refusal());
  } catch (const LimitExceeded& e) {
    report_exception(input, e);
  }
  return false;
}

}  // namespace

bool convert(const ConversionInput& input, const ConversionOptions& options) {
  if (options.report != nullptr && !begin_report(input, options)) return false;
  const bool converted =
      options.standard ? convert_standard(input, options) : convert_default(input, options);
  if (options.report == nullptr) return converted;
  // Warnings are no reason for what succeeded.
  const bool written = converted && !report_facts()->target.empty();
  const bool reported = end_report(converted ? 0 : 1, written ? "" : latest_message());
  return converted && (reported || !options.standard);
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
