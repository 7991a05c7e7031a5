// From identifiers to file positions: a map in memory, or one that is kept in a file, with what was
// changed since in memory before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "objects/indexes/index_map.h"
#include "objects/kept/kept_pages.h"

namespace qvdb::detail {

// As IndexMap, but for isBroken(): after that has become true, what the map says means nothing, and
// it is to be cleared.
class IdentifierMap {
 public:
  void reserve(size_t count) { memory_.reserve(count); }

  // False, with its position unchanged, when the identifier is there already. Throws
  // std::bad_alloc.
  bool insert(uint64_t id, int64_t position);
  // Sets the position of one that is there; no effect for one that is not.
  void replace(uint64_t id, int64_t position);
  void erase(uint64_t id);
  std::optional<int64_t> find(uint64_t id) const {
    return kept_ == nullptr ? memory_.find(id) : findInFile(id);
  }

  // Empties it; what is in the file is no longer used.
  void clear();

  // After the records have got other places: function(position) is the new one, 0 for none. One
  // that uses a file is emptied, and false returned. Throws std::bad_alloc; it means nothing then.
  template <typename Function>
  bool movePositions(const Function& function) {
    if (kept_ != nullptr) {
      clear();
      return false;
    }
    isChanged_ = true;
    memory_.movePositions(function);
    return true;
  }

  // Begins with what is in the file.
  void use(std::shared_ptr<KeptPages> kept);

  bool isKept() const { return kept_ != nullptr; }
  bool isBroken() const { return kept_ != nullptr && kept_->isBroken(); }

  // Whether it was changed since it is used, or was saved.
  bool isChanged() const { return isChanged_; }
  void markSaved() { isChanged_ = false; }

  size_t size() const { return kept_ == nullptr ? memory_.size() : size_; }
  size_t bytes() const { return memory_.bytes() + (kept_ == nullptr ? 0 : kept_->bytes()); }

  // Where the map is kept, its hashes are those of the file; else they are made with this seed.
  qvdbase::support::HashSeed seed(const qvdbase::support::HashSeed& otherwise) const {
    return kept_ == nullptr ? otherwise : kept_->seed();
  }

  // For writing it to a file: the pages that it began with, or null; how many identifiers it has in
  // memory; those with hashes from `from` to `to`, in no order; and whether one of the file counts
  // no longer.
  KeptPages* kept() const { return kept_.get(); }
  size_t inMemory() const { return memory_.size(); }
  void collect(const qvdbase::support::HashSeed& seed, uint64_t from, uint64_t to,
               std::vector<qvdbase::format::kept::HashEntry>* entries) const;
  bool hides(uint64_t hash) const { return memory_.find(hash).has_value(); }

 private:
  static constexpr int64_t kErased = -1;

  std::optional<int64_t> findInFile(uint64_t id) const;
  std::optional<int64_t> findKept(uint64_t hash) const;
  void set(uint64_t hash, int64_t position);

  IndexMap memory_;  // by identifiers; before a file by their hashes, of which none is that of two
  std::shared_ptr<KeptPages> kept_;
  size_t size_ = 0;
  bool isChanged_ = true;
};

}  // namespace qvdb::detail
