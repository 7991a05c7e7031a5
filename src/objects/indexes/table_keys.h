// An index of the keys that a function of the application makes of records, and what the operations
// of the layer do with it.
//
// It knows of each key a hash, and the positions of the records that had it. Two rules keep it
// right without asking it to be exact:
//   - It may know too much. A change enters the new keys and leaves the old ones, and a walk that
//     builds it may enter keys that have gone meanwhile. Whoever looks a key up reads the record
//     and makes its keys again; entries that turn out wrong are taken out then.
//   - It must not know too little where it is called complete: every key of every record of the
//     chain is in it. That ends with each write to the file that is not one of this layer's through
//     the same object, which is noticed by the count of writes of this process, and, where other
//     processes may write, by the times of the file.
//
// The function runs while no turn is held. So operations read payloads in a turn, give it up, make
// the keys, and look again whether what they saw still holds.
#pragma once

#include <qvdbase/qvdb/key_index.hpp>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "format/layout.h"
#include "objects/indexes/index_journal.h"
#include "objects/indexes/key_maps.h"
#include "objects/open_database.h"
#include "platform/handles/file_changes.h"

namespace qvdb::detail {

// When a walk that builds the index began, and what has been entered since.
struct KeyBuild {
  explicit KeyBuild(const qvdbase::support::HashSeed& seed) : maps(seed) {}

  KeyMaps maps;
  tablePart1 slot = {};
  uint32_t opening = 0;
  uint64_t writesByOthers = 0;
  qvdbase::platform::FileStamp stamp;
  bool isSettled = false;       // the stamp: every write since then changes it
  bool isSpoiled = false;       // a change was not entered
  int64_t lastPos = 0;          // of the record that was entered last
  std::set<std::string> twice;  // keys of a unique index that seem to be those of two records
};

struct TableKeys : std::enable_shared_from_this<TableKeys> {
  TableKeys(const Table& indexed, MakeKeys make, const KeyIndexOptions& wanted, uint32_t type);

  // Of the table: not in its turn.
  static std::shared_ptr<OpenDatabase> databaseOf(const Table& table) { return table.database_; }

  const std::shared_ptr<OpenDatabase> database;
  const Table table;
  const MakeKeys make;
  const KeyIndexOptions options;
  const uint32_t keyType;  // which type the keys have: see typeOfKeys

  // Read and changed in the turn of the database.
  KeyMaps maps;
  bool isComplete = false;
  tablePart1 slot = {};    // as it was when the maps were last up to date
  int64_t lastPos = 0;     // beside writers: of the record at the end of what is known
  int64_t usualBlock = 0;  // bytes from one record to the next, about
  uint32_t opening = 0;
  uint64_t writesByOthers = 0;
  qvdbase::platform::FileStamp stamp;
  bool isSettled = false;
  uint64_t generation = 0;       // of the maps: raised when they are replaced
  uint64_t builtGeneration = 0;  // of those that were built last
  size_t left = 0;               // entries, about, that changes have made wrong
  // Of a kept one: what the database was like when the file was written last.
  std::optional<qvdbase::format::kept::Stamp> saved;
  std::vector<std::shared_ptr<const void>> keptFiles;  // as TableIndex has them
  std::vector<std::weak_ptr<KeyBuild>> inWork;
  KeyJournal journal;  // while a transaction is open

  // ---- Without a turn: they call the function

  KeyList keysOf(std::span<const std::byte> payload) const;

  // Builds it anew. Returns the error that ended the walk, or null; what was reached before it is
  // known then. Throws what the function throws, and key_exists when it is the first walk, of a
  // unique index, and two records have one key.
  std::exception_ptr build(bool isFirst = false);

  bool isKept() const { return !options.kept_as.empty(); }

  // Enters what follows the last record that is known. False where that does not lead on.
  bool catchUp();

  // ---- In the turn of the database

  // Whether what it does not know is not in the table. Within a look.
  bool isCompleteNow(const Operation& operation) const;

  // Begins with what a file has. Incomplete, unless the database is what it was then. Within a
  // look.
  void useKept(std::shared_ptr<KeptPages> kept, const tablePart1& now, bool isSame);

  // Goes on with the same in another file, in which the records have other places.
  void useMoved(KeyMaps&& moved, const tablePart1& now) noexcept;

  // Enters the keys of a record. Where that fails, the index is no longer complete.
  void enter(const KeyList& keys, int64_t position) noexcept;
  void enterMoved(const KeyList& keys, int64_t from, int64_t to) noexcept;
  // Takes out what is known to be wrong.
  void drop(const OrderedKeys::Place& place) noexcept;

  // After a change of the chain, which has so many records more, or one less.
  void noteChain(const tablePart1& now, int64_t more) noexcept;
  void noteMovedChain(const tablePart1& now, int64_t from, int64_t to) noexcept;
  void noteLeft(size_t entries) noexcept;

  // Something has changed that was not entered; and perhaps something was entered that is not so.
  void spoil() noexcept;
  void forget() noexcept;

 private:
  std::shared_ptr<KeyBuild> beginBuild();
  void replaceMaps(KeyMaps&& others) noexcept;
  std::exception_ptr enterAll(RecordRange records, KeyBuild* build);
  void enterSome(const std::vector<std::pair<KeyList, int64_t>>& some, KeyBuild* build);
  void endBuild(const std::shared_ptr<KeyBuild>& build, bool isWhole);
  void requireOnce(const std::set<std::string>& keys);
};

// The indexes of a table's keys that are held.
std::vector<std::shared_ptr<TableKeys>> keyIndexesOf(const OpenDatabase& database, Id table);

// After a change of a table that failed; and of all, when another file is opened.
void forgetKeysOf(const OpenDatabase& database, Id table) noexcept;
void forgetKeys(const OpenDatabase& database) noexcept;

// Whether other processes may write to the file.
bool mayOthersWrite(const OpenDatabase& database);

// Notices writes of this process to the file that are not of this layer, or of another object.
void noticeWrites(OpenDatabase& database) noexcept;

// What this process has written since is this layer's.
void noteOwnWrites(OpenDatabase& database) noexcept;

// The writes from its beginning to its end are of this layer. In the turn of the database.
class OwnWrites {
 public:
  explicit OwnWrites(OpenDatabase& database);
  ~OwnWrites();
  OwnWrites(const OwnWrites&) = delete;
  OwnWrites& operator=(const OwnWrites&) = delete;

 private:
  OpenDatabase& database_;
};

}  // namespace qvdb::detail
