/* QVDbase: category records. Ordinary records whose payload has a fixed structure, the one kind of
 * payload that the library understands: PackOneDB2AllNewUUIDFile renews the identifiers in them.
 *
 * The payload, by offset; numbers are stored most significant byte first, the name's characters
 * low byte first. A and B are the two counts.
 *
 *   0                  8       categoryID
 *   8                  64      categoryName, 32 characters
 *   72                 4       categoryParam
 *   76                 8       relatedID
 *   84                 4       firstIDCount
 *   88                 8 * A   firstIDs
 *   88 + 8 * A         4       secondIDCount
 *   92 + 8 * A         8 * B   secondIDs
 *   92 + 8 * (A + B)   4       extraLength
 *   96 + 8 * (A + B)           extraData, extraLength bytes
 *
 * Memory. The record itself is the caller's. Its three pointers are null or point to memory from
 * malloc, which the caller releases with free(). Set a record to zeros before its first use.
 */
#pragma once

#include <qvdbase/qvdbase.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A category record in memory. */
typedef struct qvrzOneCategoryRecord {
  uint64_t categoryID;      /* the category's identifier */
  QVWCHAR categoryName[32]; /* UTF-16; no terminator when all 32 characters are used */
  uint32_t categoryParam;   /* carried unchanged */
  uint64_t relatedID;       /* carried unchanged */
  int32_t firstIDCount;     /* entries of firstIDs */
  uint64_t* firstIDs;       /* made by the decoder when the count is above 0 */
  int32_t secondIDCount;    /* entries of secondIDs */
  uint64_t* secondIDs;      /* made by the decoder when the count is above 0; the list in which
                               renewed identifiers are replaced */
  uint32_t extraLength;     /* bytes of extraData */
  unsigned char* extraData; /* free bytes; the caller provides the buffer before decoding */
} qvrzOneCategoryRecord;

/* An identifier and the one that took its place. */
typedef struct UUIDMapping {
  uint64_t oldID; /* the identifier that is looked for */
  uint64_t newID; /* what it is replaced by */
} UUIDMapping;

/* Decodes a category record from a record's payload.
 *
 * db      the database
 * info    the record, as GetOneRecordInfo reports it; its dataLength bounds the decoding
 * record  a record of the caller's. Its extraData must be null or a buffer from malloc; one of
 *         info->dataLength bytes is always enough, and is needed unless the payload has no free
 *         bytes. Lists that it holds from an earlier decoding are not freed: free them first and
 *         set them to null
 *
 * Returns 1 with the record filled; the lists are new memory, each only when its count is above 0.
 * Returns 1 with the record untouched when the payload has 8 bytes or less, when info->dataPos is
 * 0, and when the file does not hold the payload's first 8 bytes. When extraLength claims more
 * than the payload has left and more than the file holds, the result is 1 with extraData unchanged.
 *
 * Returns 0 when an argument is null, when the payload is shorter than its fields claim, when it
 * cannot be read, and when there is not enough memory. A failure from the first list on frees the
 * two lists and extraData, and sets all three to null: the caller must not free them again. An
 * earlier failure leaves them unchanged.
 *
 * File position: restored, except when a failure comes before the first list. */
QVDBASE_API int InternalReadOneRecord2CategoryStruct(int16_t db, const oneRecordInfoP1* info,
                                                     qvrzOneCategoryRecord** record);

/* Encodes a category record. A negative count is stored unchanged, with no entries. No file is
 * touched.
 *
 * unused  not used; pass 0
 * record  only read
 * length  receives the number of bytes: 96 + 8 * (A + B) + extraLength; must not be null
 *
 * Returns the payload, in memory that the caller releases with free(). Returns null, with length
 * unwritten, when record is null, when a pointer that its counts or extraLength need is null, when
 * the payload would not fit a record (2^32 bytes and more), and when there is not enough
 * memory. */
QVDBASE_API unsigned char* InternalPutOneCategory2Buffer(int16_t unused,
                                                         const qvrzOneCategoryRecord* record,
                                                         uint32_t* length);

/* Replaces each entry of the record's secondIDs by the newID of the first pair whose oldID it is.
 * No file is touched.
 *
 * record  its secondIDs are changed in place
 * pairs   only read
 * count   how many pairs there are; with 0 or less no entry is found
 *
 * Returns 1, also when there are no entries. Returns 0 when pairs or the record is null, and at the
 * first entry that no pair has as its oldID; the entries before it are replaced then. */
QVDBASE_API int InternalConvertOldCategoryID2New(qvrzOneCategoryRecord** record,
                                                 const UUIDMapping* pairs, int32_t count);

#ifdef __cplusplus
}
#endif
