// Link repair: checks the record chain of every table, in place, and rewrites the links of a chain
// that is broken. Payloads are neither moved nor changed.
//
// Each chain is walked twice, forwards from the slot's first record and backwards from its last.
// When both walks reach as many records as the slot counts, the chain is sound and nothing of it is
// written. Otherwise what was reached is put in one order and written back as a clean chain, with
// the slot's ends and count after it. Only positions that were really read are kept, and each only
// once: a chain that loops ends where the loop closes, whatever the slot counts.
#include "maintenance/link_repair.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <unordered_map>

#include "QVDbase/directory_cache.h"
#include "QVDbase/header.h"
#include "QVDbase/position.h"
#include "QVDbase/record_find.h"
#include "QVDbase/table_data.h"
#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "maintenance/visited_records.h"
#include "platform/handles/open_files.h"
#include "platform/host/thread_cancelled.h"
#include "support/seeded_hash.h"

using namespace qvdbase;
using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace {

// The sum of the counts of all tables, each as GetNumberOfRecords counts them by identifier:
// those of the first slot that has it. Ends at the first slot that holds no table.
uint64_t countRecords(int16_t db, const DirectoryNumbers& directory) {
  uint64_t total = 0;
  std::unordered_map<uint64_t, uint32_t, SeededHash> counts;
  for (int t = 0; t < directory.tableCount; ++t) {
    tablePart1 slot;
    if (!readUsedSlot(db, directory.slotSize, &slot)) break;
    const uint64_t table = identifierNumber(slot.tableID);
    if (table != 0) total += counts.try_emplace(table, slot.recordCount).first->second;
  }
  return total;
}

// The record of the table at the file's position.
bool readEntry(int16_t db, const unsigned char* tableID, recordPartP1Class* entry) {
  recordPart1 header;
  entry->recordPos = myGetFilePos(db);
  if (internal_GetOneRecordDataInfo(db, tableID, &header) != 1) return false;
  entry->tableID = identifierNumber(header.tableID);
  entry->recordID = identifierNumber(header.recordID);
  entry->prevRecordPos = header.prevRecordPos;
  entry->nextRecordPos = header.nextRecordPos;
  entry->dataLength = header.dataLength;
  entry->dataCapacity = header.dataCapacity;
  return true;
}

// Puts the records that the two walks have reached into the order of the new chain.
void merge(VisitedRecords& forward, VisitedRecords& backward, VisitedRecords* merged) {
  for (QVNode* node = forward.first(); node != nullptr; node = node->next) {
    merged->appendIfNew(VisitedRecords::entryOf(node));
  }
  // Kept deliberately: the count is that of the backward list, but the forward list is read, from
  // that index down to its first entry. What was reached only backwards stays out of the
  // chain. Indexes that the forward list does not have are left out.
  const int from = std::min(backward.size(), forward.size()) - 1;
  for (QVNode* node = forward.nodeAt(from); node != nullptr; node = node->prev) {
    merged->appendIfNew(VisitedRecords::entryOf(node));
  }
}

class LinkRepair {
 public:
  LinkRepair(int16_t db, const RepairProgress& progress, int* result)
      : progress_(progress), result_(result), db_(db) {}

  bool run() {
    *result_ = kNothingToRepair;
    bool complete = false;
    try {
      CallScope scope(db_);
      // unreached: setting the version has completed all writes
      complete = repair() && scope.end();
    } catch (platform::ThreadCancelled&) {
      throw;
    } catch (const std::exception&) {
      // No memory for the lists.
    }
    if (!complete) *result_ = stopped_ ? kStopped : kFailed;
    return complete;
  }

 private:
  bool repair() {
    if (!readDirectoryNumbers(db_, &directory_)) return false;
    const int64_t directoryPos = myGetFilePos(db_);
    if (!report(1)) return false;
    total_ = countRecords(db_, directory_);
    if (myFileSeek(db_, directoryPos, kFromStart) != 0) return false;  // unreached: own position
    for (int t = 0; t < directory_.tableCount; ++t) {
      if (!repairTable()) return false;
    }
    // The version says that the repair was completed, so that everything must be written before.
    return report(99) && CallScope::completeWrites() && SetDBaseVersion(db_, kFinishedVersion) == 1;
  }

  bool repairTable() {
    slotPos_ = myGetFilePos(db_);
    if (!readUsedSlot(db_, directory_.slotSize, &slot_)) return false;
    const int64_t nextSlotPos = myGetFilePos(db_);
    int64_t length = 0;
    if (slot_.firstDataPos != 0 &&
        !measureTableDataBlock(db_, slot_.firstDataPos, slot_.tableID, &length)) {
      return false;
    }
    if (!repairChain()) return false;
    return myFileSeek(db_, nextSlotPos, kFromStart) == 0;
  }

  bool repairChain() {
    forward_.clear();
    backward_.clear();
    merged_.clear();
    if (slot_.recordCount == 0 || slot_.firstRecordPos == 0) return true;
    bool forwardComplete = false;
    bool backwardComplete = false;
    if (!walk(slot_.firstRecordPos, &recordPartP1Class::nextRecordPos, &forward_,
              &forwardComplete) ||
        !walk(slot_.lastRecordPos, &recordPartP1Class::prevRecordPos, &backward_,
              &backwardComplete)) {
      return false;
    }
    if (forwardComplete && backwardComplete) return true;
    if (forward_.empty() && backward_.empty()) return false;
    merge(forward_, backward_, &merged_);
    return writeBack();
  }

  // From one end along one of the links. Returns false only when the caller stops it. It is
  // complete when all counted records were there, whatever the last link holds.
  bool walk(int64_t from, int64_t recordPartP1Class::*link, VisitedRecords* records,
            bool* complete) {
    *complete = false;
    if (myFileSeek(db_, from, kFromStart) != 0) return true;
    // unreached: the last record that is counted returns
    for (uint32_t i = 0; i < slot_.recordCount; ++i) {
      recordPartP1Class entry;
      if (!readEntry(db_, slot_.tableID, &entry) || records->has(entry.recordPos)) return true;
      if (!visit(records, entry)) return false;
      *complete = i == slot_.recordCount - 1;
      if (*complete || entry.*link == 0) return true;
      if (myFileSeek(db_, entry.*link, kFromStart) != 0) return true;
    }
    return true;
  }

  // Each record counts a half in either walk.
  bool visit(VisitedRecords* records, const recordPartP1Class& entry) {
    records->append(entry);
    visited_ += 0.5;
    return report(percentVisited());
  }

  int percentVisited() const {
    if (total_ == 0) return 1;
    const double percent = visited_ * 97.0 / static_cast<double>(total_) + 1.0;
    return static_cast<int>(std::min(percent, double{std::numeric_limits<int>::max()}));
  }

  // The links first, then the slot, if it changes.
  bool writeBack() {
    if (merged_.empty()) return true;
    *result_ = kRepaired;
    const auto positionOf = [](QVNode* node) {
      return node == nullptr ? 0 : VisitedRecords::entryOf(node).recordPos;
    };
    QVNode* const first = merged_.first();
    QVNode* last = first;
    for (QVNode* node = first; node != nullptr; node = node->next) {
      recordPartP1Class& entry = VisitedRecords::entryOf(node);
      entry.prevRecordPos = positionOf(node->prev);
      entry.nextRecordPos = positionOf(node->next);
      if (FixOneDataLinkInfo(db_, &entry) != 1) return false;
      last = node;
    }
    return writeSlot(positionOf(first), positionOf(last), static_cast<uint32_t>(merged_.size()));
  }

  bool writeSlot(int64_t first, int64_t last, uint32_t count) {
    const bool isSame =
        // unreached: the new chain begins with the first record of the old one
        slot_.firstRecordPos == first && slot_.lastRecordPos == last && slot_.recordCount == count;
    slot_.firstRecordPos = first;
    slot_.lastRecordPos = last;
    slot_.recordCount = count;
    return isSame || rewriteSlot(db_, slotPos_, slot_);
  }

  // Through SavedCallBack, so that the function may move the file's position. False when it asks to
  // stop, and when what was written cannot be completed.
  bool report(int percent) {
    if (progress_.function == nullptr) return true;
    if (!CallScope::completeWrites()) return false;
    stopped_ = SavedCallBack(db_, progress_.function, percent, progress_.userData,
                             progress_.argument) == 0;
    return !stopped_;
  }

  const RepairProgress& progress_;
  int* result_;
  int16_t db_;
  DirectoryNumbers directory_{};
  uint64_t total_ = 0;
  double visited_ = 0;
  bool stopped_ = false;

  // The table at hand.
  tablePart1 slot_{};
  int64_t slotPos_ = 0;
  VisitedRecords forward_;
  VisitedRecords backward_;
  VisitedRecords merged_;
};

// Closes the file, however the repair ends.
struct ClosedAtEnd {
  ~ClosedAtEnd() {
    dropDirectoryEntry(db);
    QVFile().QVCloseFile(db);
  }
  int16_t db;
};

}  // namespace

