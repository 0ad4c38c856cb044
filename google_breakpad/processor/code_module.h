// CodeModule: describes one executable or library of a process to the resolver.

#pragma once

#include <cstdint>
#include <string>

namespace google_breakpad {

// Abstract; the host implements it. The resolver calls only debug_identifier(), code_file() and
// base_address(), and does not keep a pointer to a module after the call that received it.
// Concurrent lookups call these three concurrently.
class CodeModule {
 public:
  virtual ~CodeModule() = default;

  // The absolute address at which the module is loaded. Addresses in symbols are relative to it
  // (RVAs).
  virtual uint64_t base_address() const = 0;

  // The size of the module in memory, in bytes.
  virtual uint64_t size() const = 0;

  // The path or file name of the executable or library. Shown in log lines.
  virtual std::string code_file() const = 0;

  // Identifies the code file; for a PE its time stamp and image size.
  virtual std::string code_identifier() const = 0;

  // The file name of the debugging information; on Windows the PDB.
  virtual std::string debug_file() const = 0;

  // Identifies the debugging information; for a PDB its GUID and age. The resolver stores symbols
  // under this key: modules with equal debug identifiers share their symbols.
  virtual std::string debug_identifier() const = 0;

  // The version of the code file as text, for display.
  virtual std::string version() const = 0;

  // Returns a copy that the caller owns.
  virtual CodeModule* Copy() const = 0;

  // How many bytes the start of the module was moved up because it overlapped another module.
  virtual uint64_t shrink_down_delta() const = 0;
  virtual void SetShrinkDownDelta(uint64_t shrink_down_delta) = 0;

  // Whether the module was already unloaded when the state of the process was captured.
  virtual bool is_unloaded() const = 0;
};

}  // namespace google_breakpad
