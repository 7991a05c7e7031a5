// The order of a table's records while a patch changes it: each is found by its identifier, and has
// another one before it.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <vector>

namespace qvdb::tool {

class RecordOrder {
 public:
  static constexpr size_t kNone = ~size_t{0};

  // Places of records in what the caller knows of them.
  bool has(Id id) const { return nodes_.contains(id); }
  // What the caller has noted with it; it must be there.
  size_t& noted(Id id) { return nodes_.at(id).noted; }

  // Adds one at the end. False when it is there.
  bool append(Id id, size_t noted) { return insert(id, noted, last_); }
  // Adds one after another, or as the first one. False when it is there, or the other is not.
  bool insert(Id id, size_t noted, std::optional<Id> after);
  // False when it is not there.
  bool remove(Id id);

  std::optional<Id> first() const { return first_; }
  std::optional<Id> next(Id id) const { return nodes_.at(id).next; }

 private:
  struct Node {
    std::optional<Id> previous;
    std::optional<Id> next;
    size_t noted = kNone;
  };

  std::unordered_map<Id, Node> nodes_;
  std::optional<Id> first_;
  std::optional<Id> last_;
};

}  // namespace qvdb::tool
