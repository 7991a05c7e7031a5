// Taking turns with the other openers of a database: see platform/handles/lock_bytes.h.
//
// A writer that is alone pays one question to the system for each operation: whether a reader has
// announced itself. Only then it locks what it changes; and only writers that share the database
// have turns to take.
//
// Waiting is trying again, with pauses that grow: the system can wait for a lock only without a
// limit in time. Locks are taken in the order turn, gate, change.
#pragma once

#include <cstdint>

#include "objects/open_database.h"

namespace qvdb::detail {

// What becomes of an operation that waits for its turn when another thread opens a batch of the
// same database meanwhile: one that would disturb it waits on.
enum class OwnBatch : uint8_t { isJoined, isWaitedFor };

// The turn of one operation that changes the file; it lasts until the object ends, which has to be
// after the end of the operation's transfers. Also within an open batch, which has the turn
// already.
class ChangeTurn {
 public:
  // What is changed: the file, by an operation or by the commit of a transaction. In a transaction
  // that is open nothing is changed for others, and a turn whose operation fails takes back what
  // that has written.
  enum class For : uint8_t { operation, commit };

  // Throws in_use when it cannot be obtained within the time that the database waits, and
  // cannot_write when what was committed before cannot be put into its place. In a database that
  // others share, the directory is read afresh after it.
  explicit ChangeTurn(const Operation& operation, OwnBatch batch = OwnBatch::isJoined,
                      For what = For::operation);
  ~ChangeTurn();
  ChangeTurn(const ChangeTurn&) = delete;
  ChangeTurn& operator=(const ChangeTurn&) = delete;

 private:
  void begin(const Operation& operation, OwnBatch batch, For what);
  void endInStage();
  void keepReadersOut(const Operation& operation);
  void end();

  OpenDatabase& database_;
  bool hasTurn_ = false;   // of shared writers
  bool holdsOff_ = false;  // readers
  qvdbase::platform::Stage* stage_ = nullptr;
  int exceptions_ = 0;  // that were on their way when it began
};

// What keeps readers out of the changes that are made when a database is closed, outside of
// operations.
class LastChange {
 public:
  explicit LastChange(OpenDatabase& database) noexcept;
  ~LastChange();
  LastChange(const LastChange&) = delete;
  LastChange& operator=(const LastChange&) = delete;

  // False where a reader does not finish within the time that the database waits.
  bool isAlone() const { return isAlone_; }

 private:
  OpenDatabase& database_;
  bool holdsOff_ = false;  // readers in other processes
  bool isAlone_ = true;
};

// The turn of a batch, from its beginning until endBatchTurn: nothing unless the database is
// shared. Throws in_use.
void beginBatchTurn(const Operation& operation);
void endBatchTurn(OpenDatabase& database) noexcept;

}  // namespace qvdb::detail
