// SourceLineResolverInterface: maps code addresses to functions, source lines and unwinding rules.
//
//   google_breakpad::BasicCodeModule module("a.pdb", "5D3F...1", 0x140000000);
//   google_breakpad::BasicSourceLineResolver resolver;
//   resolver.LoadModule(&module, "a.sym");
//   google_breakpad::StackFrame frame;
//   frame.instruction = 0x140001004;
//   frame.module = &module;
//   resolver.FillSourceLineInfo(&frame);
//   puts(frame.function_name.c_str());
//
// Symbols are stored under the debug identifier of their module.
//
// Untrusted files: LoadModule and LoadModuleUsingMapBuffer accept any bytes, and a lookup takes
// less than 10 ms and 16 MiB. Therefore lookups truncate names to 1 MiB, and find nothing where
// STACK CFI texts or nested STACK WIN ranges exceed limits far beyond real programs.
//
// docs/symbol-file.md describes the lines of a symbol file, docs/symb-format.md a SYMB block.

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

  // Each load function reads symbols for `module`. It returns false if `module` is null or symbols
  // are already loaded for its debug identifier. A line that does not parse is skipped, logged
  // (only the first 10 per load) and marks the module as corrupt; the load still succeeds.

  // Loads a symbol file, text or SYMB data. Also returns false if it cannot be read, is not a
  // regular file or has 2 GiB or more; and, after logging a line, for SYMB data on which a lookup
  // would read outside the data or cost too much. That check takes about a tenth of the time of
  // reading.
  //
  // A SYMB file is mapped read-only until the module is unloaded. Replace such a file by renaming
  // another one over it, as symforge does; after truncation a lookup would end the process.
  virtual bool LoadModule(const CodeModule* module, const std::string& map_file) = 0;

  // Loads the contents of a symbol file from a string, which is not changed. Also returns false for
  // SYMB data as above.
  virtual bool LoadModuleUsingMapBuffer(const CodeModule* module,
                                        const std::string& map_buffer) = 0;

  // Loads the contents of a symbol file from memory. The caller keeps ownership of the buffer of
  // `memory_buffer_size` bytes.
  //
  // Text is modified while it is parsed, and its last byte is overwritten by a NUL: include the
  // terminator in the size. The buffer may be released after the load.
  //
  // SYMB data (which begins with "SYMB") is not modified. It must outlive the module's symbols and
  // must not change. It is not checked, so that loading a mapped file costs nothing: lookups never
  // read beyond `memory_buffer_size`, but may take long on hostile data. Load untrusted data with
  // one of the functions above, or call symb_validate() first.
  virtual bool LoadModuleUsingMemoryBuffer(const CodeModule* module, char* memory_buffer,
                                           size_t memory_buffer_size) = 0;

  // Whether LoadModule and LoadModuleUsingMapBuffer release their buffer after loading instead of
  // when the module is unloaded. The buffer of SYMB data is always kept until unloading.
  virtual bool ShouldDeleteMemoryBufferAfterLoadModule() = 0;

  // Releases the symbols of `module`, if any are loaded.
  virtual void UnloadModule(const CodeModule* module) = 0;

  // Whether symbols are loaded for `module`, and whether some of their lines did not parse.
  virtual bool HasModule(const CodeModule* module) = 0;
  virtual bool IsModuleCorrupt(const CodeModule* module) = 0;

  // Lookups use frame->instruction and frame->module. The frame must not be null. A null module is
  // treated as one without symbols.

  // Fills in the function that contains the instruction, its source line and its inline frames. If
  // there is none, uses the nearest public symbol at or below the instruction, unless a function
  // starts between the two. SYMB data of versions below 3 is not searched for public symbols.
  // Fields with no known value are left unchanged, and so is a frame whose module has no symbols.
  virtual void FillSourceLineInfo(StackFrame* frame) = 0;

  // Returns the STACK WIN data for the instruction in a new record owned by the caller; null if
  // nothing is known.
  //
  // The narrowest range that contains the instruction is used, and STACK_INFO_FRAME_DATA takes
  // precedence over STACK_INFO_FPO. Without either, the result is made from the function that
  // contains the instruction: only parameter_size is set, type_ is STACK_INFO_UNKNOWN and `valid`
  // is VALID_PARAMETER_SIZE. With SYMB data of version 3 that parameter_size is not reliable: for
  // compatibility it is read as if function records had the shorter layout of version 2.
  virtual WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) = 0;

  // Returns the STACK CFI rules for the instruction in a new object owned by the caller: the rules
  // of the STACK CFI INIT line whose range contains it, updated by the STACK CFI lines from the
  // start of that range up to the instruction. Returns null if there is no such range or if its
  // initial rules are malformed. A malformed STACK CFI line is applied up to its first error.
  virtual CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) = 0;
};

}  // namespace google_breakpad
