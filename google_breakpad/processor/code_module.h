// CodeModule: what a host tells the resolver about one executable or library of a process.

#pragma once

#include <cstdint>
#include <string>

namespace google_breakpad {

// Abstract; implemented by the host. The resolver itself asks for debug_identifier(), code_file()
// and base_address() only, and never keeps a pointer to a module beyond the call it came with.
// Lookups from several threads call these three from several threads.
class CodeModule {
 public:
  virtual ~CodeModule() = default;

  // The absolute address at which the module is loaded. Addresses in symbols are relative to it.
  virtual uint64_t base_address() const = 0;

  // Bytes of address space that the module takes.
  virtual uint64_t size() const = 0;

  // The path or file name of the executable or library. Shown in log lines.
  virtual std::string code_file() const = 0;

  // What identifies the code file, for a PE its time stamp and image size.
  virtual std::string code_identifier() const = 0;

  // The file name of the debugging information, for Windows the PDB.
  virtual std::string debug_file() const = 0;

  // What identifies the debugging information, for a PDB its GUID and age. The resolver keeps
  // symbols under this: two modules with equal debug identifiers share their symbols.
  virtual std::string debug_identifier() const = 0;

  // The code file's own version number as text, for display.
  virtual std::string version() const = 0;

  // A copy that the caller owns.
  virtual CodeModule* Copy() const = 0;

  // How far the start of the module was moved up because another module overlapped it.
  virtual uint64_t shrink_down_delta() const = 0;
  virtual void SetShrinkDownDelta(uint64_t shrink_down_delta) = 0;

  // Whether the module had been unloaded when the process's state was taken.
  virtual bool is_unloaded() const = 0;
};

}  // namespace google_breakpad
