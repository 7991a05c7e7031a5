// The index of one table, and what the operations of the layer do with it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "QVDbase/record_find.h"
#include "format/index_pages.h"
#include "objects/indexes/identifier_map.h"
#include "objects/indexes/index_journal.h"
#include "objects/open_database.h"
#include "objects/walks/chain_walker.h"

namespace qvdb::detail {

struct TableIndex {
  std::shared_ptr<const OpenDatabase> database;  // in whose turn it is read and changed
  Id table;
  IdentifierMap map;
  tablePart1 slot = {};        // as it was when the map was last up to date
  uint64_t writesSeen = 0;     // platform::writesKnown when the slot was found to be this one
  int64_t lastPos = 0;         // of the last record that was added to the map
  int64_t usualBlock = 0;      // bytes from one record to the next, about
  bool isStale = true;         // to be built again before it is used
  IndexJournal journal;        // while a transaction is open
  bool hasDuplicates = false;  // some identifier is there twice; the map has the first one
  bool isKept = false;         // in a file, too; see kept/kept_indexes.h
  // Then: what the database was like when the file was written last.
  std::optional<qvdbase::format::kept::Stamp> saved;

  // Files that it has used. To close one takes a turn, which an operation may not wait for: so they
  // stay open as long as the index is there.
  std::vector<std::shared_ptr<const void>> keptFiles;

  // Whether what was added by other means, or in large numbers, is read from the end of what it
  // knows on, and not by walking the whole chain.
  bool catchesUp() const { return database->isBesideWriters || isKept; }
};

// The outcome of asking an index: it knows the record, knows that there is none, or does not know.
enum class Answer { found, absent, unknown };

// The index of a table while one is held, else null.
std::shared_ptr<TableIndex> indexOf(OpenDatabase& database, Id table);

// The same where there is no other thread, for as long as no function of the caller's runs: it
// cannot end meanwhile, and is not held.
inline TableIndex* indexOfOnlyThread(const OpenDatabase& database, Id table) {
  for (const HeldIndex& each : database.indexes) {
    if (!each.expired() && each.index->table == table) return each.index;
  }
  return nullptr;
}

// Makes an index of the table, or returns the present one. The database knows it for as long as it
// is held.
std::shared_ptr<TableIndex> makeIndex(const std::shared_ptr<OpenDatabase>& database, Id table);

// Builds the index in one walk. False when the chain is damaged: the index stays stale then, and
// *walker, unless it is null, knows where and how.
bool buildIndex(const Operation& operation, TableIndex& index, ChainWalker* walker = nullptr);

// Reads what was added since. False where the chain does not lead from the record that was the last
// one to the one that is it now.
bool bringUpToDate(const Operation& operation, TableIndex& index);

// Looks a record up and verifies it against the file. The caller holds a scope; after `found` the
// record's neighbourhood has been read in it. Fills the header and the position only.
Answer askIndex(const Operation& operation, TableIndex& index, Id record,
                qvdbase::engine::FoundRecord* found);

// What an index and the mirror of the file say together, without a transfer: nearly every lookup
// where the database has a cache. `unknown` is for the other ways to find out.
struct InMemory {
  Answer answer = Answer::unknown;
  const unsigned char* block = nullptr;  // of a record that was found: it lies in the mirror
  int64_t position = 0;
  const unsigned char* checksum = nullptr;  // where its block has one, and the payload is wanted
};

// Looks a record up so, and verifies it as askIndex() does. With `withPayload` it is found only
// where its payload follows its header in memory.
InMemory askMemory(const Operation& operation, Id table, Id record, bool withPayload);

// Notes where the chain has a record that the map did not have, or had elsewhere. Only in a
// database that others may change; elsewhere the index is built again.
void noteFound(const Operation& operation, TableIndex& index, Id record, int64_t position);

// Notes that the chain does not have it, in the same way.
void noteAbsent(const Operation& operation, TableIndex& index, Id record);

// Note every change of a chain in the table's index, with the slot as it is now.
void noteAdded(OpenDatabase& database, const tablePart1& slot, Id record, int64_t position);
void noteMoved(OpenDatabase& database, const tablePart1& slot, Id record, int64_t from, int64_t to);
void noteRemoved(OpenDatabase& database, const tablePart1& slot, Id record, int64_t position);

// After many records were added: the index catches up where it can, else it is built again.
void noteManyAdded(OpenDatabase& database, Id table);

// After changes that are not noted: the index of the table, if there is one, is built again.
void markIndexStale(OpenDatabase& database, Id table);

// The same for every table, when another file is opened.
void markIndexesStale(OpenDatabase& database);

// Reads what is around a position, in one go where records have about the usual size. Whether there
// is a record of this table to which its neighbours, or the slot, lead; the table's slot is read
// only where the record has one neighbour.
bool readLinked(const Operation& operation, Id table, const unsigned char* tableID,
                int64_t usualBlock, qvdbase::engine::FoundRecord* found);

// Whether a walk from the first record comes to the record at a position as far as what precedes it
// says: in a chain of which a change was cut off, that is all that leads to it.
bool isReachedFromFront(const Operation& operation, Id table, const unsigned char* tableID,
                        qvdbase::engine::FoundRecord* found);

// The distance between the blocks of a table, about.
int64_t usualBlockOf(const tablePart1& slot);

// Whether a record is in its table's chain: both neighbours, or the slot where it has none, must
// lead to it.
bool isInChain(int16_t db, const qvdbase::engine::FoundRecord& found);

// Whether either of the two leads to it. Neither does to a record that was deleted or has moved.
bool isReachable(int16_t db, const qvdbase::engine::FoundRecord& found);

}  // namespace qvdb::detail
