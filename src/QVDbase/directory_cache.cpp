// The directory cache, a list of entries by value.
#include "QVDbase/directory_cache.h"

#include <cstring>
#include <new>

#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::engine;

using engine::DirectoryCacheEntry;

QVList gbl_Gdb2tDQ;

namespace {

DirectoryCacheEntry* entryAt(int index) {
  int size = 0;
  return static_cast<DirectoryCacheEntry*>(gbl_Gdb2tDQ.GetAtNoCopy(&size, index));
}

}  // namespace

int SearchForGDB2TCache(int16_t db) {
  for (int index = 0; index < gbl_Gdb2tDQ.GetSize(); ++index) {
    const DirectoryCacheEntry* entry = entryAt(index);
    // unreached: an entry is added with its bytes
    if (entry != nullptr && entry->fileRef == db) return index;
  }
  return -1;
}

int EraseSFGDB2TCache(int index) {
  const DirectoryCacheEntry* entry = entryAt(index);
  if (entry == nullptr) return 0;
  if (entry->headCopy != nullptr) platform::release(entry->headCopy);
  return gbl_Gdb2tDQ.DelAt(index);
}

namespace qvdbase::engine {

DirectoryCacheEntry* findDirectoryEntry(int16_t db) {
  const int index = SearchForGDB2TCache(db);
  return index == -1 ? nullptr : entryAt(index);
}

void addDirectoryEntry(DirectoryCacheEntry entry, const internal_Head1& head) {
  void* copy = platform::allocate(sizeof head);
  if (copy == nullptr) return;
  std::memcpy(copy, &head, sizeof head);
  entry.headCopy = static_cast<internal_Head1*>(copy);
  try {
    if (gbl_Gdb2tDQ.Add(&entry, sizeof entry) == 1) return;  // unreached: the list adds or throws
  } catch (const std::bad_alloc&) {
    // Without the entry every call reads the three numbers from the file.
  }
  platform::release(copy);
}

void dropDirectoryEntry(int16_t db) {
  const int index = SearchForGDB2TCache(db);
  if (index != -1) EraseSFGDB2TCache(index);
}

}  // namespace qvdbase::engine
