// BlockDirectory: where the blocks of a large BlockMap are. It knows the keys alone, so that maps
// of all kinds of values share its code.
//
// Blocks are found through two levels of separators: up to 256 blocks form a group, and one array
// lists the groups. Separators are between neighbours: separator i is greater than or equal to
// every key of block (or group) i and less than every key of the next.
//
// The directory does not look into the blocks and does not free them.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace symforge_internal {

// What every block begins with: how many entries it has, and how many fit.
struct BlockHeader {
  uint32_t count;
  uint32_t capacity;
};

// Index of the first of `count` ascending keys that is not less than `key`; `count` if there is
// none. The comparisons compile to conditional moves because a branch on the keys would be
// unpredictable.
template <typename Key>
inline uint32_t first_not_less(const Key* keys, size_t count, Key key) {
  const Key* first = keys;
  while (count > 1) {
    const size_t half = count / 2;
    first += first[half - 1] < key ? half : 0;
    count -= half;
  }
  return static_cast<uint32_t>(first - keys) + (count == 1 && *first < key ? 1 : 0);
}

template <typename Key>
class BlockDirectory {
 public:
  struct Place {
    size_t group = 0;
    uint32_t in_group = 0;
    bool operator==(const Place&) const = default;
  };

  explicit BlockDirectory(BlockHeader* first) {
    groups_.push_back(std::make_unique<Group>());
    groups_[0]->blocks.push_back(first);
  }

  BlockHeader* block(Place place) const { return groups_[place.group]->blocks[place.in_group]; }

  // The place of the block that contains `key`, or into which it would be inserted.
  Place place_of(Key key) const {
    const size_t group = index_of(separators_, key);
    return {group, index_of(groups_[group]->separators, key)};
  }
  Place last() const { return last_of(groups_.size() - 1); }
  std::optional<Place> next(Place place) const {
    if (place.in_group + 1 < groups_[place.group]->blocks.size()) {
      return Place{place.group, place.in_group + 1};
    }
    if (place.group + 1 < groups_.size()) return Place{place.group + 1, 0};
    return std::nullopt;
  }
  // Not to be called for the first block.
  Place before(Place place) const {
    if (place.in_group > 0) return {place.group, place.in_group - 1};
    return last_of(place.group - 1);
  }

  // The keys of a block are greater than `below` and at most `highest`. False for a block at an end
  // of its group.
  bool bounds(Place place, Key& below, Key& highest) const {
    const std::vector<Key>& separators = groups_[place.group]->separators;
    if (place.in_group == 0 || place.in_group >= separators.size()) return false;
    below = separators[place.in_group - 1];
    highest = separators[place.in_group];
    return true;
  }

  // Splits the group of a place if it is full: blocks are then at other places. Returns whether it
  // was.
  bool split_if_full(Place place) {
    if (groups_[place.group]->blocks.size() < kGroupCapacity) return false;
    split_group(place.group);
    return true;
  }
  // Gets the memory for one more block in the group of a place, which must not be full.
  void reserve(Place place) {
    groups_[place.group]->blocks.reserve(kGroupCapacity);
    groups_[place.group]->separators.reserve(kGroupCapacity);
  }
  // Inserts a block as the next one of `place`, for which reserve() was called. `separator`: less
  // than every key of the new block, and not less than any key of the block at `place`.
  void insert_next(Place place, Key separator, BlockHeader* block) {
    Group& group = *groups_[place.group];
    const auto index = static_cast<ptrdiff_t>(place.in_group);
    group.separators.insert(group.separators.begin() + index, separator);
    group.blocks.insert(group.blocks.begin() + index + 1, block);
  }
  // Removes a block, which must not be the only one. Returns the place of the one that followed it.
  std::optional<Place> remove(Place place);

 private:
  static constexpr size_t kGroupCapacity = 256;

  struct Group {
    std::vector<Key> separators;
    std::vector<BlockHeader*> blocks;
  };

  static uint32_t index_of(const std::vector<Key>& separators, Key key) {
    return first_not_less(separators.data(), separators.size(), key);
  }
  static void drop_separator(std::vector<Key>& separators, size_t index) {
    if (separators.empty()) return;
    separators.erase(separators.begin() +
                     static_cast<ptrdiff_t>(std::min(index, separators.size() - 1)));
  }
  Place last_of(size_t group) const {
    return {group, static_cast<uint32_t>(groups_[group]->blocks.size() - 1)};
  }
  void split_group(size_t group);

  std::vector<Key> separators_;
  std::vector<std::unique_ptr<Group>> groups_;
};

// Moves the upper half of a full group's blocks to a new group that follows it. The last group of
// the map keeps all but one, because ascending input does not insert into it again.
template <typename Key>
void BlockDirectory<Key>::split_group(size_t index) {
  Group& left = *groups_[index];
  const bool last = index + 1 == groups_.size();
  const auto keep = static_cast<ptrdiff_t>(last ? kGroupCapacity - 1 : kGroupCapacity / 2);
  auto right = std::make_unique<Group>();
  right->blocks.assign(left.blocks.begin() + keep, left.blocks.end());
  right->separators.assign(left.separators.begin() + keep, left.separators.end());
  const auto at = static_cast<ptrdiff_t>(index);
  separators_.insert(separators_.begin() + at, left.separators[static_cast<size_t>(keep) - 1]);
  groups_.insert(groups_.begin() + at + 1, std::move(right));
  left.blocks.resize(static_cast<size_t>(keep));
  left.separators.resize(static_cast<size_t>(keep) - 1);
}

template <typename Key>
std::optional<typename BlockDirectory<Key>::Place> BlockDirectory<Key>::remove(Place place) {
  Group& group = *groups_[place.group];
  group.blocks.erase(group.blocks.begin() + place.in_group);
  drop_separator(group.separators, place.in_group);
  if (group.blocks.empty()) {
    groups_.erase(groups_.begin() + static_cast<ptrdiff_t>(place.group));
    drop_separator(separators_, place.group);
  } else if (place.in_group < group.blocks.size()) {
    return place;
  } else {
    ++place.group;
  }
  if (place.group == groups_.size()) return std::nullopt;
  return Place{place.group, 0};
}

}  // namespace symforge_internal
