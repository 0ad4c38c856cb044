// StackFrame: one frame of a call stack; input and output of a lookup.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace google_breakpad {

class CodeModule;

struct StackFrame {
  // How the frame was found, from the least to the most reliable. Not used by the resolver.
  enum FrameTrust {
    FRAME_TRUST_NONE = 0,
    FRAME_TRUST_SCAN = 1,
    FRAME_TRUST_CFI_SCAN = 2,
    FRAME_TRUST_FP = 3,
    FRAME_TRUST_CFI = 4,
    FRAME_TRUST_PREWALKED = 5,
    FRAME_TRUST_MODWALKED = 6,
    FRAME_TRUST_CONTEXT = 7,
  };

  // A call that the compiler inlined.
  struct Inline {
    std::string name;              // of the callee
    std::string source_file_name;  // position in the callee; empty if unknown
    int source_line = 0;
  };

  StackFrame() = default;
  virtual ~StackFrame() = default;
  StackFrame(const StackFrame&) = default;
  StackFrame& operator=(const StackFrame&) = default;
  StackFrame(StackFrame&&) = default;
  StackFrame& operator=(StackFrame&&) = default;

  // The absolute address at which execution continues in this frame; by default the instruction.
  virtual uint64_t ReturnAddress() const { return instruction; }

  // Input, set by the host: the absolute address of the instruction, and the module that contains
  // it. The frame does not own the module. With a null module the resolver does nothing.
  uint64_t instruction = 0;
  const CodeModule* module = nullptr;

  // Output of SourceLineResolverInterface::FillSourceLineInfo. A lookup sets only what it finds, so
  // the host must clear a frame before reusing it.
  std::string function_name;
  uint64_t function_base = 0;  // absolute start address of the function or public symbol
  std::string source_file_name;
  int source_line = 0;
  uint64_t source_line_base = 0;  // absolute start address of the code of that line

  FrameTrust trust = FRAME_TRUST_NONE;

  // The inline frames at the instruction, innermost first. Filled for modules loaded from SYMB data
  // of version 3, and from text for functions with INLINE lines. New frames are appended.
  std::vector<Inline> inlines;
};

}  // namespace google_breakpad
