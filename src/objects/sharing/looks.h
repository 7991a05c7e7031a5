// Reading beside writers.
//
// In a database that is open exclusively nothing changes while it is read. In every other one, a
// reading operation is a look: while it lasts, writers of this layer in other processes change no
// byte in place (see platform/handles/lock_bytes.h). A read beside a write can return new bytes and
// old ones mixed, and two equal reads are no proof that none was: only that exclusion is.
//
// What contradicts itself in a look is damage, or half of a change by a writer that takes no part
// in this. It is believed when a second look finds the same in a slot that is the same, and when
// every look finds it at the same record, whatever writers do to the table meanwhile.
//
// A long walk ends its look and begins another one after a limited number of steps. It needs no
// restart, because the format never uses space again: a record that has left its chain keeps its
// links, and from there the chain leads to every record that was there all the time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QVDbase/position.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// Announces the opener of a database that is not exclusively open as a reader, and takes that back.
// Where locks do not work it reads on without.
void announce(OpenDatabase& database);
void withdraw(OpenDatabase& database) noexcept;

// In a child process that got the database by fork, before its first operation: it reads as any
// other process does, with locks of its own. Throws opened_elsewhere where it cannot.
void separateFromParent(const Operation& operation);

class Look {
 public:
  // Throws in_use when a writer does not come to an end within the time that the database waits.
  explicit Look(const Operation& operation);
  ~Look();
  Look(const Look&) = delete;
  Look& operator=(const Look&) = delete;

 private:
  OpenDatabase& database_;
};

// Counts the steps of a walk and lets waiting writers through from time to time.
class Steps {
 public:
  explicit Steps(const Operation& operation) : operation_(operation) {}
  void next() {
    if (++count_ % kInOneLook == 0) pause();
  }

 private:
  static constexpr uint32_t kInOneLook = 1024;
  void pause() const;

  const Operation& operation_;
  uint32_t count_ = 0;
};

// What was found wrong in the looks of one operation.
class Doubt {
 public:
  explicit Doubt(const Operation& operation) : operation_(operation) {}

  // To be called while the error is handled. Throws it again when it is to be believed, and
  // changed_meanwhile when every look found something else; returns for another look.
  void weigh(const Error& error);

 private:
  static constexpr int kLooks = 5;

  // Which record of a table an error is about.
  struct Place {
    std::string table;
    std::optional<uint64_t> record;
    bool operator==(const Place&) const = default;
  };

  const Operation& operation_;
  std::string seen_;
  Place place_;
  int looks_ = 0;
  int looksAtPlace_ = 0;  // in which the same record was damaged
};

// What a SavedPosition is to an exported call, for reads of an operation, which has the turn of its
// file already.
class ReadScope {
 public:
  explicit ReadScope(const Operation& operation) : position_(operation.db()) {}

 private:
  struct Position {
    explicit Position(int16_t file) : db(file), found(myGetFilePos(file)) {}
    ~Position() { myFileSeek(db, found, kFromStart); }
    Position(const Position&) = delete;
    Position& operator=(const Position&) = delete;

    int16_t db;
    int64_t found;
  };

  Position position_;
  qvdbase::platform::TransferScope scope_;  // ends first
};

// Reads by `body`, which begins afresh each time that it is called. The transfers of one call are
// within one ReadScope.
template <typename Body>
auto look(const Operation& operation, const Body& body) {
  if (!operation.database().readsBesideWriters()) {
    const ReadScope scope(operation);
    return body();
  }
  for (Doubt doubt(operation);;) {
    try {
      const Look held(operation);
      const ReadScope scope(operation);
      return body();
    } catch (const Error& error) {
      doubt.weigh(error);
    }
  }
}

}  // namespace qvdb::detail
