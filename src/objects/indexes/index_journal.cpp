// The journal of an index.
#include "objects/indexes/index_journal.h"

#include <memory>
#include <new>

#include "objects/indexes/table_index.h"
#include "objects/indexes/table_keys.h"
#include "objects/open_database.h"

namespace qvdb::detail {
namespace {

int64_t moved(int64_t position, const EndedTransaction& ended) {
  return position >= ended.limit ? position + ended.shift : position;
}

void takeBack(TableIndex& index) {
  const IndexJournal& journal = index.journal;
  for (auto change = journal.changes.rbegin(); change != journal.changes.rend(); ++change) {
    if (change->before == 0) {
      index.map.erase(change->key);
    } else if (!index.map.insert(change->key, change->before)) {
      index.map.replace(change->key, change->before);
    }
  }
  index.slot = journal.slot;
  index.lastPos = journal.lastPos;
}

void shift(TableIndex& index, const EndedTransaction& ended) {
  for (const IndexJournal::Change& change : index.journal.changes) {
    if (change.after < ended.limit || index.map.find(change.key) != change.after) continue;
    index.map.replace(change.key, moved(change.after, ended));
  }
  index.lastPos = moved(index.lastPos, ended);
  index.slot.firstRecordPos = moved(index.slot.firstRecordPos, ended);
  index.slot.lastRecordPos = moved(index.slot.lastRecordPos, ended);
}

void takeBack(TableKeys& index) {
  for (const KeyJournal::Entry& entry : index.journal.erased) {
    index.maps.insert(entry.key, entry.position, index.options.ordered);
  }
  index.slot = index.journal.slot;
  index.lastPos = index.journal.lastPos;
}

void shift(TableKeys& index, const EndedTransaction& ended) {
  for (const KeyJournal::Entry& entry : index.journal.entered) {
    if (entry.position < ended.limit) continue;
    index.maps.erase(entry.key, entry.position);
    index.maps.insert(entry.key, moved(entry.position, ended), index.options.ordered);
  }
  index.lastPos = moved(index.lastPos, ended);
  index.slot.firstRecordPos = moved(index.slot.firstRecordPos, ended);
  index.slot.lastRecordPos = moved(index.slot.lastRecordPos, ended);
}

void end(TableKeys& index, const EndedTransaction& ended) {
  const bool isKept = index.journal.isKept && index.journal.generation == index.generation;
  try {
    if (!isKept) {
      index.forget();
    } else if (!ended.isCommitted) {
      takeBack(index);
    } else if (ended.shift != 0) {
      shift(index, ended);
    }
  } catch (const std::bad_alloc&) {
    index.forget();
  }
  index.journal = {};
}

// One that was made in the transaction has no journal, and one that was built in it knows too much.
void end(TableIndex& index, const EndedTransaction& ended) {
  index.writesSeen = 0;
  if (!index.journal.isKept) index.isStale = true;
  try {
    if (!index.isStale && !ended.isCommitted) takeBack(index);
    if (!index.isStale && ended.isCommitted && ended.shift != 0) shift(index, ended);
  } catch (const std::bad_alloc&) {
    index.isStale = true;
  }
  index.journal = {};
}

}  // namespace

void IndexJournal::note(uint64_t key, int64_t before, int64_t after) {
  if (!isKept) return;
  try {
    if (changes.size() < kMost) return changes.push_back({key, before, after});
  } catch (const std::bad_alloc&) {
  }
  lose();
}

void IndexJournal::lose() {
  *this = {};
}

void KeyJournal::note(std::vector<Entry> KeyJournal::*entries, std::string_view key,
                      int64_t position) {
  if (!isKept) return;
  try {
    if ((this->*entries).size() < IndexJournal::kMost) {
      (this->*entries).push_back({std::string(key), position});
      return;
    }
  } catch (const std::bad_alloc&) {
  }
  *this = {};
}

void beginIndexJournals(OpenDatabase& database) {
  for (const std::weak_ptr<TableIndex>& held : database.indexes) {
    const std::shared_ptr<TableIndex> index = held.lock();
    if (index == nullptr) continue;
    index->journal = {index->slot, index->lastPos, {}, !index->isStale && !index->hasDuplicates};
  }
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> index = held.lock();
    if (index == nullptr) continue;
    index->journal = {index->slot, index->lastPos, index->generation, {}, {}, index->isComplete};
  }
}

void endIndexJournals(OpenDatabase& database, const EndedTransaction& ended) noexcept {
  for (const std::weak_ptr<TableIndex>& held : database.indexes) {
    if (const std::shared_ptr<TableIndex> index = held.lock()) end(*index, ended);
  }
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    if (const std::shared_ptr<TableKeys> index = held.lock()) end(*index, ended);
  }
}

}  // namespace qvdb::detail
