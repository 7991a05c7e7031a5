// Using and writing the file of kept indexes.
#include "objects/kept/kept_indexes.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "failure/failure.h"
#include "format/identifiers.h"
#include "objects/kept/kept_stamp.h"
#include "objects/kept/kept_writer.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/transactions/transaction_steps.h"
#include "platform/handles/current_name.h"
#include "platform/handles/file_access.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/new_file.h"
#include "platform/handles/open_files.h"
#include "platform/host/cancellation.h"
#include "platform/host/clock.h"

using namespace qvdbase;

namespace qvdb::detail {

using namespace format::kept;

namespace {

constexpr const char* kKeep = "keep the indexes of the database";

// So many entries are sorted at once: 16 bytes each.
constexpr size_t kSortedAtOnce = size_t{1} << 20;

constexpr size_t kKeysAtOnce = 256;

constexpr int kTries = 5;

// For a stamp that is never found again as it is.
constexpr int64_t kNoTime = -1;

void storeChain(const Chain& chain, tablePart1* slot) {
  slot->recordCount = chain.recordCount;
  slot->recordWriteCount = chain.recordWriteCount;
  slot->firstRecordPos = chain.first;
  slot->lastWrittenRecordPos = chain.lastWritten;
  slot->lastRecordPos = chain.last;
}

// ---- Writing one section

// The entries of a file with those in memory, in order: `collect` appends those with hashes from
// one to another, `hides` says which of the file count no longer. Those in memory are sorted in
// parts.
template <typename Collect, typename Hides>
bool writeHashes(KeptWriter& writer, KeptPages* kept, size_t inMemory, const Collect& collect,
                 const Hides& hides) {
  std::optional<KeptPages::Cursor> cursor;
  HashEntry next;
  bool hasNext = false;
  if (kept != nullptr) hasNext = cursor.emplace(*kept).next(&next);
  const uint64_t parts = inMemory / kSortedAtOnce + 1;
  const uint64_t width = std::numeric_limits<uint64_t>::max() / parts;
  std::vector<HashEntry> entries;
  for (uint64_t part = 0; part < parts && writer.isGood(); ++part) {
    const uint64_t from = part * width;
    const bool isLast = part + 1 == parts;
    const uint64_t to = isLast ? std::numeric_limits<uint64_t>::max() : from + width - 1;
    entries.clear();
    collect(from, to, &entries);
    std::sort(entries.begin(), entries.end());
    auto own = entries.begin();
    while (hasNext && next.hash <= to) {
      for (; own != entries.end() && *own < next; ++own) writer.add(*own);
      if (!hides(next)) writer.add(next);
      hasNext = cursor->next(&next);
    }
    for (; own != entries.end(); ++own) writer.add(*own);
  }
  return kept == nullptr || !kept->isBroken();
}

Head headOf(const Operation& operation, const tablePart1& slot, int64_t usualBlock,
            const support::HashSeed& seed) {
  Head head;
  head.chain = chainOf(operation, slot);
  head.table = format::identifierNumber(slot.tableID);
  head.seedBefore = seed.before;
  head.seedBetween = seed.between;
  head.usualBlock = static_cast<uint64_t>(usualBlock);
  return head;
}

bool write(const Operation& operation, KeptWriter& writer, const TableIndex& index) {
  const support::HashSeed seed = index.map.seed({support::drawnNumber(), support::drawnNumber()});
  Head head = headOf(operation, index.slot, index.usualBlock, seed);
  head.kind = IndexKind::identifiers;
  head.hasDuplicates = index.hasDuplicates;
  head.entries = index.map.size();
  writer.begin(std::move(head));
  const bool isWhole = writeHashes(
      writer, index.map.kept(), index.map.inMemory(),
      [&](uint64_t from, uint64_t to, auto* entries) {
        index.map.collect(seed, from, to, entries);
      },
      [&](const HashEntry& entry) { return index.map.hides(entry.hash); });
  writer.end();
  return isWhole;
}

void writeKeys(KeptWriter& writer, const KeyMaps& maps) {
  std::vector<OrderedKeys::Place> places;
  for (OrderedKeys::Place after; writer.isGood(); after = places.back()) {
    places.clear();
    maps.listKeys(after, nullptr, kKeysAtOnce, &places);
    for (const OrderedKeys::Place& place : places) writer.addKey(place.key, place.position);
    if (places.size() < kKeysAtOnce) return;
  }
}

bool write(const Operation& operation, KeptWriter& writer, const TableKeys& keys) {
  const KeyMaps& maps = keys.maps;
  Head head = headOf(operation, keys.slot, keys.usualBlock, maps.seed());
  head.kind = IndexKind::keys;
  head.isUnique = keys.options.unique;
  head.isOrdered = keys.options.ordered;
  head.keyType = keys.keyType;
  head.name = keys.options.kept_as;
  head.entries = maps.size();
  writer.begin(std::move(head));
  bool isWhole = writeHashes(
      writer, maps.kept(), maps.inMemory(),
      [&](uint64_t from, uint64_t to, auto* entries) { maps.collect(from, to, entries); },
      [&](const HashEntry& entry) { return maps.hides(entry); });
  if (keys.options.ordered) writeKeys(writer, maps);
  writer.end();
  return isWhole && !maps.isBroken();
}

// ---- Writing the file

// What is to be written.
struct Writable {
  std::vector<std::shared_ptr<TableIndex>> indexes;
  std::vector<std::shared_ptr<TableKeys>> keys;

