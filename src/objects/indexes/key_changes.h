// What a change of a record means for the indexes of its table's keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "objects/indexes/table_keys.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// A payload as it will be: the caller's, or made for the purpose.
struct PayloadAfter {
  std::span<const std::byte> bytes;
  std::vector<std::byte> own;
};

// The keys that a record gets by a change.
//
// They are made before the change, without a turn. So the operation is tried: where isReady() says
// that keys have to be made, or an index looked at, it ends without having written anything, and is
// tried again after prepare().
class KeyChange {
 public:
  KeyChange(const std::shared_ptr<OpenDatabase>& database, const char* name, Id table)
      : database_(database), name_(name), table_(table) {}

  // Whether the table has indexes of keys.
  static bool concerns(const Operation& operation, Id table);

  // Whether the change can be made in this turn.
  //
  // after        the payload that the record will have
  // ownPosition  where the record is that is changed, or 0
  //
  // Throws key_exists where a batch that is open has one of the keys already.
  bool isReady(const Operation& operation, PayloadAfter&& after, int64_t ownPosition);

  // Makes the keys, and looks at the records that seem to have them. Throws what the functions
  // throw, and key_exists.
  void prepare();

  // Note the change, once it is made, in its turn.
  void noteAdded(const tablePart1& slot, int64_t position) const noexcept;
  void noteInPlace(int64_t position) const noexcept;
  void noteMoved(const tablePart1& slot, int64_t from, int64_t to) const noexcept;

 private:
  friend class BatchKeys;
  struct Each {
    std::shared_ptr<TableKeys> index;
    KeyList keys;
  };

  bool isMadeOf(const PayloadAfter& after) const;
  bool holdsAllIndexes(const std::vector<std::shared_ptr<TableKeys>>& indexes) const;
  void requireNotInBatch(const Operation& operation) const;
  bool isFree(const Operation& operation, const Each& each) const;
  void requireFree(const Each& each) const;
  [[noreturn]] void failKeyExists(const Operation& operation, const std::string& where) const;

  const std::shared_ptr<OpenDatabase>& database_;  // of the object that makes the change
  const char* const name_;
  const Id table_;
  std::vector<Each> made_;
  PayloadAfter payload_;  // of which they are made
  bool isMade_ = false;
  int64_t ownPosition_ = 0;
  uint64_t changes_ = 0;
  int tries_ = 0;
};

// The keys of the records of a batch. The indexes get them when a record is added to it: until the
// batch is finished no lookup finds a record there, and none takes the entry out.
class BatchKeys {
 public:
  // Whether the batch has a record with this key for a unique index.
  bool has(const TableKeys& index, std::string_view key) const;

  // Whether a position is that of one of its records.
  bool isPositionOf(int64_t position) const { return first_ != 0 && position >= first_; }

  // To be called before a record is added to the batch. Throws std::bad_alloc.
  void take(const KeyChange& change);
  // And after it.
  void add(const KeyChange& change, int64_t position) noexcept;

  // The batch has become part of its table, with so many records, or was discarded.
  void finish(const OpenDatabase& database, Id table, const tablePart1& slot,
              uint32_t count) noexcept;
  void discard() noexcept;

 private:
  struct Each {
    std::weak_ptr<TableKeys> index;
    uint64_t generation = 0;                   // of its maps, when the first key was entered
    std::set<std::string, std::less<>> taken;  // of a unique index
  };
  Each& of(const std::shared_ptr<TableKeys>& index);

  std::vector<Each> indexes_;
  int64_t first_ = 0;
};

// Makes an operation that changes keys: `change` is given the operation and the keys, and returns
// nothing where the keys are not ready. `keys` must be of the same database.
template <typename Change>
auto withKeys(const std::shared_ptr<OpenDatabase>& database, const char* name, Id table,
              const Change& change) {
  KeyChange keys(database, name, table);
  for (;;) {
    {
      const Operation operation(database, name);
      if (auto result = change(operation, keys)) return *result;
    }
    keys.prepare();
  }
}

// After a deletion.
void noteKeysRemoved(const OpenDatabase& database, Id table, const tablePart1& slot) noexcept;

}  // namespace qvdb::detail
