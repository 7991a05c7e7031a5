// The directory cache: one entry for each open database whose directory has been read, so that the
// operations after the first need not read header and directory numbers again.
//
// An entry is found by its handle. All threads share the list, under a lock of its own, and get
// copies of its entries. An entry is kept until the database is closed, or until a whole-file
// operation drops it. What other processes change in the header meanwhile is not seen.
#pragma once

#include <qvdbase/caches.h>

#include "format/layout.h"

namespace qvdbase::engine {

struct DirectoryCacheEntry {
  int16_t fileRef;           // the database handle
  internal_Head1* headCopy;  // owned by the entry
  int16_t tableCount;
  int16_t slotCount;
  uint16_t slotSize;
  int64_t directoryPos;
};

// Copies the database's entry, of which headCopy stays the cache's. False when it has none.
bool findDirectoryEntry(int16_t db, DirectoryCacheEntry* entry);

// Stores another number of tables in the database's entry, if it has one.
void updateTableCount(int16_t db, int16_t tableCount);

// Adds an entry with a copy of `head`. Without memory for it nothing is cached.
void addDirectoryEntry(DirectoryCacheEntry entry, const internal_Head1& head);

// Drops the database's entry, if it has one.
void dropDirectoryEntry(int16_t db);

}  // namespace qvdbase::engine
