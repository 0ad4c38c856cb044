// BlockMap: the ordered map on which the address containers are built.
//
// Entries are sorted and stored in blocks of up to 64. Keys and values of a block are in separate
// arrays, so a search touches few cache lines. Blocks are found through a BlockDirectory. Inserting
// in ascending or descending order fills every block. Other orders split blocks; the cost of an
// insertion stays logarithmic. A small map is one block that grows; an empty map owns no memory.
//
// Threads: const operations may run concurrently; a change needs exclusive access. Every change
// invalidates all iterators.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/arena.h"
#include "base/block_directory.h"

namespace symforge_internal {

template <typename Key, typename Value>
class BlockMap {
  static_assert(std::is_integral_v<Key>);
  static_assert(std::is_nothrow_move_constructible_v<Value>);
  struct Block;
  using Place = typename BlockDirectory<Key>::Place;

 public:
  class const_iterator {
   public:
    Key key() const { return block_->keys()[slot_]; }
    const Value& value() const { return block_->values()[slot_]; }
    // Returns (key, value), for range-based loops: for (auto [key, value] : map).
    std::pair<Key, const Value&> operator*() const { return {key(), value()}; }

    const_iterator& operator++() {
      if (++slot_ == block_->count) *this = map_->next_block(*this);
      return *this;
    }
    const_iterator& operator--() {
      *this = map_->before(*this);
      return *this;
    }
    bool operator==(const const_iterator& other) const {
      return block_ == other.block_ && slot_ == other.slot_;
    }

   private:
    friend class BlockMap;
    const BlockMap* map_ = nullptr;
    Block* block_ = nullptr;  // null: end()
    uint32_t slot_ = 0;
    Place place_;  // of the block
  };

