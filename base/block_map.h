// BlockMap: the ordered map on which the address containers are built.
//
// Entries are sorted and stored in blocks of up to 64. Keys and values of a block are in separate
// arrays, so a search touches few cache lines. Blocks are found through two levels of separators:
// up to 256 blocks form a group, and one array lists the groups. Inserting in ascending or
// descending order fills every block. Other orders split blocks; the cost of an insertion stays
// logarithmic. A small map is one block that grows; an empty map owns no memory.
//
// Threads: const operations may run concurrently; a change needs exclusive access. Every change
// invalidates all iterators.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/arena.h"

namespace symforge_internal {

template <typename Key, typename Value>
class BlockMap {
  static_assert(std::is_integral_v<Key>);
  static_assert(std::is_nothrow_move_constructible_v<Value>);
  struct Block;

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
    uint32_t in_group_ = 0;  // index of the block in its group
    size_t group_ = 0;
  };

  BlockMap() = default;
  ~BlockMap() { clear(); }
  BlockMap(BlockMap&& other) noexcept
      : single_(std::exchange(other.single_, nullptr)),
        directory_(std::move(other.directory_)),
        last_(std::exchange(other.last_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  BlockMap& operator=(BlockMap&& other) noexcept {
    std::swap(single_, other.single_);
    std::swap(directory_, other.directory_);
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
    if (directory_) return directory_->memory.byte_count();
    return single_ == nullptr ? 0 : Block::bytes_for(single_->capacity);
  }

  const_iterator begin() const { return size_ == 0 ? end() : position(0, 0, 0); }
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
  static constexpr size_t kGroupCapacity = 256;
  static constexpr size_t kBlockAlignment = 16;
  static constexpr size_t kCacheLine = 64;
  static_assert(alignof(Key) <= kBlockAlignment && alignof(Value) <= kBlockAlignment);

  // One allocation: this header, then `capacity` keys, then `capacity` values.
  struct Block {
    uint32_t count;
    uint32_t capacity;

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
      return new (memory) Block{0, static_cast<uint32_t>(capacity)};
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

    // Index of the first key that is not less than `key`; `count` if there is none. The comparisons
    // compile to conditional moves because a branch on the keys would be unpredictable.
    uint32_t slot_of(Key key) {
      const Key* first = keys();
      uint32_t length = count;
      while (length > 1) {
        const uint32_t half = length / 2;
        first += first[half - 1] < key ? half : 0;
        length -= half;
      }
      return static_cast<uint32_t>(first - keys()) + (length == 1 && *first < key ? 1 : 0);
    }

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

  // Separators are between neighbours: separator i is greater than or equal to every key of block
  // (or group) i and less than every key of the next.
  struct Group {
    std::vector<Key> separators;
    std::vector<Block*> blocks;
  };
  // Owns its blocks. All have the full capacity; empty ones are reused.
  struct Directory {
    std::vector<Key> separators;
    std::vector<std::unique_ptr<Group>> groups;
    Arena memory;
    std::vector<Block*> free_blocks;

    Block* create_block() {
      if (free_blocks.empty()) {
        return Block::create(kBlockCapacity,
                             memory.allocate(Block::bytes_for(kBlockCapacity), kBlockAlignment));
      }
      Block* block = free_blocks.back();
      free_blocks.pop_back();
      return block;
    }
    ~Directory() {
      if (std::is_trivially_destructible_v<Value>) return;
      for (const std::unique_ptr<Group>& group : groups) {
        for (Block* block : group->blocks) block->destroy_values();
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

  static size_t index_of(const std::vector<Key>& separators, Key key) {
    const Key* first = separators.data();
    size_t length = separators.size();
    if (length == 0) return 0;
    while (length > 1) {
      const size_t half = length / 2;
      first += first[half - 1] < key ? half : 0;
      length -= half;
    }
    return static_cast<size_t>(first - separators.data()) + (*first < key ? 1 : 0);
  }
  static void drop_separator(std::vector<Key>& separators, size_t index) {
    if (separators.empty()) return;
    separators.erase(separators.begin() +
                     static_cast<ptrdiff_t>(std::min(index, separators.size() - 1)));
  }

  const_iterator position(size_t group, size_t in_group, size_t slot) const {
    const_iterator it;
    it.map_ = this;
    it.block_ = directory_ ? directory_->groups[group]->blocks[in_group] : single_;
    it.slot_ = static_cast<uint32_t>(slot);
    it.in_group_ = static_cast<uint32_t>(in_group);
    it.group_ = group;
    return it;
  }
  // Returns the block that contains `key`, or into which it would be inserted. The slot is not set.
  // The map must not be empty.
  const_iterator block_of(Key key) const {
    if (!directory_) return position(0, 0, 0);
    const size_t group = index_of(directory_->separators, key);
    return position(group, index_of(directory_->groups[group]->separators, key), 0);
  }
  // Prefetches what the search of a block is going to touch: the keys, and the values at the
  // position expected if the keys are evenly distributed between the separators, as function
  // addresses roughly are. The loads then overlap.
  void prefetch(const const_iterator& it, Key key) const {
    it.block_->prefetch_keys();
    if (!directory_) return;
    const std::vector<Key>& separators = directory_->groups[it.group_]->separators;
    if (it.in_group_ == 0 || it.in_group_ >= separators.size()) return;
    const auto below = static_cast<uint64_t>(separators[it.in_group_ - 1]);
    const uint64_t spread = static_cast<uint64_t>(separators[it.in_group_]) - below;
    it.block_->prefetch_values((static_cast<uint64_t>(key) - below) /
                               (spread / kBlockCapacity + 1));
  }
  const_iterator next_block(const const_iterator& it) const {
    if (!directory_) return end();
    const Group& group = *directory_->groups[it.group_];
    if (it.in_group_ + 1 < group.blocks.size()) return position(it.group_, it.in_group_ + 1, 0);
    if (it.group_ + 1 < directory_->groups.size()) return position(it.group_ + 1, 0, 0);
    return end();
  }
  const_iterator last_of(size_t group, size_t in_group) const {
    const_iterator it = position(group, in_group, 0);
    it.slot_ = it.block_->count - 1;
    return it;
  }
  // Returns the entry before `it`, which may be end() but not the first entry.
  const_iterator before(const_iterator it) const {
    if (it.block_ != nullptr && it.slot_ > 0) {
      --it.slot_;
      return it;
    }
    if (!directory_) return last_of(0, 0);
    size_t group = it.group_;
    if (it.block_ == nullptr) {
      group = directory_->groups.size() - 1;
    } else if (it.in_group_ > 0) {
      return last_of(group, it.in_group_ - 1);
    } else {
      --group;
    }
    return last_of(group, directory_->groups[group]->blocks.size() - 1);
  }
  const_iterator last_block() const {
    if (!directory_) return position(0, 0, 0);
    const size_t group = directory_->groups.size() - 1;
    return position(group, directory_->groups[group]->blocks.size() - 1, 0);
  }

  bool insert_anywhere(Key key, Value value);
  void grow_single();
  void make_directory();
  void split_group(size_t group);
  const_iterator split(const_iterator full, Key key);

  Block* single_ = nullptr;  // the only block, until a directory is needed
  std::unique_ptr<Directory> directory_;
  Block* last_ = nullptr;  // the block of the highest key after an insertion, else null
  size_t size_ = 0;
};

template <typename Key, typename Value>
void BlockMap<Key, Value>::clear() {
  destroy_single(std::exchange(single_, nullptr));
  directory_.reset();
  last_ = nullptr;
  size_ = 0;
}

template <typename Key, typename Value>
bool BlockMap<Key, Value>::insert_anywhere(Key key, Value value) {
  const_iterator it;
  if (size_ == 0) {
    if (single_ == nullptr) single_ = create_single(1);
    it = position(0, 0, 0);
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
void BlockMap<Key, Value>::make_directory() {
  auto directory = std::make_unique<Directory>();
  directory->groups.push_back(std::make_unique<Group>());
  Block* first = directory->create_block();
  directory->groups[0]->blocks.push_back(first);
  single_->move_tail(0, first);
  directory_ = std::move(directory);
  destroy_single(std::exchange(single_, nullptr));
}

// Splits a full block and returns the position at which to insert `key`. At the end and at the
// start of the map a new block is started instead and the full one stays full, so that ascending
// and descending input leave no gaps.
template <typename Key, typename Value>
typename BlockMap<Key, Value>::const_iterator BlockMap<Key, Value>::split(const_iterator full,
                                                                          Key key) {
  if (!directory_) {
    make_directory();
    full.block_ = directory_->groups[0]->blocks[0];
  }
  if (directory_->groups[full.group_]->blocks.size() == kGroupCapacity) {
    split_group(full.group_);
    full = block_of(key);
    full.slot_ = full.block_->slot_of(key);
  }
  Group& group = *directory_->groups[full.group_];
  const bool at_end = full.slot_ == kBlockCapacity && full.block_ == last_block().block_;
  const bool at_start = full.slot_ == 0 && full.group_ == 0 && full.in_group_ == 0;
  const uint32_t keep = at_end ? kBlockCapacity : at_start ? 0 : kBlockCapacity / 2;
  const auto index = static_cast<ptrdiff_t>(full.in_group_);
  group.blocks.reserve(kGroupCapacity);
  group.separators.reserve(kGroupCapacity);
  Block* right = directory_->create_block();
  full.block_->move_tail(keep, right);
  const Key separator = at_start ? key : full.block_->keys()[keep - 1];
  group.separators.insert(group.separators.begin() + index, separator);
  group.blocks.insert(group.blocks.begin() + index + 1, right);
  if (full.slot_ < keep || at_start) return full;
  const_iterator it = full;
  it.block_ = right;
  it.in_group_ = full.in_group_ + 1;
  it.slot_ = full.slot_ - keep;
  return it;
}

// Moves the upper half of a full group's blocks to a new group that follows it. The last group of
// the map keeps all but one, because ascending input does not insert into it again.
template <typename Key, typename Value>
void BlockMap<Key, Value>::split_group(size_t index) {
  Group& left = *directory_->groups[index];
  const bool last = index + 1 == directory_->groups.size();
  const auto keep = static_cast<ptrdiff_t>(last ? kGroupCapacity - 1 : kGroupCapacity / 2);
  auto right = std::make_unique<Group>();
  right->blocks.assign(left.blocks.begin() + keep, left.blocks.end());
  right->separators.assign(left.separators.begin() + keep, left.separators.end());
  const auto at = static_cast<ptrdiff_t>(index);
  directory_->separators.insert(directory_->separators.begin() + at,
                                left.separators[static_cast<size_t>(keep) - 1]);
  directory_->groups.insert(directory_->groups.begin() + at + 1, std::move(right));
  left.blocks.resize(static_cast<size_t>(keep));
  left.separators.resize(static_cast<size_t>(keep) - 1);
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
  Group& group = *directory_->groups[it.group_];
  directory_->free_blocks.push_back(it.block_);
  group.blocks.erase(group.blocks.begin() + it.in_group_);
  drop_separator(group.separators, it.in_group_);
  if (group.blocks.empty()) {
    directory_->groups.erase(directory_->groups.begin() + static_cast<ptrdiff_t>(it.group_));
    drop_separator(directory_->separators, it.group_);
    return it.group_ < directory_->groups.size() ? position(it.group_, 0, 0) : end();
  }
  if (it.in_group_ < group.blocks.size()) return position(it.group_, it.in_group_, 0);
  return it.group_ + 1 < directory_->groups.size() ? position(it.group_ + 1, 0, 0) : end();
}

}  // namespace symforge_internal
