// A hash map from record identifiers to file positions, 16 bytes an entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "support/seeded_hash.h"

namespace qvdb::detail {

// Identifiers are not random in all their bits, and whoever makes a file chooses them: the hash is
// another one in each process.
//
// Open addressing with linear probing; erasing moves later entries back, so that there are no
// tombstones and a search ends at the first empty place. Position 0 marks an empty place: no record
// stands there.
class IndexMap {
 public:
  explicit IndexMap(const qvdbase::support::HashSeed& seed = qvdbase::support::hashSeed())
      : seed_(seed) {}

  // Makes room for so many keys at once, with a few to come, in a map that is empty. Throws
  // std::bad_alloc.
  void reserve(size_t count);

  // Keeps the position that is there already. Returns whether there was none. Throws
  // std::bad_alloc.
  bool insert(uint64_t key, int64_t position);

  // Sets the position of a key that is there; no effect on others.
  void replace(uint64_t key, int64_t position);

  void erase(uint64_t key);
  std::optional<int64_t> find(uint64_t key) const;
  void clear();

  size_t size() const { return size_; }
  // How many places a search for this key looks at.
  size_t stepsTo(uint64_t key) const;
  size_t bytes() const { return places_.capacity() * sizeof(Entry); }

 private:
  struct Entry {
    uint64_t key = 0;
    int64_t position = 0;
  };

  size_t home(uint64_t key) const;
  size_t placeOf(uint64_t key) const;  // of the key, or the empty place where it belongs
  size_t next(size_t place) const { return place + 1 == places_.size() ? 0 : place + 1; }
  void grow();

  qvdbase::support::HashSeed seed_;
  std::vector<Entry> places_;
  size_t size_ = 0;
};

}  // namespace qvdb::detail
