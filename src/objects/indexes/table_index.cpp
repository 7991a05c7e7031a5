// Building, asking and maintaining the index of a table.
#include "objects/indexes/table_index.h"

#include <qvdbase/qvdb/index.hpp>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "QVDbase/record_append.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "format/identifiers.h"
#include "format/payload_checksum.h"
#include "objects/record_search.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"
#include "platform/handles/open_files.h"
#include "platform/host/threads.h"
#include "platform/transfer/mirror.h"
#include "support/file_transfers.h"

using namespace qvdbase;

using namespace qvdbase::format;

namespace qvdb {

RecordIndex::RecordIndex(std::shared_ptr<detail::TableIndex> index) : index_(std::move(index)) {}
size_t RecordIndex::size() const noexcept {
  const detail::DatabaseTurn turn(*index_->database);
  return index_->map.size();
}
size_t RecordIndex::bytes() const noexcept {
  const detail::DatabaseTurn turn(*index_->database);
  return index_->map.bytes();
}

bool RecordIndex::is_from_file() const noexcept {
  const detail::DatabaseTurn turn(*index_->database);
  return index_->map.isKept();
}

namespace detail {
namespace {

// How much is read around a record that is looked up: the header before it, its payload and the
// header after it, when records lie in order and have about the usual size. For small records it
// covers a few dead blocks between them too: some hundred bytes more cost a read next to nothing.
constexpr int64_t kLeastAround = 512;
constexpr int64_t kMostAround = 4096;

constexpr uint64_t kSmallestBlock = format::kRecordBlockOverhead;

Id tableOf(const tablePart1& slot) {
  return Id{format::identifierNumber(slot.tableID)};
}

void readNeighbourhood(const platform::OpenFile& file, int64_t usualBlock, int64_t position) {
  const int64_t before = std::clamp(usualBlock, kLeastAround, kMostAround);
  const int64_t from = std::max<int64_t>(0, position - before);
  const int64_t after = before + format::record::kData;
  platform::readAhead(file, from, static_cast<uint32_t>(position - from + after));
}

// Asks for the record at a position and its neighbours in memory all at once: found one after the
// other, each would be waited for by itself. The neighbours are where records lie in order and have
// about the usual size; of larger ones only the beginning of the record is.
void fetchNeighbourhood(const platform::Mirror& mirror, int64_t usualBlock, int64_t position) {
  constexpr int64_t kMostBetween = 256;
  constexpr int64_t kLine = 64;
  const int64_t before = usualBlock > 0 && usualBlock <= kMostBetween ? usualBlock : 0;
  if (position < before) return;
  const int64_t length = before + (before != 0 ? before : kMostBetween) + format::record::kData;
  const uint8_t* bytes = mirror.find(position - before, static_cast<uint64_t>(length));
  if (bytes == nullptr) return;
  for (int64_t at = 0; at < length; at += kLine) __builtin_prefetch(bytes + at);
}

bool hasLink(const unsigned char* block, const unsigned char* tableID, int64_t link,
             int64_t position) {
  return format::isRecordOf(block, tableID) &&
         static_cast<int64_t>(format::loadBigEndian<uint64_t>(block + link)) == position;
}

// The same as linksTo() where the block does not lie in the window that was used last. Not inline,
// nor is presentSlotAgrees(): the space for what they read is not prepared where it is not needed.
__attribute__((noinline)) bool readLinksTo(int16_t db, int64_t recordPos,
                                           const unsigned char* tableID, int64_t link,
                                           int64_t position) {
  const unsigned char* block = support::viewFile(db, recordPos, format::record::kData);
  if (block != nullptr) return hasLink(block, tableID, link, position);
  recordPart1 header;
  if (!readHead(db, recordPos, tableID, &header)) return false;
  const bool isNext = link == format::record::kNextRecordPos;
  return (isNext ? header.nextRecordPos : header.prevRecordPos) == position;
}

// Whether there is a record of this table at recordPos, with this position in one of its links.
bool linksTo(int16_t db, int64_t recordPos, const unsigned char* tableID, int64_t link,
             int64_t position) {
  const platform::OpenFile* file = platform::findOpenFile(db);
  const unsigned char* block =
      file == nullptr ? nullptr : platform::viewServed(*file, recordPos, format::record::kData);
  return block != nullptr ? hasLink(block, tableID, link, position)
                          : readLinksTo(db, recordPos, tableID, link, position);
}

// The neighbours that are records. At the ends of the chain it is the slot that is asked.
bool neighboursPointBack(int16_t db, const unsigned char* tableID, const recordPart1& header,
                         int64_t position) {
  using namespace format::record;
  const int64_t previous = header.prevRecordPos;
  const int64_t next = header.nextRecordPos;
  return (previous == 0 || linksTo(db, previous, tableID, kNextRecordPos, position)) &&
         (next == 0 || linksTo(db, next, tableID, kPrevRecordPos, position));
}

bool isEndOfChain(const recordPart1& header) {
  return header.prevRecordPos == 0 || header.nextRecordPos == 0;
}

bool slotAgrees(const tablePart1& slot, const recordPart1& header, int64_t position) {
  return (header.prevRecordPos != 0 || slot.firstRecordPos == position) &&
         (header.nextRecordPos != 0 || slot.lastRecordPos == position);
}

__attribute__((noinline)) bool presentSlotAgrees(const Operation& operation, Id table,
                                                 const recordPart1& header, int64_t position) {
  return slotAgrees(operation.table(table).slot, header, position);
}

bool verify(const Operation& operation, const TableIndex& index, Id record,
            engine::FoundRecord* found) {
  return readLinked(operation, index.table, index.slot.tableID, index.usualBlock, found) &&
         format::identifierNumber(found->header.recordID) == record.value;
}

bool walkInto(const Operation& operation, ChainWalker& walker, TableIndex& index) {
  recordPart1 header;
  int64_t position = 0;
  for (Steps steps(operation);
       walker.next(operation.db(), &header, &position) == ChainWalker::Step::record; steps.next()) {
    const bool isNew = index.map.insert(format::identifierNumber(header.recordID), position);
    index.hasDuplicates = index.hasDuplicates || !isNew;
  }
  index.lastPos = walker.passedPosition();
  return !walker.isDamaged() || hasBecomeShorter(operation, walker);
}

// Adds what others have added since: everything that follows the last record that the index knows,
// also when that has left the chain, up to the one that is the last now. False where the chain does
// not lead there.
bool catchUp(const Operation& operation, TableIndex& index, const tablePart1& slot) {
  recordPart1 header;
  if (index.lastPos == 0 && index.slot.recordWriteCount != 0) return false;
  header.nextRecordPos = slot.firstRecordPos;
  if (index.lastPos != 0 && !readHead(operation.db(), index.lastPos, slot.tableID, &header)) {
    return false;
  }
  engine::LoopDetector loop;
  Steps steps(operation);
  for (int64_t next = header.nextRecordPos; index.lastPos != slot.lastRecordPos;
       next = header.nextRecordPos) {
    if (next == 0 || loop.visited(next)) return false;
    if (!readHead(operation.db(), next, slot.tableID, &header)) return false;
    const bool isNew = index.map.insert(format::identifierNumber(header.recordID), next);
    index.hasDuplicates = index.hasDuplicates || !isNew;
    index.lastPos = next;
    index.journal.lose();  // it may know more than the transaction has made
    steps.next();
  }
  index.slot = slot;
  return true;
}

// Whether its map can be believed. Where the file of a kept one turns out to be damaged, the index
// is built again.
bool isUsable(TableIndex& index) {
  if (index.map.isBroken()) index.isStale = true;
  return !index.isStale;
}

// The map does not have the record.
Answer askSlot(const Operation& operation, TableIndex& index, Id record,
               engine::FoundRecord* found) {
  const uint64_t writes = platform::writesKnown(operation.db());
  if (writes != 0 && writes == index.writesSeen) return Answer::absent;
  const engine::FoundTable present = operation.table(index.table);
  const tablePart1& slot = present.slot;
  if (engine::hasSameChain(slot, index.slot)) {
    index.writesSeen = writes;
    return Answer::absent;
  }
  if (!index.catchesUp() || !catchUp(operation, index, slot)) {
    index.isStale = true;
    return Answer::unknown;
  }
  const std::optional<int64_t> position = index.map.find(record.value);
  if (!position) return isUsable(index) ? Answer::absent : Answer::unknown;
  found->recordPos = *position;
  return verify(operation, index, record, found) ? Answer::found : Answer::unknown;
}

}  // namespace

bool bringUpToDate(const Operation& operation, TableIndex& index) {
  const tablePart1 slot = operation.table(index.table).slot;
  const bool isDone = engine::hasSameChain(slot, index.slot) ||
                      (index.catchesUp() && catchUp(operation, index, slot));
  return isDone && isUsable(index);
}

bool readLinked(const Operation& operation, Id table, const unsigned char* tableID,
                int64_t usualBlock, engine::FoundRecord* found) {
  const platform::OpenFile* file = platform::findOpenFile(operation.db());
  if (file != nullptr) readNeighbourhood(*file, usualBlock, found->recordPos);
  return readHead(operation.db(), found->recordPos, tableID, &found->header) &&
         neighboursPointBack(operation.db(), tableID, found->header, found->recordPos) &&
         (!isEndOfChain(found->header) ||
          presentSlotAgrees(operation, table, found->header, found->recordPos));
}

bool isReachedFromFront(const Operation& operation, Id table, const unsigned char* tableID,
                        engine::FoundRecord* found) {
  if (!readHead(operation.db(), found->recordPos, tableID, &found->header)) return false;
  const int64_t previous = found->header.prevRecordPos;
  if (previous == 0) return operation.table(table).slot.firstRecordPos == found->recordPos;
  return linksTo(operation.db(), previous, tableID, format::record::kNextRecordPos,
                 found->recordPos);
}

// And a quarter more for the larger ones.
int64_t usualBlockOf(const tablePart1& slot) {
  if (slot.firstRecordPos < 0 || slot.lastRecordPos < 0) return 0;
  const int64_t records = std::max<int64_t>(1, slot.recordCount);
  const int64_t spread = std::abs(slot.lastRecordPos - slot.firstRecordPos) / records;
  return spread + spread / 4;
}

std::shared_ptr<TableIndex> indexOf(OpenDatabase& database, Id table) {
  for (const std::weak_ptr<TableIndex>& held : database.indexes) {
    std::shared_ptr<TableIndex> index = held.lock();
    if (index != nullptr && index->table == table) return index;
  }
  return nullptr;
}

std::shared_ptr<TableIndex> makeIndex(const std::shared_ptr<OpenDatabase>& database, Id table) {
  if (std::shared_ptr<TableIndex> present = indexOf(*database, table)) return present;
  std::erase_if(database->indexes, [](const auto& held) { return held.expired(); });
  auto index = std::make_shared<TableIndex>();
  index->database = database;
  index->table = table;
  database->indexes.push_back(index);
  return index;
}

bool buildIndex(const Operation& operation, TableIndex& index, ChainWalker* walkerOut) {
  index.isStale = true;
  index.hasDuplicates = false;
  index.map.clear();
  index.journal.lose();
  const tablePart1 slot = operation.table(index.table).slot;
  // Growing while it is filled would take more than twice the memory. The file's length bounds what
  // a damaged count asks for.
  index.map.reserve(static_cast<size_t>(
      std::min<uint64_t>(slot.recordCount, operation.fileLength() / kSmallestBlock)));
  ChainWalker walker(slot);
  const bool complete = walkInto(operation, walker, index);
  if (walkerOut != nullptr) *walkerOut = walker;
  if (!complete) return false;
  index.slot = slot;
  index.writesSeen = 0;
  index.usualBlock = usualBlockOf(slot);
  index.isStale = false;
  return true;
}

Answer askIndex(const Operation& operation, TableIndex& index, Id record,
                engine::FoundRecord* found) {
  if (index.isStale && !buildIndex(operation, index)) return Answer::unknown;
  const std::optional<int64_t> position = index.map.find(record.value);
  if (!isUsable(index)) return Answer::unknown;
  if (!position) return askSlot(operation, index, record, found);
  found->recordPos = *position;
  if (verify(operation, index, record, found)) return Answer::found;
  // Others have moved or deleted it; the first of several may be another one now. Its entry stays
  // until the chain has answered: a search that fails on its way must not make the record absent.
  if (!operation.database().isBesideWriters || index.hasDuplicates) index.isStale = true;
  return Answer::unknown;
}

// A record at an end of its chain is left to askIndex(), which asks the slot.
InMemory askMemory(const Operation& operation, Id table, Id record, bool withPayload) {
  using namespace format::record;
  const platform::OpenFile* file = platform::findOpenFile(operation.db());
  if (file == nullptr || file->mirror == nullptr) return {};
  const platform::Mirror& mirror = *file->mirror;
  const bool isHeld = !platform::isOnlyThread();
  const std::shared_ptr<TableIndex> held = isHeld ? indexOf(operation.database(), table) : nullptr;
  TableIndex* const index = isHeld ? held.get() : indexOfOnlyThread(operation.database(), table);
  if (index == nullptr || index->isStale) return {};
  const std::optional<int64_t> position = index->map.find(record.value);
  if (!isUsable(*index)) return {};
  if (!position) {
    const bool isKnown = index->writesSeen == file->entry->writes + 1;
    return {isKnown ? Answer::absent : Answer::unknown};
  }
  fetchNeighbourhood(mirror, index->usualBlock, *position);
  const unsigned char* tableID = index->slot.tableID;
  const unsigned char* block = mirror.find(*position, kData);
  if (block == nullptr || !format::isRecordOf(block, tableID) ||
      format::identifierNumber(block + kRecordID) != record.value) {
    return {};
  }
  const auto link = [&](int64_t recordPos, int64_t which) {
    const unsigned char* neighbour = mirror.find(recordPos, kData);
    return neighbour != nullptr && format::isRecordOf(neighbour, tableID) &&
           static_cast<int64_t>(format::loadBigEndian<uint64_t>(neighbour + which)) == *position;
  };
  const auto previous =
      static_cast<int64_t>(format::loadBigEndian<uint64_t>(block + kPrevRecordPos));
  const auto next = static_cast<int64_t>(format::loadBigEndian<uint64_t>(block + kNextRecordPos));
  if (previous == 0 || next == 0) return {};
  if (!link(previous, kNextRecordPos) || !link(next, kPrevRecordPos)) return {};
  if (!withPayload) return {Answer::found, block, *position};
  const auto size = format::loadBigEndian<uint32_t>(block + kDataLength);
  const auto capacity = format::loadBigEndian<uint32_t>(block + kDataCapacity);
  if (mirror.find(*position, uint64_t{kData} + size) == nullptr) return {};
  const unsigned char* sum = nullptr;
  if (format::hasChecksumSpace(size, capacity)) {
    sum = mirror.find(format::checksumPosition(*position, capacity), format::checksum::kSize);
    if (sum == nullptr) return {};
  }
  return {Answer::found, block, *position, sum};
}

void noteFound(const Operation& operation, TableIndex& index, Id record, int64_t position) {
  if (!operation.database().isBesideWriters || index.isStale) return;
  if (!index.map.insert(record.value, position)) index.map.replace(record.value, position);
}

void noteAbsent(const Operation& operation, TableIndex& index, Id record) {
  if (operation.database().isBesideWriters && !index.isStale) index.map.erase(record.value);
}

void noteAdded(OpenDatabase& database, const tablePart1& slot, Id record, int64_t position) {
  const std::shared_ptr<TableIndex> index = indexOf(database, tableOf(slot));
  if (index == nullptr || index->isStale) return;
  const bool oneMore = slot.recordCount == index->slot.recordCount + 1 &&
                       slot.recordWriteCount == index->slot.recordWriteCount + 1;
  if (!oneMore && index->catchesUp()) return;  // when it is asked
  index->slot = slot;
  index->lastPos = position;
  try {
    index->isStale = !oneMore;
    if (index->map.insert(record.value, position)) {
      index->journal.note(record.value, 0, position);
    } else {
      index->hasDuplicates = true;
      index->journal.lose();
    }
    index->isStale = index->isStale || index->map.isBroken();
  } catch (const std::bad_alloc&) {
    index->isStale = true;
  }
}

// The map may not have the record: it has not caught up, or has another one of that identifier, and
// then the first of them is to be looked for.
void noteMoved(OpenDatabase& database, const tablePart1& slot, Id record, int64_t from,
               int64_t to) {
  const std::shared_ptr<TableIndex> index = indexOf(database, tableOf(slot));
  if (index == nullptr) return;
  try {
    const std::optional<int64_t> known = index->map.find(record.value);
    if (known == from) {
      index->journal.note(record.value, from, to);
      index->map.replace(record.value, to);
    }
    index->hasDuplicates = index->hasDuplicates || (known && known != from);
    index->isStale = index->isStale || index->map.isBroken();
  } catch (const std::bad_alloc&) {
    index->isStale = true;
  }
  if (index->lastPos == from) index->lastPos = to;
  index->slot.firstRecordPos = slot.firstRecordPos;
  index->slot.lastRecordPos = slot.lastRecordPos;
  if (index->hasDuplicates) index->isStale = true;
}

void noteRemoved(OpenDatabase& database, const tablePart1& slot, Id record, int64_t position) {
  const std::shared_ptr<TableIndex> index = indexOf(database, tableOf(slot));
  if (index == nullptr) return;
  const bool oneLess = slot.recordCount + 1 == index->slot.recordCount &&
                       slot.recordWriteCount == index->slot.recordWriteCount;
  try {
    const std::optional<int64_t> known = index->map.find(record.value);
    if (known == position) {
      index->journal.note(record.value, position, 0);
      index->map.erase(record.value);
    }
    index->hasDuplicates = index->hasDuplicates || (known && known != position);
    index->isStale = index->isStale || index->map.isBroken();
  } catch (const std::bad_alloc&) {
    index->isStale = true;
  }
  // Another record with the identifier may be the one to find now.
  if (index->hasDuplicates) index->isStale = true;
  if (!oneLess && index->catchesUp()) return;
  if (!oneLess) index->isStale = true;
  index->slot = slot;
}

void noteManyAdded(OpenDatabase& database, Id table) {
  const std::shared_ptr<TableIndex> index = indexOf(database, table);
  if (index != nullptr && !index->isKept) index->isStale = true;
}

void markIndexStale(OpenDatabase& database, Id table) {
  if (const std::shared_ptr<TableIndex> index = indexOf(database, table)) index->isStale = true;
}

void markIndexesStale(OpenDatabase& database) {
  for (const std::weak_ptr<TableIndex>& held : database.indexes) {
    if (const std::shared_ptr<TableIndex> index = held.lock()) index->isStale = true;
  }
}

bool isInChain(int16_t db, const engine::FoundRecord& found) {
  const tablePart1& slot = found.table.slot;
  return slotAgrees(slot, found.header, found.recordPos) &&
         neighboursPointBack(db, slot.tableID, found.header, found.recordPos);
}

bool isReachable(int16_t db, const engine::FoundRecord& found) {
  using namespace format::record;
  const tablePart1& slot = found.table.slot;
  const int64_t previous = found.header.prevRecordPos;
  const int64_t next = found.header.nextRecordPos;
  const bool fromFront = previous == 0
                             ? slot.firstRecordPos == found.recordPos
                             : linksTo(db, previous, slot.tableID, kNextRecordPos, found.recordPos);
  return fromFront ||
         (next == 0 ? slot.lastRecordPos == found.recordPos
                    : linksTo(db, next, slot.tableID, kPrevRecordPos, found.recordPos));
}

}  // namespace detail
}  // namespace qvdb
