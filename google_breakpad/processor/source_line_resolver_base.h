// SourceLineResolverBase: stores the loaded modules and forwards each lookup to its module.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "google_breakpad/processor/source_line_resolver_interface.h"

namespace google_breakpad {

class ModuleFactory;

// What loading found wrong with a text. Lines are counted from 1, and empty lines are not counted.
struct BadLines {
  uint64_t count = 0;  // lines that were skipped; NULs inside the text count as one more
  uint64_t first = 0;  // the number of the first of these lines, 0 if there is none
};

class SourceLineResolverBase : public SourceLineResolverInterface {
 public:
  // The symbols of one code module and their records. Internal to the library: hosts see only the
  // names of these types.
  class Module;
  struct Line;
  struct Function;
  struct InlineFunction;
  struct PublicSymbol;

  // Reads a whole regular file of any content into a new array, followed by one NUL. The caller
  // releases the array with delete[]. The size includes the NUL. Sets the file's access time to
  // now, which marks it as used. Returns false and logs a line if the file cannot be read, is not a
  // regular file (a FIFO is not opened) or has 2 GiB or more; there is nothing to delete then. Safe
  // to call from several threads at once.
  static bool ReadSymbolFile(const std::string& map_file, char** symbol_data,
                             size_t* symbol_data_size);

  ~SourceLineResolverBase() override;
  SourceLineResolverBase(const SourceLineResolverBase&) = delete;
  SourceLineResolverBase& operator=(const SourceLineResolverBase&) = delete;

  bool LoadModule(const CodeModule* module, const std::string& map_file) override;
  bool LoadModuleUsingMapBuffer(const CodeModule* module, const std::string& map_buffer) override;
  bool LoadModuleUsingMemoryBuffer(const CodeModule* module, char* memory_buffer,
                                   size_t memory_buffer_size) override;
  // True: the text buffers of LoadModule and LoadModuleUsingMapBuffer are released after loading.
  bool ShouldDeleteMemoryBufferAfterLoadModule() override;
  void UnloadModule(const CodeModule* module) override;
  bool HasModule(const CodeModule* module) override;
  bool IsModuleCorrupt(const CodeModule* module) override;
  void FillSourceLineInfo(StackFrame* frame) override;
  WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) override;
  CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) override;

  // The functions of the interface that only read, for a resolver that is const. They do the same.
  bool HasModule(const CodeModule* module) const;
  bool IsModuleCorrupt(const CodeModule* module) const;
  void FillSourceLineInfo(StackFrame* frame) const;
  WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) const;
  CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) const;

  // As the function of the interface, for contents that are not in a std::string. They are copied.
  bool LoadModuleUsingMapBuffer(const CodeModule* module, std::string_view map_buffer);
  bool LoadModuleUsingMapBuffer(const CodeModule* module, const char* map_buffer);

  // As the function of the interface, for memory that cannot be written, such as a mapped file.
  // Text is copied for the duration of the load, and needs no NUL. SYMB data is used in place: it
  // must outlive the module's symbols, and is not checked.
  bool LoadModuleUsingMemoryBuffer(const CodeModule* module, const char* memory_buffer,
                                   size_t memory_buffer_size);

  // The lines of the module's text that did not parse. None for SYMB data and for a module without
  // symbols.
  BadLines FindBadLines(const CodeModule* module) const;

  // Returns a new, empty module that is not registered with this resolver. The caller owns it.
  Module* CreateModule(const std::string& name);

 protected:
  // Takes ownership of `module_factory`.
  explicit SourceLineResolverBase(ModuleFactory* module_factory);

 private:
  // Compares as C strings, up to the first NUL byte.
  struct CompareString {
    bool operator()(const std::string& a, const std::string& b) const;
  };
  using ModuleMap = std::map<std::string, Module*, CompareString>;
  using ModuleSet = std::set<std::string, CompareString>;
  struct Storage;  // memory that a module's symbols point into
  using MemoryMap = std::map<std::string, std::unique_ptr<Storage>, CompareString>;

  bool MayLoad(const CodeModule* module) const;
  bool LoadFrom(const CodeModule* module, std::unique_ptr<Storage> storage);
  bool LoadCopy(const CodeModule* module, std::string_view contents);
  const Module* FindModule(const CodeModule* module) const;

  // All owned. The first three are keyed by the code module's debug identifier.
  ModuleMap* modules_;
  ModuleSet* corrupt_modules_;
  MemoryMap* memory_buffers_;  // what modules still use
  ModuleFactory* module_factory_;
};

}  // namespace google_breakpad
