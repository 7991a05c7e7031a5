// QVDbase: the process-wide directory cache, and searching and inserting in arrays of record
// positions. The record functions work on arrays that their callers own; the library itself keeps
// no such array.
#pragma once

#include <qvdbase/QVList.h>
#include <qvdbase/base.h>

// One entry for each open database whose directory has been read. Managed by the library, under a
// lock of its own: look at the list itself only while no other thread calls the library.
extern QVDBASE_API QVList gbl_Gdb2tDQ;

// Returns the index of the database's entry in gbl_Gdb2tDQ, or -1 when it has none.
QVDBASE_API int SearchForGDB2TCache(int16_t db);

// Releases the entry at `index`, which is another one as soon as a thread closes a database.
// Returns 1, or 0 when there is no entry at that index. The next operation on the database reads
// header and directory numbers from the file again.
QVDBASE_API int EraseSFGDB2TCache(int index);

// Does nothing and returns 1. Kept for callers that link against it, as the next three are.
QVDBASE_API int internal_AddOneTableCache(int16_t db, uint64_t table, int64_t position);

// Does nothing and returns 0.
QVDBASE_API int internal_AddOneRecordCache(int16_t db, uint64_t table, uint64_t record,
                                           int64_t position);

// Does nothing and returns 0; `index` is not written.
QVDBASE_API int internal_FindOneCacheDB(int16_t db, int* index);

// Does nothing and returns 0; neither index is written.
QVDBASE_API int internal_FindOneCacheTB(int16_t db, uint64_t table, int* dbIndex, int* tableIndex);

// Returns the smaller of two numbers.
QVDBASE_API int QVMIN(int a, int b);

// Returns the larger of two numbers.
QVDBASE_API int QVMAX(int a, int b);

// Where a record is. Arrays are kept in ascending order of recordKey, compared unsigned.
struct record1Cache {
  uint64_t recordKey;  // the record's identifier
  int64_t recordPos;   // the file position of its block
};

// Compares two record1Cache elements by recordKey, for qsort. Returns -1, 0 or 1.
QVDBASE_API int internal_Record_Qsort_Compare(const void* a, const void* b);

// Compares a key (*a, a record1Cache) with an element in the same way, for bsearch.
QVDBASE_API int internal_Record_Bsearch_Compare(const void* a, const void* b);

// Finds `key` in `count` ordered elements. Returns 1 with the position and the index stored; 0 when
// array is null, count is 0 or less, or the key is absent, with nothing stored.
QVDBASE_API int internal_BSearchRecordCache(const record1Cache* array, int count, uint64_t key,
                                            int64_t* posOut, int* indexOut);

// Finds the key of *key in `count` (1 or more) ordered elements. Returns 0 with its index stored.
// When it is absent returns -2 and stores an index in the neighbourhood of where it belongs, from
// which the caller scans. With a count below 1 returns -2 and stores 0.
QVDBASE_API int internal_BinarySearchForCode(const record1Cache* array, const record1Cache* key,
                                             int32_t count, int32_t* indexOut);

// One step of an insertion sort: elements 0 to count - 2 are in order, and the last element, the
// newcomer, moves to its place. Only a few places around the one that the search finds are
// examined, the last of them not at all: a newcomer that belongs elsewhere stays last. A newcomer
// whose key is there already stays last too. Returns 1; 0 when array is null or count is 0 or less.
QVDBASE_API int internal_QuickSortRecordCache(record1Cache* array, int count);
