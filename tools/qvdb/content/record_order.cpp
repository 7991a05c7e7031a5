// A list of identifiers.
#include "content/record_order.h"

namespace qvdb::tool {

bool RecordOrder::insert(Id id, size_t noted, std::optional<Id> after) {
  if (has(id) || (after && !has(*after))) return false;
  const std::optional<Id> next = after ? nodes_.at(*after).next : first_;
  nodes_.emplace(id, Node{after, next, noted});
  (after ? nodes_.at(*after).next : first_) = id;
  (next ? nodes_.at(*next).previous : last_) = id;
  return true;
}

bool RecordOrder::remove(Id id) {
  const auto found = nodes_.find(id);
  if (found == nodes_.end()) return false;
  const Node node = found->second;
  (node.previous ? nodes_.at(*node.previous).next : first_) = node.next;
  (node.next ? nodes_.at(*node.next).previous : last_) = node.previous;
  nodes_.erase(found);
  return true;
}

}  // namespace qvdb::tool