bool maintenance::repairLinks(int16_t db, const RepairProgress& progress, int* result) {
  return LinkRepair(db, progress, result).run();
}

int FixOneDBLinkErrorW(const QVWCHAR* srcPath, QVProgressFunction callback, int userData,
                       void* callbackArg, int* result) {
  if (srcPath == nullptr || result == nullptr) return 0;
  *result = kNothingToRepair;
  int16_t db = 0;
  if (QVFile().QVOpenFile(srcPath, platform::kSharedWriters, &db) != 1) return 0;
  bool isComplete = false;
  {
    const platform::Turn turn(db);
    const ClosedAtEnd closed{db};
    isComplete = repairLinks(db, {callback, userData, callbackArg}, result);
  }
  if (isComplete && callback != nullptr) callOutside(callback, 100, userData, callbackArg);
  return 1;  // says only that the file could be opened; the rest is in the result
}

int FixOneDataLinkInfo(int16_t db, const recordPartP1Class* entry) {
  static_assert(record::kNextRecordPos == record::kPrevRecordPos + 8);
  const int64_t linksPos = entry->recordPos + record::kPrevRecordPos;
  if (myFileSeek(db, linksPos, kFromStart) != 0) return 0;
  return writeInt64(db, entry->prevRecordPos) && writeInt64(db, entry->nextRecordPos) ? 1 : 0;
}

int Internal_CheckRPP1Class_Duplicate(QVList* list, const recordPartP1Class* entry) {
  for (QVNode* node = list->GetNodeAt(0); node != nullptr; node = node->next) {
    if (static_cast<const recordPartP1Class*>(node->data)->recordPos == entry->recordPos) return 1;
  }
  return 0;
}
