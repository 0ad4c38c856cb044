// BasicSourceLineResolver::Module: the symbols of one code module, from a text symbol file or in a
// SYMB block.
//
// A text load (processor/text_module_loader.h) fills the containers below. Their records and
// strings lie in one arena; entries are plain values and pointers, so that a lookup copies nothing
// that is shared and several threads may look up at once.
//
// A SYMB load notes the address of the block and reads nothing of it. Every lookup tests
// `symb_loaded_` first and hands over to its counterpart with a B behind its name, which searches
// the block's tables in place (processor/symb_lookups.cc).

#pragma once

#include <array>
#include <span>
#include <string>

#include "base/arena.h"
#include "base/block_map.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "processor/address_map.h"
#include "processor/contained_range_map.h"
#include "processor/range_map.h"
#include "processor/source_line_resolver_base_types.h"
#include "processor/string_storage.h"
#include "processor/windows_frame_info.h"

namespace google_breakpad {

using symforge_internal::Arena;
using symforge_internal::BlockMap;

struct BasicSourceLineResolver::InlineFunction : SourceLineResolverBase::InlineFunction {};

// A function with its lines and inline sites. Both are in their final form: a text load settles
// overlaps while it reads the function and then lays them down side by side.
struct BasicSourceLineResolver::Function : SourceLineResolverBase::Function {
  // Disjoint, in ascending order of address.
  std::span<const Line> lines() const { return {lines_, line_count_}; }
  // Nested sites, each before what it contains, siblings in ascending order of address.
  std::span<const InlineFunction> inlines() const { return {inlines_, inline_count_}; }

  const Line* lines_ = nullptr;
  const InlineFunction* inlines_ = nullptr;
  uint32_t line_count_ = 0;
  uint32_t inline_count_ = 0;
};

// A STACK WIN line without its range. All fields hold values (WindowsFrameInfo::VALID_ALL).
struct StackWinRecord : StackWinSizes {
  const char* program_string;  // empty if there is none
  int8_t type;                 // a WindowsFrameInfo::StackInfoTypes value
  bool allocates_base_pointer;
};

class BasicSourceLineResolver::Module : public SourceLineResolverBase::Module {
 public:
  using FileMap = BlockMap<int, const char*>;
  using FunctionMap = RangeMap<MemAddr, const Function*>;
  using PublicMap = AddressMap<MemAddr, PublicSymbol>;
  using StackWinMap = ContainedRangeMap<MemAddr, StackWinRecord>;
  using StackWinMaps = std::array<StackWinMap, WindowsFrameInfo::STACK_INFO_LAST>;
  using CFIInitialMap = RangeMap<MemAddr, const char*>;
  using CFIDeltaMap = BlockMap<MemAddr, const char*>;

  explicit Module(const std::string& name) : name_(name) {}

  // Takes text or, if it begins with "SYMB", a SYMB block. Text is changed by the load and may be
  // released afterwards; a block must outlive the module. True always.
  bool LoadMapFromMemory(char* memory_buffer, size_t memory_buffer_size) override;
  // The same, but the module's strings stay in the text: it must outlive the module and belongs to
  // it until then.
  bool LoadMapInPlace(char* memory_buffer, size_t memory_buffer_size);
  bool IsCorrupt() const override { return is_corrupt_; }
  void LookupAddress(StackFrame* frame) const override;
  WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) const override;
  CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) const override;

  // The same on a SYMB block. The lookups find nothing unless one is loaded.
  virtual bool LoadMapFromMemoryB(char* memory_buffer, size_t memory_buffer_size);
  virtual void LookupAddressB(StackFrame* frame) const;
  virtual void LookupAddressBInline(StackFrame* frame) const;
  virtual WindowsFrameInfo* FindWindowsFrameInfoB(const StackFrame* frame) const;
  virtual CFIFrameInfo* FindCFIFrameInfoB(const StackFrame* frame) const;

  // What a text load has filled.
  const FileMap& Files() const { return files_; }                           // by number
  const FunctionMap& Functions() const { return functions_; }               // by last address
  const PublicMap& Publics() const { return public_symbols_; }              // by address
  const StackWinMaps& WinFrameInfo() const { return windows_frame_info_; }  // by type
  const CFIInitialMap& CFI() const { return cfi_initial_rules_; }           // by last address
  const CFIDeltaMap& CFIDelta() const { return cfi_delta_rules_; }          // by address

 private:
  friend class TextModuleLoader;

  bool Load(char* buffer, size_t size, StringStorage::Place strings);
  void AppendInlines(const Function& function, MemAddr address, StackFrame* frame) const;

  bool symb_loaded_ = false;
  const char* symb_base_ = nullptr;  // not owned
  std::string name_;
  FileMap files_;
  FunctionMap functions_;
  PublicMap public_symbols_;
  bool is_corrupt_ = false;
  StackWinMaps windows_frame_info_;
  CFIInitialMap cfi_initial_rules_;
  CFIDeltaMap cfi_delta_rules_;
  Arena arena_;
};

}  // namespace google_breakpad
