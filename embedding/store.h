// StoreCore: the store of the C interface. Modules of symbol trees, shared by reference counting.
//
// There is an entry for each name that was searched for. Entries are listed by their state:
// opening, held (somebody has a reference), idle (nobody has; least recently used first) and
// missing (oldest first). A module is opened without the lock, by the first thread that searches
// for it; others wait.
//
// Releasing a reference allocates nothing: it moves the entry between lists and closes the modules
// that exceed the limit.

#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "embedding/module.h"
#include "symforge/symforge.h"

namespace symforge_internal {

enum class StoreState { kOpening, kHeld, kIdle, kMissing };

struct StoreEntry {
  std::string name;  // such as "a.pdb/515D...1"
  StoreState state = StoreState::kOpening;
  symforge_module* module = nullptr;  // of a held or idle entry
  uint64_t byte_count = 0;            // of that module
  // Of a missing entry: the result of searches, and until when it is used.
  symforge_status status = SYMFORGE_OK;
  std::string text;
  std::chrono::steady_clock::time_point expires = {};
  std::list<StoreEntry>::iterator position = {};  // of this entry in its list
};

class StoreCore : public std::enable_shared_from_this<StoreCore> {
 public:
  explicit StoreCore(const symforge_store_options& options);

  symforge_status find(const std::string& debug_file, const std::string& identifier,
                       symforge_module** module);
  // Releases a reference to a module of this store.
  void release(symforge_module* module) noexcept;
  // Closes idle modules, and removes all entries except those being opened. Held modules are closed
  // when they are released.
  void forget() noexcept;
  symforge_store_info info() const;

 private:
  using Entries = std::list<StoreEntry>;
  using Lock = std::unique_lock<std::mutex>;

  // Modules to delete when the lock is released: declare it before the lock.
  class ClosedModules {
   public:
    ClosedModules() = default;
    ~ClosedModules();
    ClosedModules(const ClosedModules&) = delete;
    ClosedModules& operator=(const ClosedModules&) = delete;
    void add(symforge_module* module) { module->next_closed = std::exchange(first_, module); }

   private:
    symforge_module* first_ = nullptr;
  };

  StoreEntry* wait_for_entry(Lock& lock, const std::string& name);
  StoreEntry& add_entry(const std::string& name);
  symforge_status open_in_trees(const std::string& debug_file, const std::string& identifier,
                                std::unique_ptr<symforge_module>& opened) const;
  void hold(StoreEntry& entry, std::unique_ptr<symforge_module> module);
  void miss(StoreEntry& entry, symforge_status status);

  Entries& list_of(StoreState state);
  void move(StoreEntry& entry, StoreState state) noexcept;
  void remove(StoreEntry& entry) noexcept;
  void evict(uint64_t limit, ClosedModules& closed) noexcept;

  const std::vector<std::string> trees_;
  const uint64_t idle_byte_limit_;
  const uint64_t missing_milliseconds_;

  mutable std::mutex mutex_;
  std::condition_variable opened_;
  std::map<std::string_view, StoreEntry*> entries_;  // by name
  Entries opening_;
  Entries held_;
  Entries idle_;
  Entries missing_;
  uint64_t held_bytes_ = 0;
  uint64_t idle_bytes_ = 0;
  uint64_t open_count_ = 0;
  uint64_t hit_count_ = 0;
  uint64_t evict_count_ = 0;
};

}  // namespace symforge_internal
