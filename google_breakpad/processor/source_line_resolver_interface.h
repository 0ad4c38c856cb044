// SourceLineResolverInterface: from code addresses to functions, source lines and unwinding rules.
//
//   google_breakpad::BasicSourceLineResolver resolver;
//   resolver.LoadModule(&module, "a.sym");
//   google_breakpad::StackFrame frame;
//   frame.instruction = 0x140001004;
//   frame.module = &module;
//   resolver.FillSourceLineInfo(&frame);
//   puts(frame.function_name.c_str());
//
// Symbols are kept by the debug identifier of their module. A resolver has no locks: loading and
// unloading need it alone; the lookups (FillSourceLineInfo, FindWindowsFrameInfo,
// FindCFIFrameInfo, HasModule, IsModuleCorrupt) may run in several threads at once as long as
// nothing loads or unloads. No operation throws, but for std::bad_alloc.
//
// Symbol files may come from strangers: LoadModule and LoadModuleUsingMapBuffer take any bytes, and
// a lookup takes less than 10 ms and 16 MiB. To keep to that, lookups return at most 1 MiB of a
// name, and nothing where STACK CFI texts or nested STACK WIN ranges are beyond anything real.
//
// What a symbol file holds, line by line, stands in docs/symbol-file.md, and what a SYMB block
// holds in docs/symb-format.md.

#pragma once

#include <cstddef>
#include <string>

#include "google_breakpad/processor/cfi_frame_info.h"
#include "google_breakpad/processor/code_module.h"
#include "google_breakpad/processor/stack_frame.h"
#include "google_breakpad/processor/windows_frame_info.h"

namespace google_breakpad {

class SourceLineResolverInterface {
 public:
  virtual ~SourceLineResolverInterface() = default;

  // Loads symbols for `module`; each load is false for a null module and for one whose debug
  // identifier has symbols already. Lines that do not parse are logged (the first 10 of a load),
  // skipped, and mark the module corrupt: that is no failure of the load.

  // From a symbol file: text or SYMB data. False also if it cannot be read, if it is no regular
  // file, if it has 2 GiB or more, and, with a line in the log, for SYMB data on which a lookup
  // would leave the data or cost too much. The check takes about a tenth of the time of reading.
  virtual bool LoadModule(const CodeModule* module, const std::string& map_file) = 0;

  // From the contents of a symbol file in a string, which is not changed. False also for SYMB data
  // as above.
  virtual bool LoadModuleUsingMapBuffer(const CodeModule* module,
                                        const std::string& map_buffer) = 0;

  // From the contents of a symbol file in memory, of `memory_buffer_size` bytes. The buffer stays
  // the caller's. Text is changed by the load, and its last byte is overwritten by a NUL unless it
  // is one: pass the terminator as part of the size. It may be released after the load.
  //
  // SYMB data (the first 4 bytes are "SYMB") is not changed, must not be changed by others and must
  // outlive the module's symbols. It is not checked, so that the load of a mapped file costs
  // nothing: lookups never read past `memory_buffer_size`, but on hostile data they can take long.
  // Give data from outside to one of the loads above, or ask symb_validate() first.
  virtual bool LoadModuleUsingMemoryBuffer(const CodeModule* module, char* memory_buffer,
                                           size_t memory_buffer_size) = 0;

  // Whether LoadModule and LoadModuleUsingMapBuffer release their buffer when the load is over,
  // rather than when the module is unloaded. The buffer of SYMB data is always kept until then.
  virtual bool ShouldDeleteMemoryBufferAfterLoadModule() = 0;

  // Releases the symbols of `module`, if there are any.
  virtual void UnloadModule(const CodeModule* module) = 0;

  // Whether there are symbols for `module`, and whether they had lines that did not parse.
  virtual bool HasModule(const CodeModule* module) = 0;
  virtual bool IsModuleCorrupt(const CodeModule* module) = 0;

  // The lookups ask about frame->instruction in frame->module. The frame must not be null; its
  // module may be, and is then one without symbols.

  // Sets what is known in the frame: the function that holds the instruction with its source line
  // and inline frames. Where none does, the nearest public symbol below, unless a function begins
  // at it or between it and the instruction; SYMB data of versions below 3 is not searched for
  // these. What is not known, and a frame whose module has no symbols, stays as it is.
  virtual void FillSourceLineInfo(StackFrame* frame) = 0;

  // The STACK WIN data for the instruction, in a new record that the caller owns. The narrowest
  // range counts, and one of STACK_INFO_FRAME_DATA goes before one of STACK_INFO_FPO. Where there
  // is neither, a function that holds the instruction gives a record of which parameter_size alone
  // is set: its type_ is STACK_INFO_UNKNOWN, its `valid` VALID_PARAMETER_SIZE. (That number is not
  // to be relied on with SYMB data of version 3, where it is looked for at the places of the
  // shorter function records of version 2, and may be any.) Null if nothing is known.
  virtual WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) = 0;

  // The STACK CFI rules for the instruction, in a new object that the caller owns: those of the
  // STACK CFI INIT line whose range holds it, and over them those of the STACK CFI lines from the
  // start of the range up to the instruction. Null if there is no such range, or if its own rules
  // are malformed; a malformed STACK CFI line counts as far as it is good.
  virtual CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) = 0;
};

}  // namespace google_breakpad
