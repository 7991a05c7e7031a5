// Reading the file header and the directory numbers.
#include "QVDbase/header.h"

#include <cstddef>
#include <cstring>

#include "QVDbase/directory_cache.h"
#include "QVDbase/position.h"
#include "format/fields.h"

using namespace qvdbase;
using namespace qvdbase::engine;

using engine::DirectoryCacheEntry;

namespace {

bool signatureIsOurs(const unsigned char* signature) {
  return (signature[0] == 'Q' || signature[0] == 'q') &&
         (signature[1] == 'V' || signature[1] == 'v');
}

// On a cache hit the header record gets the entry's own bytes, from its header reference on, and
// not the header copy: callers have never had the header's fields then. Only bytes that belong to
// the entry are read.
void overwriteWithEntryBytes(const DirectoryCacheEntry& entry, internal_Head1* head) {
  constexpr size_t kFrom = offsetof(DirectoryCacheEntry, headCopy);
  constexpr size_t kAvailable = sizeof(DirectoryCacheEntry) - kFrom;
  constexpr size_t kCount =
      kAvailable < sizeof(internal_Head1) ? kAvailable : sizeof(internal_Head1);
  std::memcpy(head, reinterpret_cast<const unsigned char*>(&entry) + kFrom, kCount);
}

int serveFromCache(const DirectoryCacheEntry& entry, internal_Head1* head, int16_t* tableCount,
                   int16_t* slotCount, uint16_t* slotSize) {
  *tableCount = entry.tableCount;
  *slotCount = entry.slotCount;
  *slotSize = entry.slotSize;
  const int64_t directoryPos = entry.directoryPos;
  const int16_t db = entry.fileRef;
  if (head != nullptr) overwriteWithEntryBytes(entry, head);
  return myFileSeek(db, directoryPos, kFromStart) == 0 ? 1 : 0;
}

void enterIntoCache(int16_t db, const internal_Head1& head, int16_t tableCount, int16_t slotCount,
                    uint16_t slotSize) {
  DirectoryCacheEntry entry;
  std::memset(&entry, 0, sizeof entry);  // padding too: a hit returns the entry's bytes
  entry.fileRef = db;
  entry.tableCount = tableCount;
  entry.slotCount = slotCount;
  entry.slotSize = slotSize;
  entry.directoryPos = myGetFilePos(db);
  engine::addDirectoryEntry(entry, head);
}

}  // namespace

int internal_GetDBHead1(int16_t db, internal_Head1* head) {
  if (head == nullptr) return 0;
  if (myFileSeek(db, 0, kFromStart) != 0) return 0;
  if (!format::readBytes(db, head->signature, sizeof head->signature)) return 0;
  if (!signatureIsOurs(head->signature)) return 0;
  if (!format::readUint16(db, &head->version)) return 0;
  head->databaseIDPos = myGetFilePos(db);
  if (!format::readBytes(db, head->databaseID, sizeof head->databaseID)) return 0;
  return 1;
}

int internal_GetDBHead2Table(int16_t db, internal_Head1* head, int16_t* tableCount,
                             int16_t* slotCount, uint16_t* slotSize) {
  DirectoryCacheEntry entry;
  if (engine::findDirectoryEntry(db, &entry)) {
    return serveFromCache(entry, head, tableCount, slotCount, slotSize);
  }
  if (internal_GetDBHead1(db, head) != 1) return 0;
  if (head->version < format::kFirstVersion || head->version > format::kLastVersion) return 0;

  uint16_t tables = 0;
  uint16_t slots = 0;
  if (!format::readUint16(db, &tables) || !format::readUint16(db, &slots) ||
      !format::readUint16(db, slotSize)) {
    return 0;
  }
  *tableCount = static_cast<int16_t>(tables);
  *slotCount = static_cast<int16_t>(slots);
  enterIntoCache(db, *head, *tableCount, *slotCount, *slotSize);
  return 1;
}

namespace qvdbase::engine {

bool readDirectoryNumbers(int16_t db, DirectoryNumbers* numbers) {
  internal_Head1 head;
  return internal_GetDBHead2Table(db, &head, &numbers->tableCount, &numbers->slotCount,
                                  &numbers->slotSize) == 1;
}

}  // namespace qvdbase::engine
