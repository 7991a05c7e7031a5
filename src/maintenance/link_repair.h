// Link repair: what it keeps of a record it has visited, and the routines on it.
#pragma once

#include <qvdbase/QVList.h>
#include <qvdbase/qvdbase.h>

#include <cstdint>

// One visited record, stored by copy in the lists of the repair.
struct recordPartP1Class {
  uint64_t tableID;
  uint64_t recordID;
  int64_t prevRecordPos;  // 0 for none
  int64_t nextRecordPos;  // 0 for none
  int64_t recordPos;      // two entries with the same one are the same record
  uint32_t dataLength;
  uint32_t dataCapacity;
};

namespace qvdbase::maintenance {

// The result of FixOneDBLinkErrorW.
inline constexpr int kNothingToRepair = 0;
inline constexpr int kFailed = 1;
inline constexpr int kRepaired = 2;
inline constexpr int kStopped = 10;

// Called as function(percent, userData, argument); may be null.
struct RepairProgress {
  QVProgressFunction function;
  int userData;
  void* argument;
};

// What FixOneDBLinkErrorW does with the file that it has opened, on one that the caller has.
// Returns whether it was completed; percent 100 is then left to report.
bool repairLinks(int16_t db, const RepairProgress& progress, int* result);

}  // namespace qvdbase::maintenance

// Writes both links of the entry over those of its block. Returns 1, or 0 when the file cannot be
// positioned or written.
int FixOneDataLinkInfo(int16_t db, const recordPartP1Class* entry);

// Returns 1 when an element of the list has the entry's recordPos, else 0. Looks at each in turn:
// the repair itself asks the set of positions that it keeps beside each list.
int Internal_CheckRPP1Class_Duplicate(QVList* list, const recordPartP1Class* entry);
