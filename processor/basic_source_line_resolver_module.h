// BasicSourceLineResolver::Module: the symbols of one code module, parsed from text or in a SYMB
// block.
//
// Loading text (processor/text_module_loader.h) fills the containers below. Their records and
// strings are stored in one arena. Entries are plain values and pointers, so a lookup shares no
// mutable state and lookups can run concurrently.
//
// Loading SYMB data only stores address and size of the block. Each lookup checks `symb_loaded_`
// first and calls its variant with the suffix B, which searches the tables in place
// (processor/symb_lookups.cc).

#pragma once

#include <array>
#include <cassert>
#include <memory>
#include <span>
#include <string>

#include "base/arena.h"
#include "base/block_map.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "processor/address_map.h"
#include "processor/contained_range_map.h"
#include "processor/function_records.h"
#include "processor/range_map.h"
#include "processor/source_line_resolver_base_types.h"
#include "processor/string_storage.h"
#include "processor/symb_index.h"
#include "processor/windows_frame_info.h"

namespace google_breakpad {

using symforge_internal::Arena;
using symforge_internal::BlockMap;

struct BasicSourceLineResolver::Function : SourceLineResolverBase::Function {
  FunctionRecords records;
};

// The range of a function. A RangeMap stores it by its last address.
class FunctionRange {
 public:
  using Function = BasicSourceLineResolver::Function;
  FunctionRange(MemAddr base, MemAddr delta, const Function* function) : function_(function) {
    assert(base == function->address && delta == 0);
  }
  MemAddr base() const { return function_->address; }
  MemAddr delta() const { return 0; }
  const Function* const& entry() const { return function_; }

 private:
  const Function* function_;
};

// A STACK WIN line without its range. All fields are valid (WindowsFrameInfo::VALID_ALL).
struct StackWinRecord : StackWinSizes {
  const char* program_string;  // empty if there is none
  int8_t type;                 // a WindowsFrameInfo::StackInfoTypes value
  bool allocates_base_pointer;
};

class BasicSourceLineResolver::Module : public SourceLineResolverBase::Module {
 public:
  using FileMap = BlockMap<int, const char*>;
  using FunctionMap = RangeMap<MemAddr, const Function*, FunctionRange>;
  using PublicMap = AddressMap<MemAddr, PublicSymbol>;
  using StackWinMap = ContainedRangeMap<MemAddr, StackWinRecord>;
  using StackWinMaps = std::array<StackWinMap, WindowsFrameInfo::STACK_INFO_LAST>;
  using CFIInitialMap = RangeMap<MemAddr, const char*>;
  using CFIDeltaMap = BlockMap<MemAddr, const char*>;

  explicit Module(const std::string& name) : name_(name) {}

  // Loads text or, if the data begins with "SYMB", a SYMB block. Text is modified and may be
  // released afterwards. A block must outlive the module. Always returns true.
  bool LoadMapFromMemory(char* memory_buffer, size_t memory_buffer_size) override;
  // Like LoadMapFromMemory, but the text ends at its first NUL, and the module's strings point into
  // it: it must outlive the module and not be changed. Only the lower 32 bits of the numbers of
  // line records and inline sites are stored, as in SYMB.
  bool LoadMapInPlace(char* memory_buffer, size_t memory_buffer_size);
  bool IsCorrupt() const override { return bad_lines_.count > 0; }
  BadLines FindBadLines() const override { return bad_lines_; }
  void LookupAddress(StackFrame* frame) const override;
  WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) const override;
  CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) const override;
  void LookupAddresses(std::span<const uint64_t> addresses, std::span<ResolvedAddress> answers,
                       ResolvedInlines* inlines) const override;
  void IndexTables() override;

  // The memory that the symbols of a text take, in bytes. 0 for a SYMB block.
  size_t ByteCount() const;

  // Load and lookups for a SYMB block. The lookups find nothing unless one is loaded.
  virtual bool LoadMapFromMemoryB(char* memory_buffer, size_t memory_buffer_size);
  virtual void LookupAddressB(StackFrame* frame) const;
  virtual void LookupAddressBInline(StackFrame* frame) const;
  virtual WindowsFrameInfo* FindWindowsFrameInfoB(const StackFrame* frame) const;
  virtual CFIFrameInfo* FindCFIFrameInfoB(const StackFrame* frame) const;
  virtual void LookupAddressesB(std::span<const uint64_t> addresses,
                                std::span<ResolvedAddress> answers, ResolvedInlines* inlines) const;

  // What loading text fills.
  const FileMap& Files() const { return files_; }                           // by number
  const FunctionMap& Functions() const { return functions_; }               // by last address
  const PublicMap& Publics() const { return public_symbols_; }              // by address
  const StackWinMaps& WinFrameInfo() const { return windows_frame_info_; }  // by type
  const CFIInitialMap& CFI() const { return cfi_initial_rules_; }           // by last address
  const CFIDeltaMap& CFIDelta() const { return cfi_delta_rules_; }          // by address

 private:
  friend class TextModuleLoader;

  bool Load(char* buffer, size_t size, StringStorage::Place strings);
  void Resolve(MemAddr address, ResolvedAddress* answer, ResolvedInlines* inlines) const;
  void AppendInlines(const Function& function, MemAddr address, ResolvedInlines* inlines) const;

  bool symb_loaded_ = false;
  const char* symb_base_ = nullptr;  // not owned
  size_t symb_size_ = 0;
  std::unique_ptr<const SymbIndex> symb_index_;  // null if there is none
  std::string name_;
  FileMap files_;
  FunctionMap functions_;
  PublicMap public_symbols_;
  BadLines bad_lines_;
  StackWinMaps windows_frame_info_;
  CFIInitialMap cfi_initial_rules_;
  CFIDeltaMap cfi_delta_rules_;
  Arena arena_;
};

}  // namespace google_breakpad
