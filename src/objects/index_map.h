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
  explicit IndexMap(const qvdbase::HashSeed& seed = qvdbase::hashSeed()) : seed_(seed) {}

  // Makes room for so many keys at once, with a few to come, in a map that is empty. Throws
  // std::bad_alloc.
  void reserve(std::size_t count);

  // Keeps the position that is there already. Returns whether there was none. Throws
  // std::bad_alloc.
  bool insert(std::uint64_t key, std::int64_t position);

  // Sets the position of a key that is there; no effect on others.
  void replace(std::uint64_t key, std::int64_t position);

  void erase(std::uint64_t key);
  std::optional<std::int64_t> find(std::uint64_t key) const;
  void clear();

  std::size_t size() const { return size_; }
  // How many places a search for this key looks at.
  std::size_t stepsTo(std::uint64_t key) const;
  std::size_t bytes() const { return places_.capacity() * sizeof(Entry); }

 private:
  struct Entry {
    std::uint64_t key = 0;
    std::int64_t position = 0;
  };

  std::size_t home(std::uint64_t key) const;
  std::size_t placeOf(std::uint64_t key) const;  // of the key, or the empty place where it belongs
  std::size_t next(std::size_t place) const { return place + 1 == places_.size() ? 0 : place + 1; }
  void grow();

  qvdbase::HashSeed seed_;
  std::vector<Entry> places_;
  std::size_t size_ = 0;
};

}  // namespace qvdb::detail
