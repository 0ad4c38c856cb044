// TextModuleLoader: fills a module from the text of a symbol file.
//
// Processes the text line by line in one pass, in linear time. Line ends are runs of carriage
// returns and line feeds, so empty lines do not exist and are not counted. Each line is parsed by
// the quick parser of its kind or, if that rejects it, by the exact one (common/symbol_text.h).
//
// Lines that do not parse are counted and skipped, and the first 10 are logged. Records that a
// container rejects (a second function at one address, a line that overlaps another) are dropped
// without a message, unless the container logs one. A second PUBLIC at an address counts as an
// error.
//
// The only state between lines is the current function, to which line records, I and INLINE lines
// belong. FUNC sets it, or clears it if the line fails. PUBLIC clears it. Other lines do not change
// it. A rejected function becomes the current one as well, and is dropped with its records.

#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "common/symbol_text.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/inline_calls.h"
#include "processor/origin_names.h"
#include "processor/record_gatherers.h"
#include "processor/string_storage.h"

namespace google_breakpad {

class TextModuleLoader {
 public:
  using Module = BasicSourceLineResolver::Module;
  using Function = BasicSourceLineResolver::Function;

  // Whether to use quick parsers; tests compare both.
  enum class Readers { kQuickAndExact, kExact };

  // `module` must outlive the loader. The text must outlive the module if strings stay in the text.
  explicit TextModuleLoader(Module* module, Readers readers = Readers::kQuickAndExact,
                            StringStorage::Place strings = StringStorage::Place::kArena)
      : module_(*module),
        quick_(readers == Readers::kQuickAndExact),
        numbers_(strings == StringStorage::Place::kText ? FunctionRecords::Numbers::kLower32Bits
                                                        : FunctionRecords::Numbers::kAllBits),
        strings_(module_.arena_, strings) {}

  // Loads `size` bytes, and counts the lines that do not parse in the module. The last byte is
  // overwritten by a NUL; other bytes change as lines are split.
  void Load(char* buffer, size_t size);

 private:
  char* EndOfText(char* buffer, size_t size);
  char* LineEnd(char* line);
  // Each function takes the start of a line and returns its end.
  char* LoadLine(char* line);
  char* LoadOtherLine(char* line);
  char* LoadLineRecords(char* line);
  char* LoadLineRecord(char* line);

  bool ParseFile(char* line, char* end);
  bool ParseFunction(char* line, char* end);
  bool ParsePublicSymbol(char* line, char* end);
  bool ParseInlineFunction(char* line, char* end);
  bool ParseInlineOrigin(char* line, char* end);
  bool ParseInlineCall(char* line, char* end);
  bool ParseStackInfo(char* line, char* end);
  void StoreStackWin(const symforge_internal::StackWinFields& fields);
  void StoreStackCFI(const symforge_internal::StackCFIFields& fields);

  [[gnu::always_inline]] void StoreLine(const symforge_internal::LineFields& fields) {
    lines_.Store({fields.address, fields.size, static_cast<int32_t>(fields.source_file),
                  static_cast<int32_t>(fields.line_number)});
  }
  void FinishFunction();
  void StoreInlineCalls();
  void NameSites(Function* function);
  void FinishStackWin();
  void LogParseError(const char* message, uint64_t line_number);
  void LineError(const char* message) { LogParseError(message, line_number_); }

  Module& module_;
  const bool quick_;
  const FunctionRecords::Numbers numbers_;
  StringStorage strings_;
  char* end_ = nullptr;  // end of the text, where a NUL is stored
  uint64_t line_number_ = 0;

  Function* cur_func_ = nullptr;  // in the module's arena
  bool cur_func_stored_ = false;  // the module's container accepted it
  LineGatherer lines_;
  InlineGatherer inlines_;
  InlineCallGatherer calls_;
  // STACK WIN ranges of one type in the order of their lines.
  struct StackWinRanges {
    std::vector<Module::StackWinMap::Extent> extents;
    std::deque<StackWinRecord> records;
  };
  std::array<StackWinRanges, WindowsFrameInfo::STACK_INFO_LAST> stack_win_;
  Function* spare_func_ = nullptr;  // the record of a rejected function, for reuse
  // INLINE_ORIGIN lines by number, and the functions with a site whose origin was unknown at their
  // end. Their sites have no names, but the numbers of origins, until the end of the text.
  // Published files have these lines before the functions, but any order is accepted.
  OriginNames origins_;
  std::vector<Function*> unnamed_;
  std::vector<symforge_internal::InlineCallFields::Range> call_ranges_;
  std::string last_program_;
  const char* last_program_kept_ = "";
};

}  // namespace google_breakpad
