// The records that a walk of the link repair has reached: in order, in a list, and as a set of
// their positions, so that "has it been here?" costs the same for the millionth record as for the
// first.
#pragma once

#include <unordered_set>

#include "maintenance/link_repair.h"
#include "support/seeded_hash.h"

namespace qvdbase::maintenance {

class VisitedRecords {
 public:
  bool has(int64_t recordPos) const { return positions_.count(recordPos) != 0; }

  // Appends a copy. Memory that runs out leaves as an exception.
  void append(const recordPartP1Class& entry) {
    positions_.insert(entry.recordPos);
    list_.Add(&entry, sizeof entry);
  }

  void appendIfNew(const recordPartP1Class& entry) {
    if (!has(entry.recordPos)) append(entry);
  }

  void clear() {
    list_.DelAll();
    positions_.clear();
  }

  int size() const { return list_.GetSize(); }
  bool empty() const { return size() == 0; }

  // The node of that index, or null. It costs a walk from the first: take it once and follow the
  // links of the nodes.
  QVNode* nodeAt(int index) { return list_.GetNodeAt(index); }
  QVNode* first() { return nodeAt(0); }

  static recordPartP1Class& entryOf(QVNode* node) {
    return *static_cast<recordPartP1Class*>(node->data);
  }

 private:
  QVList list_;
  std::unordered_set<int64_t, support::SeededHash> positions_;
};

}  // namespace qvdbase::maintenance