  BlockMap() = default;
  ~BlockMap() { clear(); }
  BlockMap(BlockMap&& other) noexcept
      : single_(std::exchange(other.single_, nullptr)),
        large_(std::move(other.large_)),
        last_(std::exchange(other.last_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  BlockMap& operator=(BlockMap&& other) noexcept {
    std::swap(single_, other.single_);
    std::swap(large_, other.large_);
    std::swap(last_, other.last_);
    std::swap(size_, other.size_);
    return *this;
  }
  BlockMap(const BlockMap&) = delete;
  BlockMap& operator=(const BlockMap&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void clear();

  // The memory of the entries, without the separators.
  size_t byte_count() const {
    if (large_) return large_->memory.byte_count();
    return single_ == nullptr ? 0 : Block::bytes_for(single_->capacity);
  }

  const_iterator begin() const { return size_ == 0 ? end() : position(Place(), 0); }
  const_iterator end() const {
    const_iterator it;
    it.map_ = this;
    return it;
  }

  // The highest key. The map must not be empty.
  Key last_key() const {
    Block* last = last_ != nullptr ? last_ : last_block().block_;
    return last->keys()[last->count - 1];
  }

  // Returns the first entry whose key is not less than `key`, or end().
  const_iterator lower_bound(Key key) const {
    if (size_ == 0) return end();
    const_iterator it = block_of(key);
    prefetch(it, key);
    it.slot_ = it.block_->slot_of(key);
    return it.slot_ == it.block_->count ? next_block(it) : it;
  }
  // Returns the first entry whose key is greater than `key`, or end().
  const_iterator upper_bound(Key key) const {
    const_iterator it = lower_bound(key);
    if (it != end() && it.key() == key) ++it;
    return it;
  }
  const_iterator find(Key key) const {
    const const_iterator it = lower_bound(key);
    return it != end() && it.key() == key ? it : end();
  }

  // Returns false and changes nothing if `key` exists already.
  bool insert(Key key, Value value) {
    if (last_ == nullptr || last_->count == last_->capacity ||
        last_->keys()[last_->count - 1] >= key) {
      return insert_anywhere(key, std::move(value));
    }
    last_->append(key, std::move(value));
    ++size_;
    return true;
  }

  // The writable value of an entry.
  Value& value_at(const const_iterator& it) { return it.block_->values()[it.slot_]; }

  // Removes an entry; returns the next one.
  const_iterator erase(const_iterator it);

 private:
  static constexpr size_t kBlockCapacity = 64;
  static constexpr size_t kBlockAlignment = 16;
  static constexpr size_t kCacheLine = 64;
  static_assert(alignof(Key) <= kBlockAlignment && alignof(Value) <= kBlockAlignment);

  // One allocation: this header, then `capacity` keys, then `capacity` values.
  struct Block : BlockHeader {
    static constexpr size_t keys_at() { return aligned(sizeof(Block), alignof(Key)); }
    static constexpr size_t values_at(size_t capacity) {
      return aligned(keys_at() + capacity * sizeof(Key), alignof(Value));
    }
    static constexpr size_t aligned(size_t offset, size_t alignment) {
      return (offset + alignment - 1) / alignment * alignment;
    }

    static constexpr size_t bytes_for(size_t capacity) {
      return values_at(capacity) + capacity * sizeof(Value);
    }
    static Block* create(size_t capacity, void* memory) {
      return new (memory) Block{{0, static_cast<uint32_t>(capacity)}};
    }
    void destroy_values() { std::destroy_n(values(), count); }

    char* bytes() { return reinterpret_cast<char*>(this); }
    Key* keys() { return reinterpret_cast<Key*>(bytes() + keys_at()); }
    Value* values() { return reinterpret_cast<Value*>(bytes() + values_at(capacity)); }

    void prefetch_keys() {
      for (size_t at = 0; at < values_at(kBlockCapacity); at += kCacheLine) {
        __builtin_prefetch(bytes() + at);
      }
    }
    // Prefetches the values around `slot` of a block of full capacity.
    void prefetch_values(size_t slot) {
      const char* at = bytes() + values_at(kBlockCapacity) + slot * sizeof(Value) - 2 * kCacheLine;
      for (int i = 0; i < 5; ++i) __builtin_prefetch(at + i * kCacheLine);
    }

    // Index of the first key that is not less than `key`; `count` if there is none.
    uint32_t slot_of(Key key) { return first_not_less(keys(), count, key); }

    void append(Key key, Value&& value) {
      keys()[count] = key;
      new (values() + count) Value(std::move(value));
      ++count;
    }

    void insert_at(uint32_t slot, Key key, Value&& value) {
      std::copy_backward(keys() + slot, keys() + count, keys() + count + 1);
      keys()[slot] = key;
      if (slot == count) {
        new (values() + slot) Value(std::move(value));
      } else {
        new (values() + count) Value(std::move(values()[count - 1]));
        std::move_backward(values() + slot, values() + count - 1, values() + count);
        values()[slot] = std::move(value);
      }
      ++count;
    }

    void erase_at(uint32_t slot) {
      std::copy(keys() + slot + 1, keys() + count, keys() + slot);
      std::move(values() + slot + 1, values() + count, values() + slot);
      --count;
      std::destroy_at(values() + count);
    }

    // Moves the entries from `slot` onwards to the end of `other`.
    void move_tail(uint32_t slot, Block* other) {
      std::copy(keys() + slot, keys() + count, other->keys() + other->count);
      std::uninitialized_move(values() + slot, values() + count, other->values() + other->count);
      std::destroy(values() + slot, values() + count);
      other->count += count - slot;
      count = slot;
    }
  };

  // Several blocks. All have the full capacity; empty ones are reused.
  struct Large {
    Arena memory;
    std::vector<BlockHeader*> free_blocks;
    BlockDirectory<Key> directory{create_block()};

    Block* create_block() {
      if (free_blocks.empty()) {
        return Block::create(kBlockCapacity,
                             memory.allocate(Block::bytes_for(kBlockCapacity), kBlockAlignment));
      }
      Block* block = static_cast<Block*>(free_blocks.back());
      free_blocks.pop_back();
      return block;
    }
    Block* block(Place place) const { return static_cast<Block*>(directory.block(place)); }
    ~Large() {
      if (std::is_trivially_destructible_v<Value>) return;
      for (std::optional<Place> at = Place(); at; at = directory.next(*at)) {
        block(*at)->destroy_values();
      }
    }
  };

  static Block* create_single(size_t capacity) {
    return Block::create(capacity, ::operator new(Block::bytes_for(capacity)));
  }
  static void destroy_single(Block* block) {
    if (block == nullptr) return;
    block->destroy_values();
    ::operator delete(block);
  }

  const_iterator position(Place place, size_t slot) const {
    const_iterator it;
    it.map_ = this;
    it.block_ = large_ ? large_->block(place) : single_;
    it.slot_ = static_cast<uint32_t>(slot);
    it.place_ = place;
    return it;
  }
  // Returns the block that contains `key`, or into which it would be inserted. The slot is not set.
  // The map must not be empty.
  const_iterator block_of(Key key) const {
    return position(large_ ? large_->directory.place_of(key) : Place(), 0);
  }
  // Prefetches what the search of a block is going to touch: the keys, and the values at the
  // position expected if the keys are evenly distributed between the separators, as function
  // addresses roughly are. The loads then overlap.
  void prefetch(const const_iterator& it, Key key) const {
    it.block_->prefetch_keys();
    Key below = 0;
    Key highest = 0;
    if (!large_ || !large_->directory.bounds(it.place_, below, highest)) return;
    const uint64_t spread = static_cast<uint64_t>(highest) - static_cast<uint64_t>(below);
    it.block_->prefetch_values((static_cast<uint64_t>(key) - static_cast<uint64_t>(below)) /
                               (spread / kBlockCapacity + 1));
  }
  const_iterator next_block(const const_iterator& it) const {
    if (!large_) return end();
    const std::optional<Place> next = large_->directory.next(it.place_);
    return next ? position(*next, 0) : end();
  }
  // Returns the entry before `it`, which may be end() but not the first entry.
  const_iterator before(const_iterator it) const {
    if (it.block_ != nullptr && it.slot_ > 0) {
      --it.slot_;
      return it;
    }
    it = it.block_ == nullptr ? last_block() : position(large_->directory.before(it.place_), 0);
    it.slot_ = it.block_->count - 1;
    return it;
  }
  const_iterator last_block() const {
    return position(large_ ? large_->directory.last() : Place(), 0);
  }

  bool insert_anywhere(Key key, Value value);
  void grow_single();
  void make_large();
  const_iterator split(const_iterator full, Key key);

  Block* single_ = nullptr;  // the only block, until a second one is needed
  std::unique_ptr<Large> large_;
  Block* last_ = nullptr;  // the block of the highest key after an insertion, else null
  size_t size_ = 0;
};

template <typename Key, typename Value>
void BlockMap<Key, Value>::clear() {
  destroy_single(std::exchange(single_, nullptr));
  large_.reset();
  last_ = nullptr;
  size_ = 0;
}

template <typename Key, typename Value>
bool BlockMap<Key, Value>::insert_anywhere(Key key, Value value) {
  const_iterator it;
  if (size_ == 0) {
    if (single_ == nullptr) single_ = create_single(1);
    it = position(Place(), 0);
  } else if (it = last_block(); it.block_->keys()[it.block_->count - 1] < key) {
    it.slot_ = it.block_->count;  // ascending order: no search needed
  } else {
    it = block_of(key);
    it.slot_ = it.block_->slot_of(key);
    if (it.slot_ < it.block_->count && it.key() == key) return false;
  }
  if (it.block_->count == it.block_->capacity) {
    if (it.block_->capacity < kBlockCapacity) {
      grow_single();
      it.block_ = single_;
    } else {
      it = split(it, key);
    }
  }
  it.block_->insert_at(it.slot_, key, std::move(value));
  ++size_;
  last_ = last_block().block_;
  return true;
}

template <typename Key, typename Value>
void BlockMap<Key, Value>::grow_single() {
  Block* larger = create_single(std::min<size_t>(single_->capacity * 2, kBlockCapacity));
  single_->move_tail(0, larger);
  destroy_single(std::exchange(single_, larger));
}

template <typename Key, typename Value>
void BlockMap<Key, Value>::make_large() {
  large_ = std::make_unique<Large>();
  single_->move_tail(0, large_->block(Place()));
  destroy_single(std::exchange(single_, nullptr));
}

// Splits a full block and returns the position at which to insert `key`. At the end and at the
// start of the map a new block is started instead and the full one stays full, so that ascending
// and descending input leave no gaps.
template <typename Key, typename Value>
typename BlockMap<Key, Value>::const_iterator BlockMap<Key, Value>::split(const_iterator full,
                                                                          Key key) {
  if (!large_) {
    make_large();
    full.block_ = large_->block(full.place_);
  }
  if (large_->directory.split_if_full(full.place_)) {
    full = block_of(key);
    full.slot_ = full.block_->slot_of(key);
  }
  large_->directory.reserve(full.place_);
  const bool at_end = full.slot_ == kBlockCapacity && full.block_ == last_block().block_;
  const bool at_start = full.slot_ == 0 && full.place_ == Place();
  const uint32_t keep = at_end ? kBlockCapacity : at_start ? 0 : kBlockCapacity / 2;
  Block* right = large_->create_block();
  full.block_->move_tail(keep, right);
  const Key separator = at_start ? key : full.block_->keys()[keep - 1];
  large_->directory.insert_next(full.place_, separator, right);
  if (full.slot_ < keep || at_start) return full;
  const_iterator it = full;
  it.block_ = right;
  ++it.place_.in_group;
  it.slot_ = full.slot_ - keep;
  return it;
}

template <typename Key, typename Value>
typename BlockMap<Key, Value>::const_iterator BlockMap<Key, Value>::erase(const_iterator it) {
  it.block_->erase_at(it.slot_);
  last_ = nullptr;
  --size_;
  if (it.block_->count > 0) return it.slot_ < it.block_->count ? it : next_block(it);
  if (size_ == 0) {
    clear();
    return end();
  }
  large_->free_blocks.push_back(it.block_);
  const std::optional<Place> next = large_->directory.remove(it.place_);
  return next ? position(*next, 0) : end();
}

}  // namespace symforge_internal
