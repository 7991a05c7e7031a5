// What an index knows of the keys: hashes, and keys in order, in memory; or kept in a file, with
// what was changed since in memory before it.
//
// What was entered counts wherever it is; of the file, what was taken out since does not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "objects/indexes/key_map.h"
#include "objects/indexes/ordered_keys.h"
#include "objects/kept/kept_pages.h"
#include "support/seeded_hash.h"

namespace qvdb::detail {

class KeyMaps {
 public:
  using Place = OrderedKeys::Place;

  // seed  of the hashes
  explicit KeyMaps(const qvdbase::support::HashSeed& seed = qvdbase::support::hashSeed())
      : seed_(seed) {}

  void reserve(size_t count) { map_.reserve(count); }

  // False when the pair is there. Throws std::bad_alloc.
  bool insert(std::string_view key, int64_t position, bool isOrdered);

  // False when it is not there. Where there is no memory to note it, the pair stays.
  bool erase(std::string_view key, int64_t position) noexcept;

  // Whether a key, or another one with its hash, has a position in memory.
  bool containsInMemory(std::string_view key) const { return map_.contains(hashOf(key)); }

  // Appends positions of a key, and of others with its hash, after one, ascending; `most` at most.
  void list(std::string_view key, int64_t after, size_t most,
            std::vector<int64_t>* positions) const;

  // Appends keys after a place, up to but not including the key `to`, if there is one; `most` at
  // most. Of an ordered index.
  void listKeys(const Place& after, const std::string* to, size_t most,
                std::vector<Place>* places) const;

  // The same after the records have got other places: newPlace(position), 0 for none. In memory.
  // Throws std::bad_alloc.
  KeyMaps moved(const std::function<int64_t(int64_t)>& newPlace) const;

  // Begins with what is in the file, which has the hashes of its own seed.
  void use(std::shared_ptr<KeptPages> kept);

  bool isKept() const { return kept_ != nullptr; }
  // After that has become true, the maps mean nothing, and are to be replaced.
  bool isBroken() const { return kept_ != nullptr && kept_->isBroken(); }

  // Whether they were changed since the file is used, or was saved.
  bool isChanged() const { return isChanged_; }
  void markSaved() { isChanged_ = false; }

  // Pairs, about, where they are kept.
  size_t size() const;
  size_t bytes() const;

  // For writing them to a file: see IdentifierMap.
  const qvdbase::support::HashSeed& seed() const { return seed_; }
  KeptPages* kept() const { return kept_.get(); }
  size_t inMemory() const { return map_.size(); }
  void collect(uint64_t from, uint64_t to,
               std::vector<qvdbase::format::kept::HashEntry>* entries) const {
    map_.collect(from, to, entries);
  }
  bool hides(const qvdbase::format::kept::HashEntry& entry) const {
    return dropped_.contains(entry.hash, entry.position);
  }

 private:
  uint64_t hashOf(std::string_view key) const { return hashOfKey(key, seed_); }
  bool isInFile(uint64_t hash, int64_t position) const;

  qvdbase::support::HashSeed seed_;
  KeyMap map_;
  OrderedKeys ordered_;  // nothing unless the index is ordered
  std::shared_ptr<KeptPages> kept_;
  KeyMap dropped_;  // of the file
  bool isChanged_ = true;
};

}  // namespace qvdb::detail
