// Searching and inserting in arrays of record positions that callers of the library keep.
#include <qvdbase/caches.h>

#include <cstdlib>

namespace {

int compareKeys(const record1Cache& a, const record1Cache& b) {
  if (a.recordKey == b.recordKey) return 0;
  return a.recordKey < b.recordKey ? -1 : 1;
}

// The places around which a newcomer above element 0 is looked for. Returns false when it stays
// where it is: it is above all others, or its key is there already.
bool rangeForNewcomer(const record1Cache* array, int count, int* low, int* high) {
  const record1Cache& newcomer = array[count - 1];
  if (compareKeys(newcomer, array[0]) <= 0) {
    *low = 0;
    *high = QVMIN(count - 1, 2);
    return true;
  }
  if (compareKeys(array[count - 2], newcomer) < 0) return false;
  int32_t index = 0;
  if (internal_BinarySearchForCode(array, &newcomer, count - 1, &index) == 0) return false;
  *low = QVMAX(index - 2, 0);
  *high = QVMIN(count - 1, index + 2);
  return true;
}

}  // namespace

int internal_AddOneTableCache(int16_t, uint64_t, int64_t) {
  return 1;
}
int internal_AddOneRecordCache(int16_t, uint64_t, uint64_t, int64_t) {
  return 0;
}
int internal_FindOneCacheDB(int16_t, int*) {
  return 0;
}
int internal_FindOneCacheTB(int16_t, uint64_t, int*, int*) {
  return 0;
}

int QVMIN(int a, int b) {
  return a <= b ? a : b;
}
int QVMAX(int a, int b) {
  return a >= b ? a : b;
}

int internal_Record_Qsort_Compare(const void* a, const void* b) {
  return compareKeys(*static_cast<const record1Cache*>(a), *static_cast<const record1Cache*>(b));
}

int internal_Record_Bsearch_Compare(const void* a, const void* b) {
  return internal_Record_Qsort_Compare(a, b);
}

int internal_BSearchRecordCache(const record1Cache* array, int count, uint64_t key, int64_t* posOut,
                                int* indexOut) {
  if (array == nullptr || count <= 0) return 0;
  const record1Cache probe{key, 0};
  const void* found = std::bsearch(&probe, array, static_cast<size_t>(count), sizeof(record1Cache),
                                   internal_Record_Bsearch_Compare);
  if (found == nullptr) return 0;
  const auto* element = static_cast<const record1Cache*>(found);
  *indexOut = static_cast<int>(element - array);
  *posOut = element->recordPos;
  return 1;
}

int internal_BinarySearchForCode(const record1Cache* array, const record1Cache* key, int32_t count,
                                 int32_t* indexOut) {
  *indexOut = 0;
  if (count < 1) return -2;
  const auto foundAt = [&](int32_t index) {
    if (array[index].recordKey != key->recordKey) return false;
    *indexOut = index;
    return true;
  };

  int32_t high = count - 1;
  if (foundAt(high / 2) || foundAt(high)) return 0;
  int32_t low = 0;
  int32_t mid = count / 2;
  do {
    if (foundAt(mid)) return 0;
    if (array[mid].recordKey < key->recordKey) {
      low = mid;
      mid = low + (high - low) / 2;
    } else {
      high = mid;
      mid = low + (mid - low) / 2;
    }
  } while (mid != low && mid != high);  // unreached: mid reaches low first
  // unreached: mid never has to step back
  if (array[mid].recordKey > key->recordKey && mid > 0) --mid;
  *indexOut = mid;
  return -2;
}

int internal_QuickSortRecordCache(record1Cache* array, int count) {
  if (array == nullptr || count <= 0) return 0;
  if (count == 1) return 1;
  int low = 0;
  int high = 0;
  if (!rangeForNewcomer(array, count, &low, &high)) return 1;

  const record1Cache newcomer = array[count - 1];
  // `high` itself is not examined, on purpose: a newcomer that belongs there stays last.
  for (int place = low; place < high; ++place) {
    if (compareKeys(array[place], newcomer) <= 0) continue;
    for (int i = count - 1; i > place; --i) array[i] = array[i - 1];
    array[place] = newcomer;
    break;
  }
  return 1;
}
