// The latest changes of records, for the walks, which look at them when they continue.
//
// A walk belongs to one thread, and others may change its table meanwhile. So a change does not
// touch the walks: it is noted here, under the turn of the database, and each walk applies what was
// noted since it looked last. Where more was changed than is kept, a walk looks in the file.
#pragma once

#include <qvdbase/qvdb/id.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace qvdb::detail {

// A change of one record that has been made.
struct RecordChange {
  enum class Kind { added, inPlace, moved, removed };

  Kind kind;
  Id table;
  int64_t position;    // of the record's block, before the change
  int64_t to = 0;      // moved: of its new block; removed: of the record after it, or 0
  int64_t before = 0;  // removed: of the record before it, or 0
};

// Changes are numbered from 1. Not each number has one: some are of changes about which no more is
// known.
class NotedChanges {
 public:
  static constexpr size_t kKept = 64;

  void add(uint64_t number, const RecordChange& change) {
    changes_[number % kKept] = {number, change};
  }

  // What was changed after change `before` was changed in a transaction. Its blocks from `limit` on
  // have moved; or, without a shift, it was taken back, and nothing is known of these changes.
  void endTransaction(uint64_t before, int64_t limit, std::optional<int64_t> shift) {
    for (Noted& noted : changes_) {
      if (noted.number <= before) continue;
      if (!shift) noted.number = 0;
      for (int64_t* position : {&noted.change.position, &noted.change.to, &noted.change.before}) {
        if (*position >= limit) *position += shift.value_or(0);
      }
    }
  }

  // The change of that number, or null when it was not noted, or not kept.
  const RecordChange* find(uint64_t number) const {
    const Noted& noted = changes_[number % kKept];
    return noted.number == number ? &noted.change : nullptr;
  }

 private:
  struct Noted {
    uint64_t number = 0;
    RecordChange change = {};
  };

  std::array<Noted, kKept> changes_ = {};
};

}  // namespace qvdb::detail
