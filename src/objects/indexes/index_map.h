// A hash map from record identifiers to file positions, 16 bytes an entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/host/large_array.h"
#include "support/seeded_hash.h"

namespace qvdb::detail {

// Identifiers are not random in all their bits, and the maker of a file can choose them: so the
// hash differs from process to process.
//
// Open addressing with linear probing. Erasing moves later entries back, so that there are no
// tombstones and a search ends at the first empty place. Position 0 marks an empty place: no record
// is at the beginning of a file.
class IndexMap {
 public:
  explicit IndexMap(const qvdbase::support::HashSeed& seed = qvdbase::support::hashSeed())
      : seed_(seed) {}

  // Allocates places for so many keys, and for a few more, in a map that is empty. Throws
  // std::bad_alloc.
  void reserve(size_t count);

  // Adds a key. False, with its position unchanged, when it is there already. Throws
  // std::bad_alloc.
  bool insert(uint64_t key, int64_t position);

  // Sets the position of a key that is there; no effect for one that is not.
  void replace(uint64_t key, int64_t position);

  void erase(uint64_t key);
  std::optional<int64_t> find(uint64_t key) const;
  void clear();

  size_t size() const { return size_; }

  // Calls function(key, position) for each key, in no order.
  template <typename Function>
  void forEach(const Function& function) const {
    for (const Entry& entry : places_) {
      if (entry.position != 0) function(entry.key, entry.position);
    }
  }

  // Replaces each position by function(position); where that is 0, the key is taken out. Throws
  // std::bad_alloc; the map means nothing then.
  template <typename Function>
  void movePositions(const Function& function) {
    std::vector<uint64_t> gone;
    for (Entry& entry : places_) {
      if (entry.position == 0) continue;
      const int64_t position = function(entry.position);
      if (position == 0) gone.push_back(entry.key);
      if (position != 0) entry.position = position;
    }
    for (const uint64_t key : gone) erase(key);
  }

  // How many places a search for this key visits.
  size_t stepsTo(uint64_t key) const;
  size_t bytes() const { return places_.bytes(); }

 private:
  struct Entry {
    uint64_t key = 0;
    int64_t position = 0;
  };

  size_t home(uint64_t key) const;
  const Entry* search(uint64_t key) const;  // the key's, or the empty one where it belongs
  size_t placeOf(uint64_t key) const { return static_cast<size_t>(search(key) - places_.begin()); }
  size_t next(size_t place) const { return place + 1 == places_.size() ? 0 : place + 1; }
  void grow();

  qvdbase::support::HashSeed seed_;
  qvdbase::platform::LargeArray<Entry> places_;
  size_t size_ = 0;
};

}  // namespace qvdb::detail
