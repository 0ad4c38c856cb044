// What a symforge_module of the C interface is.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "embedding/text_identity.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/resolved_address.h"
#include "processor/symbol_file.h"
#include "symforge/symforge.h"

namespace symforge_internal {

class StoreCore;
struct StoreEntry;

// Releases a reference to a module of a store. The last one makes the module idle.
void close_in_store(symforge_module* module) noexcept;

// The symbols and the identity of a module. Immutable after opening.
class ModuleSymbols {
 public:
  using Symbols = google_breakpad::BasicSourceLineResolver::Module;

  // Each may be called once. If one fails, the error text is set and the object is of no use.
  symforge_status open(const char* path);
  symforge_status open_memory(const char* data, size_t size);

  const Symbols& symbols() const { return symbols_; }
  symforge_module_info info() const;
  uint64_t byte_count() const { return is_symb() ? symb_.size() : symbols_.ByteCount(); }

 private:
  bool is_symb() const { return symb_.data() != nullptr; }
  // `name` is what messages call the contents.
  symforge_status take_symb(std::string_view block, const char* name);
  symforge_status take_text(std::unique_ptr<char[]> text, size_t size, const char* name);
  symforge_module_info symb_info() const;
  symforge_module_info text_info() const;

  google_breakpad::SymbolFile file_;  // with the mapping, if there is one
  std::string_view symb_;             // the block, mapped or in the caller's memory
  TextIdentity identity_;
  Symbols symbols_{std::string()};
};

}  // namespace symforge_internal

// A counted reference to symbols. Those of a store are linked to it (embedding/store.h).
struct symforge_module {
  std::atomic<uint64_t> references = 1;
  symforge_internal::ModuleSymbols contents;
  std::shared_ptr<symforge_internal::StoreCore> store;  // null if it was opened by the caller
  symforge_internal::StoreEntry* entry = nullptr;       // null if the store has forgotten it
  symforge_module* next_closed = nullptr;
};