  bool empty() const { return indexes.empty() && keys.empty(); }

  bool has(const Section& section, std::string_view name) const {
    if (section.kind == IndexKind::identifiers) {
      return std::any_of(indexes.begin(), indexes.end(),
                         [&](const auto& index) { return index->table.value == section.table; });
    }
    return std::any_of(keys.begin(), keys.end(), [&](const auto& each) {
      return each->table.id().value == section.table && each->options.kept_as == name;
    });
  }

  // Whether the file has all of it as it is.
  bool isSaved(const Stamp& now) const {
    const auto isSame = [&now](const auto& saved, bool isChanged) {
      return saved && *saved == now && !isChanged;
    };
    return std::all_of(
               indexes.begin(), indexes.end(),
               [&](const auto& each) { return isSame(each->saved, each->map.isChanged()); }) &&
           std::all_of(keys.begin(), keys.end(), [&](const auto& each) {
             return isSame(each->saved, each->maps.isChanged());
           });
  }

  void markSaved(const Stamp& stamp) const {
    for (const auto& each : indexes) {
      each->saved = stamp;
      each->map.markSaved();
    }
    for (const auto& each : keys) {
      each->saved = stamp;
      each->maps.markSaved();
    }
  }
};

[[noreturn]] void failChangedMeanwhile(const Operation& operation) {
  operation.fail(Reason::changed_meanwhile, "the database was changed meanwhile");
}

bool isCurrent(const Operation& operation, TableIndex& index) {
  return !index.isStale && !index.map.isBroken() && bringUpToDate(operation, index);
}

// Those that are complete, and with `isWhole` all others too, or an error.
Writable writableOf(const Operation& operation, bool isWhole) {
  Writable writable;
  OpenDatabase& database = operation.database();
  engine::SavedPosition scope(operation.db());
  for (const auto& index : database.keptIndexes) {
    ChainWalker walker;
    const bool isReady =
        isCurrent(operation, *index) || (isWhole && buildIndex(operation, *index, &walker));
    if (isReady) writable.indexes.push_back(index);
    if (!isReady && isWhole) failDamagedChain(operation, walker);
  }
  for (const auto& keys : database.keptKeys) {
    const bool isReady = keys->isCompleteNow(operation);
    if (isReady) writable.keys.push_back(keys);
    if (!isReady && isWhole) failChangedMeanwhile(operation);
  }
  return writable;
}

// The indexes of keys that are to be built before they can be written.
std::vector<std::shared_ptr<TableKeys>> incompleteKeys(const Operation& operation) {
  engine::SavedPosition scope(operation.db());
  std::vector<std::shared_ptr<TableKeys>> incomplete;
  for (const auto& keys : operation.database().keptKeys) {
    if (!keys->isCompleteNow(operation)) incomplete.push_back(keys);
  }
  return incomplete;
}

// Sections of the file as it is that stay of use: those of other tables by identifier, and those of
// keys while nothing was written.
void copySections(const KeptFile& file, const Operation& operation, const Writable& writable,
                  const Stamp& now, KeptWriter* writer) {
  if (file.kind() != KeptPlace::index || !file.isTrustedBeside(operation)) return;
  const KeptPages::ReadAt readAt = file.readAt();
  Page front;
  if (!readAt(0, front.data(), front.size())) return;
  for (const Section& section : sectionsOf(front).value_or(std::vector<Section>())) {
    const auto pages = KeptPages::openSection(readAt, section);
    if (pages == nullptr || writer->isFull()) continue;
    const Head& head = pages->head();
    const bool isOfUse = section.kind == IndexKind::keys
                             ? head.stamp == now
                             : head.stamp.device == now.device && head.stamp.inode == now.inode;
    if (isOfUse && !writable.has(section, head.name)) writer->copy(readAt, section);
  }
}

// Waits until a write from now on changes the times of the file. False where that takes too long.
bool waitForTick(const Operation& operation) {
  platform::FileStamp stamp;
  for (int i = 0; i < kTries; ++i) {
    if (!platform::stampOf(operation.db(), &stamp)) return false;
    if (!platform::isFresh(stamp)) return true;
    platform::pauseFor(
        static_cast<uint64_t>(std::chrono::microseconds(platform::kFileTimeTick).count()));
  }
  return false;
}

[[noreturn]] void failWriting(const KeptFile& file) {
  failure::throwWriteFailure(file.place(), kKeep, platform::findWriteFailure(0));
}

void requirePlace(const Operation& operation, const KeptFile& file) {
  if (file.place().empty()) {
    operation.fail(Reason::path_not_reachable, "the folder of the file cannot be reached");
  }
  if (file.kind() == KeptPlace::foreign) {
    failure::throwError(file.place(), kKeep, Reason::file_exists,
                        "a file that is not such an index has its name; move it elsewhere");
  }
  if (platform::lookAtPath(operation.db(), operation.database().place.native()) !=
      platform::NameOf::thisFile) {
    operation.fail(Reason::no_such_file, "its path leads to another file, or to none, by now");
  }
}

// While the lock on the database is held, no other opener writes.
void writeFile(const Operation& operation, const KeptFile& file, const Writable& writable) {
  engine::SavedPosition scope(operation.db());
  std::optional<Stamp> stamp = stampNow(operation);
  if (!stamp) operation.fail(Reason::cannot_read, "the file cannot be identified");
  if (writable.isSaved(*stamp) && file.kind() == KeptPlace::index) return;
  requirePlace(operation, file);
  platform::NewFile made;
  if (!made.create(file.place())) failWriting(file);
  KeptWriter writer([&made](int64_t position, const unsigned char* bytes,
                            size_t count) { return made.writeAt(position, bytes, count); },
                    support::drawnNumber());
  bool isWhole = true;
  for (const auto& index : writable.indexes) isWhole = write(operation, writer, *index) && isWhole;
  for (const auto& keys : writable.keys) isWhole = write(operation, writer, *keys) && isWhole;
  copySections(file, operation, writable, *stamp, &writer);
  if (!isWhole) {
    failure::throwError(file.place(), kKeep, Reason::cannot_read, "it was damaged meanwhile");
  }
  const bool isSettled = waitForTick(operation);
  const std::optional<Stamp> now = stampNow(operation);
  if (now != stamp) failChangedMeanwhile(operation);
  if (!isSettled) stamp->modifyTime = stamp->statusTime = kNoTime;
  platform::FileAccess access;
  const platform::OpenFile* database = platform::findOpenFile(operation.db());
  const bool isReadable = platform::readAccess(platform::descriptorOf(*database->entry), &access);
  access.attributes.clear();
  if (!writer.finish(*stamp) || !isReadable) failWriting(file);
  static_cast<void>(made.setAccess(access));
  if (made.place({.isAnything = true}, platform::Waits::no) != platform::Placing::done) {
    failWriting(file);
  }
  writable.markSaved(*stamp);
}

bool isWriter(const OpenDatabase& database) {
  return database.mode == Mode::exclusive && database.viewed == nullptr &&
         database.opener.isStillOwn();
}

}  // namespace

bool useKept(const Operation& operation, TableIndex& index, const KeptFile& file) {
  const auto pages = file.open(operation, IndexKind::identifiers, index.table.value, {});
  const std::optional<Stamp> now = pages == nullptr ? std::nullopt : stampNow(operation);
  if (!now) return false;
  const tablePart1 slot = operation.table(index.table).slot;
  const Head& head = pages->head();
  const Kinship kinship = kinshipOf(operation, head, *now, slot);
  if (kinship == Kinship::none) return false;
  index.keptFiles.push_back(file.held());
  index.map.use(pages);
  index.hasDuplicates = head.hasDuplicates;
  index.lastPos = head.chain.last;
  index.usualBlock = usualBlockOf(slot);
  index.writesSeen = 0;
  index.slot = slot;
  storeChain(head.chain, &index.slot);
  index.saved = head.stamp;
  index.isStale = false;
  index.isKept = true;
  if (bringUpToDate(operation, index)) return true;
  index.isStale = true;
  index.map.clear();
  return false;
}

bool useKept(const Operation& operation, TableKeys& keys, const KeptFile& file) {
  noticeWrites(operation.database());
  const auto pages =
      file.open(operation, IndexKind::keys, keys.table.id().value, keys.options.kept_as);
  const std::optional<Stamp> now = pages == nullptr ? std::nullopt : stampNow(operation);
  if (!now) return false;
  const tablePart1 slot = operation.table(keys.table.id()).slot;
  const Head& head = pages->head();
  const Kinship kinship = kinshipOf(operation, head, *now, slot);
  const bool isOfKind = head.keyType == keys.keyType && (head.isUnique || !keys.options.unique) &&
                        (head.isOrdered || !keys.options.ordered);
  if (!isOfKind || kinship == Kinship::none) return false;
  if (keys.options.unique && kinship != Kinship::same) return false;
  keys.keptFiles.push_back(file.held());
  keys.useKept(pages, slot, kinship == Kinship::same);
  return true;
}

void keep(OpenDatabase& database, const std::shared_ptr<TableIndex>& index) {
  index->isKept = true;
  const auto& kept = database.keptIndexes;
  if (std::find(kept.begin(), kept.end(), index) == kept.end()) {
    database.keptIndexes.push_back(index);
  }
}

void keep(OpenDatabase& database, const std::shared_ptr<TableKeys>& keys) {
  std::erase_if(database.keptKeys, [&keys](const auto& other) {
    return other->table.id() == keys->table.id() && other->options.kept_as == keys->options.kept_as;
  });
  database.keptKeys.push_back(keys);
}

KeptHeld::KeptHeld(OpenDatabase& database) {
  const DatabaseTurn turn(database);
  indexes_.swap(database.keptIndexes);
  keys_.swap(database.keptKeys);
}

std::shared_ptr<TableKeys> keptKeys(const OpenDatabase& database, Id table, std::string_view name) {
  for (const auto& keys : database.keptKeys) {
    if (keys->table.id() == table && keys->options.kept_as == name) return keys;
  }
  return nullptr;
}

void writeKept(const std::shared_ptr<OpenDatabase>& database) {
  const platform::Uncancelled uncancelled;
  std::vector<std::shared_ptr<TableKeys>> incomplete;
  {
    const Operation operation(database, kKeep);
    operation.requireWritable();
    operation.requireNoBulk();
    operation.requireNoTransaction();
    if (!isWriter(*database)) {
      operation.fail(Reason::bad_argument, "only an opener with Mode::exclusive writes them");
    }
    incomplete = incompleteKeys(operation);
  }
  for (const auto& keys : incomplete) {
    if (const std::exception_ptr failure = keys->build()) std::rethrow_exception(failure);
  }
  const KeptFile file(KeptFile::placeFor(*database));
  const Operation operation(database, kKeep);
  const Writable writable = writableOf(operation, true);
  if (!writable.empty()) writeFile(operation, file, writable);
}

void writeKeptBeforeClose(const std::shared_ptr<OpenDatabase>& database) noexcept {
  const platform::Uncancelled uncancelled;
  try {
    {
      const DatabaseTurn turn(*database);
      const bool hasAny = !database->keptIndexes.empty() || !database->keptKeys.empty();
      if (turn.handle() == 0 || !hasAny || !isWriter(*database)) return;
      database->takeBackOpen();
      if (!settleAtEnd(*database)) return;
    }
    const KeptFile file(KeptFile::placeFor(*database));
    const Operation operation(database, kKeep);
    const Writable writable = writableOf(operation, false);
    if (!writable.empty()) writeFile(operation, file, writable);
  } catch (const Error&) {
    // The file that is there, if any, is out of date, and its stamp says so.
  } catch (const std::bad_alloc&) {
  } catch (const std::filesystem::filesystem_error&) {
  }
}

}  // namespace qvdb::detail
