// What an index of keys remembers of each: a hash, and where the records are that have the key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "format/index_pages.h"
#include "objects/indexes/index_map.h"

namespace qvdb::detail {

// Keys come from files too, so that this differs from process to process like the hash of numbers.
// With one seed it is the same on every host.
uint64_t hashOfKey(std::string_view key,
                   const qvdbase::support::HashSeed& seed = qvdbase::support::hashSeed());

// Positions in ascending order, in pieces of limited size: of one key there can be millions.
class PositionSet {
 public:
  // False when it is there already. Throws std::bad_alloc.
  bool insert(int64_t position);
  // False when it is not there.
  bool erase(int64_t position);

  bool empty() const { return pieces_.empty(); }
  bool hasOne() const { return pieces_.size() == 1 && pieces_[0].size() == 1; }
  int64_t first() const { return pieces_[0][0]; }

  // Appends those after a position, `most` at most.
  void list(int64_t after, size_t most, std::vector<int64_t>* positions) const;

  size_t bytes() const;

 private:
  static constexpr size_t kPiece = 512;

  size_t pieceOf(int64_t position) const;
  void split(size_t piece);

  std::vector<std::vector<int64_t>> pieces_;
};

// Any number of positions for each hash: one takes no more than an entry of the map of an index by
// identifier.
class KeyMap {
 public:
  // For so many keys, in a map that is empty. Throws std::bad_alloc.
  void reserve(size_t count) { map_.reserve(count); }

  // False when this position is there already for this hash. Throws std::bad_alloc, and is then as
  // it was.
  bool insert(uint64_t hash, int64_t position);
  // False when it is not there.
  bool erase(uint64_t hash, int64_t position);

  // Whether there is a position for a hash.
  bool contains(uint64_t hash) const { return map_.find(hash).has_value(); }

  // Appends those after a position, ascending, `most` at most.
  void list(uint64_t hash, int64_t after, size_t most, std::vector<int64_t>* positions) const;

  // Whether a hash has this position.
  bool contains(uint64_t hash, int64_t position) const;

  // Appends all pairs with hashes from `from` to `to`, in no order.
  void collect(uint64_t from, uint64_t to,
               std::vector<qvdbase::format::kept::HashEntry>* entries) const;

  size_t size() const { return size_; }
  size_t bytes() const;

 private:
  // In the map: a position, or, below 0, the number of a group.
  static int64_t asValue(size_t group) { return -1 - static_cast<int64_t>(group); }
  static size_t asGroup(int64_t value) { return static_cast<size_t>(-1 - value); }

  bool makeGroup(uint64_t hash, int64_t first, int64_t second);
  void endGroup(uint64_t hash, size_t group);

  IndexMap map_;
  std::vector<PositionSet> groups_;
  std::vector<size_t> freeGroups_;
  size_t size_ = 0;
};

}  // namespace qvdb::detail
