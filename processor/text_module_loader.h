// TextModuleLoader: fills a module from the text of a symbol file.
//
// One pass over the text, line by line, in time linear in its length. Line ends are runs of
// carriage returns and line feeds, so empty lines do not exist and are not counted. Each line is
// read by the quick reader of its kind or, if that declines, by the exact one
// (common/symbol_text.h).
//
// Lines that do not parse are counted, the first 10 of them are logged, and they are skipped. What
// a container refuses (a second function at one address, a line that overlaps another) is dropped
// without a message, except where the container itself logs; a second PUBLIC at an address counts
// as an error.
//
// The only state between lines is the current function, which line records, I and INLINE lines
// join. FUNC sets it, or clears it if the line fails; PUBLIC clears it; other lines leave it alone.
// A function that was refused is current like any other, and goes with what it gathered.

#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "common/symbol_text.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/inline_calls.h"
#include "processor/record_gatherers.h"
#include "processor/string_storage.h"

namespace google_breakpad {

class TextModuleLoader {
 public:
  using Module = BasicSourceLineResolver::Module;
  using Function = BasicSourceLineResolver::Function;

  // Whether quick readers are asked at all; tests compare the two.
  enum class Readers { kQuickAndExact, kExact };

  // `module` must outlive the loader, and the text the module if the strings stay in the text.
  explicit TextModuleLoader(Module* module, Readers readers = Readers::kQuickAndExact,
                            StringStorage::Place strings = StringStorage::Place::kArena)
      : module_(*module),
        quick_(readers == Readers::kQuickAndExact),
        strings_(module_.arena_, strings) {}

  // Reads `size` bytes and marks the module corrupt if a line did not parse. The last byte is
  // overwritten by a NUL if it is none; other parts of the buffer are changed as lines are split.
  void Load(char* buffer, size_t size);

 private:
  char* EndOfText(char* buffer, size_t size);
  char* LineEnd(char* line);
  // Each takes the start of a line and returns its end.
  char* LoadLine(char* line);
  char* LoadOtherLine(char* line);
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

  void FinishFunction();
  void StoreInlineCalls();
  void NameSites();
  void FinishStackWin();
  void LogParseError(const std::string& message, int line_number, int* num_errors);
  void LineError(const char* message) { LogParseError(message, line_number_, &num_errors_); }

  Module& module_;
  const bool quick_;
  StringStorage strings_;
  char* end_ = nullptr;           // of the text; a NUL stands there
  char* next_newline_ = nullptr;  // the first line feed at or behind the last line asked about
  int line_number_ = 0;
  int num_errors_ = 0;

  Function* cur_func_ = nullptr;  // in the module's arena
  bool cur_func_stored_ = false;  // the module's container took it
  LineGatherer lines_;
  InlineGatherer inlines_;
  InlineCallGatherer calls_;
  // STACK WIN ranges of one type in the order of their lines.
  struct StackWinRanges {
    std::vector<Module::StackWinMap::Extent> extents;
    std::deque<StackWinRecord> records;
  };
  std::array<StackWinRanges, WindowsFrameInfo::STACK_INFO_LAST> stack_win_;
  Function* spare_func_ = nullptr;  // the record of a refused function, to be used again
  // INLINE_ORIGIN lines by number, and the sites whose origin was not known when their function
  // ended: published files have the lines before the functions, but any order is accepted.
  struct UnnamedSite {
    BasicSourceLineResolver::InlineFunction* site;  // in the module's arena
    int origin;
  };
  Module::FileMap origins_;
  std::vector<UnnamedSite> unnamed_;
  std::vector<symforge_internal::InlineCallFields::Range> call_ranges_;
  std::string last_program_;
  const char* last_program_kept_ = "";
};

}  // namespace google_breakpad
