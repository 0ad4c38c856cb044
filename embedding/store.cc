#include "embedding/store.h"

#include <algorithm>

#include "base/printable.h"
#include "common/tree_path.h"
#include "embedding/status.h"
#include "embedding/structure.h"
#include "processor/logging.h"

namespace symforge_internal {

namespace {

using Clock = std::chrono::steady_clock;

// Limits what searches for ever new names can make the store remember.
constexpr size_t kMostMissing = 16384;
constexpr uint64_t kLongestTime = uint64_t{1} << 40;  // milliseconds
constexpr size_t kLongestName = 255;                  // bytes of a file name

bool is_name(const char* name) {
  return name != nullptr && is_tree_component(name) &&
         std::string_view(name).size() <= kLongestName;
}

}  // namespace

StoreCore::StoreCore(const symforge_store_options& options)
    : trees_(options.trees, options.trees + options.tree_count),
      idle_byte_limit_(options.idle_byte_limit),
      missing_milliseconds_(std::min(options.missing_milliseconds, kLongestTime)) {}

StoreCore::ClosedModules::~ClosedModules() {
  while (first_ != nullptr) delete std::exchange(first_, first_->next_closed);
}

symforge_status StoreCore::find(const std::string& debug_file, const std::string& identifier,
                                symforge_module** module) {
  const std::string name = debug_file + "/" + identifier;
  Lock lock(mutex_);
  if (StoreEntry* entry = wait_for_entry(lock, name)) {
    ++hit_count_;
    if (entry->state == StoreState::kMissing) return fail(entry->status, "%s", entry->text.c_str());
    if (entry->state == StoreState::kIdle) move(*entry, StoreState::kHeld);
    entry->module->references.fetch_add(1, std::memory_order_relaxed);
    *module = entry->module;
    return SYMFORGE_OK;
  }

  StoreEntry& entry = add_entry(name);
  lock.unlock();
  symforge_status status = SYMFORGE_OK;
  std::unique_ptr<symforge_module> opened;
  try {
    status = open_in_trees(debug_file, identifier, opened);
    lock.lock();
    opened_.notify_all();
    if (status == SYMFORGE_OK) {
      *module = opened.get();
      hold(entry, std::move(opened));
    } else {
      miss(entry, status);
    }
  } catch (...) {
    if (!lock.owns_lock()) lock.lock();
    opened_.notify_all();
    remove(entry);
    throw;
  }
  return status;
}

// Returns the entry of a name whose module is open or known to be missing; null if there is none.
StoreEntry* StoreCore::wait_for_entry(Lock& lock, const std::string& name) {
  while (true) {
    const auto found = entries_.find(name);
    if (found == entries_.end()) return nullptr;
    StoreEntry& entry = *found->second;
    if (entry.state == StoreState::kMissing && entry.expires <= Clock::now()) {
      remove(entry);
      return nullptr;
    }
    if (entry.state != StoreState::kOpening) return &entry;
    opened_.wait(lock);
  }
}

StoreEntry& StoreCore::add_entry(const std::string& name) {
  Entries added(1);
  added.front().name = name;
  added.front().position = added.begin();
  entries_.emplace(added.front().name, &added.front());
  opening_.splice(opening_.end(), added);
  return opening_.back();
}

// Opens the first file that can be opened. Otherwise the first failure counts.
symforge_status StoreCore::open_in_trees(const std::string& debug_file,
                                         const std::string& identifier,
                                         std::unique_ptr<symforge_module>& opened) const {
  symforge_status failure = SYMFORGE_OK;
  std::string text;
  for (const std::string& tree : trees_) {
    for (const bool binary : {true, false}) {
      const std::string path = tree_path(tree, debug_file, identifier, binary);
      opened = std::make_unique<symforge_module>();
      const symforge_status status = opened->contents.open(path.c_str());
      if (status == SYMFORGE_OK) return SYMFORGE_OK;
      opened.reset();
      if (status == SYMFORGE_ERROR_MEMORY) return status;
      if (status == SYMFORGE_ERROR_NOT_FOUND || failure != SYMFORGE_OK) continue;
      failure = status;
      text = symforge_last_error();
      SYMFORGE_LOG(ERROR) << text;
    }
  }
  if (failure != SYMFORGE_OK) return fail(failure, "%s", text.c_str());
  return fail(SYMFORGE_ERROR_NOT_FOUND, "%s/%s: not in the symbol trees",
              printable(debug_file).c_str(), printable(identifier).c_str());
}

void StoreCore::hold(StoreEntry& entry, std::unique_ptr<symforge_module> module) {
  module->store = shared_from_this();
  module->entry = &entry;
  entry.byte_count = module->contents.byte_count();
  entry.module = module.release();
  move(entry, StoreState::kHeld);
  ++open_count_;
}

// Remembers the failure of a search, unless that is not wanted or memory has run out.
void StoreCore::miss(StoreEntry& entry, symforge_status status) {
  if (missing_milliseconds_ == 0 || status == SYMFORGE_ERROR_MEMORY) {
    remove(entry);
    return;
  }
  entry.text = symforge_last_error();
  entry.status = status;
  entry.expires = Clock::now() + std::chrono::milliseconds(missing_milliseconds_);
  while (!missing_.empty() &&
         (missing_.size() >= kMostMissing || missing_.front().expires <= Clock::now())) {
    remove(missing_.front());
  }
  move(entry, StoreState::kMissing);
}

StoreCore::Entries& StoreCore::list_of(StoreState state) {
  switch (state) {
    case StoreState::kOpening:
      return opening_;
    case StoreState::kHeld:
      return held_;
    case StoreState::kIdle:
      return idle_;
    case StoreState::kMissing:
      break;
  }
  return missing_;
}

// Moves an entry to the end of the list of `state`.
void StoreCore::move(StoreEntry& entry, StoreState state) noexcept {
  if (entry.state == StoreState::kHeld) held_bytes_ -= entry.byte_count;
  if (entry.state == StoreState::kIdle) idle_bytes_ -= entry.byte_count;
  Entries& target = list_of(state);
  target.splice(target.end(), list_of(entry.state), entry.position);
  entry.state = state;
  if (state == StoreState::kHeld) held_bytes_ += entry.byte_count;
  if (state == StoreState::kIdle) idle_bytes_ += entry.byte_count;
}

// Removes an entry, whose module the caller takes over.
void StoreCore::remove(StoreEntry& entry) noexcept {
  move(entry, StoreState::kMissing);
  entries_.erase(entry.name);
  missing_.erase(entry.position);
}

void StoreCore::evict(uint64_t limit, ClosedModules& closed) noexcept {
  while (idle_bytes_ > limit || (limit == 0 && !idle_.empty())) {
    closed.add(idle_.front().module);
    remove(idle_.front());
    ++evict_count_;
  }
}

void StoreCore::release(symforge_module* module) noexcept {
  // Only the last reference needs the lock, and only find() can add one to it.
  uint64_t references = module->references.load(std::memory_order_relaxed);
  while (references > 1) {
    if (module->references.compare_exchange_weak(
            references, references - 1, std::memory_order_release, std::memory_order_relaxed)) {
      return;
    }
  }
  ClosedModules closed;
  const std::lock_guard lock(mutex_);
  if (module->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (module->entry == nullptr) {
    closed.add(module);
    return;
  }
  move(*module->entry, StoreState::kIdle);
  evict(idle_byte_limit_, closed);
}

void StoreCore::forget() noexcept {
  ClosedModules closed;
  const std::lock_guard lock(mutex_);
  const uint64_t evicted = evict_count_;
  evict(0, closed);
  evict_count_ = evicted;  // these are not closed because of the limit
  while (!missing_.empty()) remove(missing_.front());
  while (!held_.empty()) {
    held_.front().module->entry = nullptr;
    remove(held_.front());
  }
}

symforge_store_info StoreCore::info() const {
  const std::lock_guard lock(mutex_);
  symforge_store_info info = {};
  info.held_count = held_.size();
  info.held_bytes = held_bytes_;
  info.idle_count = idle_.size();
  info.idle_bytes = idle_bytes_;
  info.missing_count = missing_.size();
  info.open_count = open_count_;
  info.hit_count = hit_count_;
  info.evict_count = evict_count_;
  return info;
}

void close_in_store(symforge_module* module) noexcept {
  // The module may be deleted, and with it the last reference to the store.
  const std::shared_ptr<StoreCore> store = module->store;
  store->release(module);
}

}  // namespace symforge_internal

struct symforge_store {
  std::shared_ptr<symforge_internal::StoreCore> core;
};

using symforge_internal::fail;
using symforge_internal::guarded;
using symforge_internal::has_size;

symforge_status symforge_store_open(const symforge_store_options* options, symforge_store** store) {
  if (store != nullptr) *store = nullptr;
  if (store == nullptr || !has_size(options) ||
      (options->trees == nullptr && options->tree_count > 0)) {
    return fail(SYMFORGE_ERROR_ARGUMENT,
                "symforge_store_open: null argument or wrong size of a structure");
  }
  for (uint32_t i = 0; i < options->tree_count; ++i) {
    if (options->trees[i] == nullptr) {
      return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_store_open: a tree is null");
    }
  }
  return guarded([&] {
    auto opened = std::make_unique<symforge_store>();
    opened->core = std::make_shared<symforge_internal::StoreCore>(*options);
    *store = opened.release();
    return SYMFORGE_OK;
  });
}

symforge_status symforge_store_find(symforge_store* store, const char* debug_file,
                                    const char* debug_identifier, symforge_module** module) {
  using symforge_internal::is_name;
  if (module != nullptr) *module = nullptr;
  if (store == nullptr || module == nullptr) {
    return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_store_find: null argument");
  }
  if (!is_name(debug_file) || !is_name(debug_identifier)) {
    return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_store_find: not a name in a symbol tree");
  }
  return guarded([&] { return store->core->find(debug_file, debug_identifier, module); });
}

symforge_status symforge_store_forget(symforge_store* store) {
  if (store == nullptr)
    return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_store_forget: null argument");
  store->core->forget();
  return SYMFORGE_OK;
}

symforge_status symforge_store_get_info(symforge_store* store, symforge_store_info* info) {
  if (store == nullptr || !has_size(info)) {
    return fail(SYMFORGE_ERROR_ARGUMENT,
                "symforge_store_get_info: null argument or wrong size of a structure");
  }
  symforge_internal::store(store->core->info(), info->size, info);
  return SYMFORGE_OK;
}

void symforge_store_close(symforge_store* store) {
  if (store == nullptr) return;
  store->core->forget();
  delete store;
}
