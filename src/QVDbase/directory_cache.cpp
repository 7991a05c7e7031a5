// The directory cache, a list of entries by value.
#include "QVDbase/directory_cache.h"

#include <cstring>
#include <new>

#include "platform/host/lock.h"
#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::engine;

using engine::DirectoryCacheEntry;

QVList gbl_Gdb2tDQ;

namespace {

using platform::Shared;
using platform::SharedLock;

// The end of the process destroys the list; its other threads may still be at work, and static
// objects of the application too. For them there is no cache any more.
bool isOver;

// The database's entry, with its index. To be called with the lock, as eraseAt.
DirectoryCacheEntry* entryOf(int16_t db, int* index) {
  *index = isOver ? -1 : 0;
  if (isOver) return nullptr;
  for (QVNode* node = gbl_Gdb2tDQ.GetNodeAt(0); node != nullptr; node = node->next, ++*index) {
    auto* entry = static_cast<DirectoryCacheEntry*>(node->data);
    // unreached: an entry is added with its bytes
    if (entry != nullptr && entry->fileRef == db) return entry;
  }
  *index = -1;
  return nullptr;
}

int eraseAt(int index) {
  if (isOver) return 0;
  int size = 0;
  const void* bytes = gbl_Gdb2tDQ.GetAtNoCopy(&size, index);
  const auto* entry = static_cast<const DirectoryCacheEntry*>(bytes);
  if (entry == nullptr) return 0;
  if (entry->headCopy != nullptr) platform::release(entry->headCopy);
  return gbl_Gdb2tDQ.DelAt(index);
}

// Destroyed before the list, which it leaves empty.
struct End {
  ~End() {
    const SharedLock lock(Shared::directoryCache);
    while (eraseAt(0) == 1) {
    }
    isOver = true;
  }
};
const End endOfCache{};

}  // namespace

int SearchForGDB2TCache(int16_t db) {
  const SharedLock lock(Shared::directoryCache);
  int index = -1;
  entryOf(db, &index);
  return index;
}

int EraseSFGDB2TCache(int index) {
  const SharedLock lock(Shared::directoryCache);
  return eraseAt(index);
}

namespace qvdbase::engine {

bool findDirectoryEntry(int16_t db, DirectoryCacheEntry* entry) {
  const SharedLock lock(Shared::directoryCache);
  int index = -1;
  const DirectoryCacheEntry* found = entryOf(db, &index);
  if (found != nullptr)
    std::memcpy(entry, found, sizeof *entry);  // padding too, as they are served
  return found != nullptr;
}

void updateTableCount(int16_t db, int16_t tableCount) {
  const SharedLock lock(Shared::directoryCache);
  int index = -1;
  if (DirectoryCacheEntry* entry = entryOf(db, &index)) entry->tableCount = tableCount;
}

void addDirectoryEntry(DirectoryCacheEntry entry, const internal_Head1& head) {
  void* copy = platform::allocate(sizeof head);
  if (copy == nullptr) return;
  std::memcpy(copy, &head, sizeof head);
  entry.headCopy = static_cast<internal_Head1*>(copy);
  const SharedLock lock(Shared::directoryCache);
  try {
    if (!isOver && gbl_Gdb2tDQ.Add(&entry, sizeof entry) == 1)
      return;  // unreached: the list adds or throws
  } catch (const std::bad_alloc&) {
    // Without the entry every call reads the three numbers from the file.
  }
  platform::release(copy);
}

void dropDirectoryEntry(int16_t db) {
  const SharedLock lock(Shared::directoryCache);
  int index = -1;
  if (entryOf(db, &index) != nullptr) eraseAt(index);
}

}  // namespace qvdbase::engine
