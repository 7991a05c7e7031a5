// What was added to a table since the last look at it, while other processes change it.
//
// The order of a chain is that of adding, so what is new follows the record that was seen last.
// Where that record was deleted, or the file replaced, the new ones are found back from the end of
// the chain: up to a record that was seen. Only the latest that were seen are remembered. Where all
// of these are gone too, the counts of the table bound the search: it has as many new records as
// were added, less those that were deleted since. Of the records in question, those are new that
// were created no earlier than the last one seen.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

namespace qvdb::tool {

class RecordFeed {
 public:
  // Takes a new record; false to stop.
  using Take = std::function<bool(const Record&)>;

  // Regards what the table has now as seen.
  void begin(const Table& table);

  // Regards a record as seen. To be called in the order of the chain.
  void note(const Record& record);

  // Whether there is a record that it regards as seen.
  bool hasSeen() const { return last_.has_value(); }

  // Calls take(record) for each record that was added since, oldest first, and regards it as seen.
  // False when take() has returned false. After an Error, the next call goes on with the next
  // record.
  bool takeNew(const Table& table, const Take& take);

  // Another file has the table now: positions and counts are not to be compared.
  void fileWasReplaced();

 private:
  // How many of the records at the end of the chain are new: at least `certain`, at most `most`.
  struct Bounds {
    uint64_t certain;
    uint64_t most;
  };

  static constexpr size_t kRemembered = 1024;

  bool takeAll(RecordRange walk, const Take& take);
  bool takeAfterLast(const Table& table, const Take& take, bool* isDone);
  bool takeFromEnd(const Table& table, const TableInfo& now, const Take& take);
  std::vector<Record> newFromEnd(const Table& table, const TableInfo& now) const;
  Bounds boundsOf(const TableInfo& now) const;
  bool wasSeen(const Record& record) const;
  bool hasChanged(const TableInfo& now) const;

  std::optional<TableInfo> seenInfo_;  // nothing for a file at which no look was taken
  std::optional<RecordInfo> last_;     // the record that was seen last
  bool knowsPlace_ = false;            // where that is
  std::deque<Id> order_;
  // When the records of these identifiers were created: an identifier may be used again.
  std::unordered_map<uint64_t, uint32_t> remembered_;
};

}  // namespace qvdb::tool
