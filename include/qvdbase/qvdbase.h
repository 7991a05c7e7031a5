/* QVDbase: a small embedded database library. Tables of records in single files.
 *
 * A database is one file: a header, a directory of 32 table slots (31 of them usable), and behind
 * them the blocks that the library appends. A table has a name, an identifier, a chain of records
 * and at most one block of table data. A record has an identifier, a create time, a time of last
 * modification and a payload of bytes whose meaning is the application's.
 *
 * Handles. An open database is named by a positive 16-bit file reference number; 0 means none. The
 * application opens or creates a database, works on it and closes it with CloseDBase.
 *
 * Identifiers are unsigned 64-bit numbers; where a function returns one, 0 stands for "none".
 * Times are seconds since 1970, modulo 2^32. Sizes are bytes. Paths are zero-terminated 16-bit
 * strings (UTF-16) of at most 2,047 characters, walked from the root of the file system whether or
 * not they begin with a separator; '/' and the backslash both separate. Table names are
 * zero-terminated 8-bit strings, of which the first 32 bytes count.
 *
 * Results. Unless said otherwise 1 is success and 0 is failure; there are no error codes, and
 * output arguments are written only where the description says so.
 *
 * File position. A database handle has one file position. Every function here restores the
 * position that it found, on success and on failure, unless its description says otherwise.
 *
 * What is safe. When a call has returned, all that it wrote is with the operating system: ending
 * the process at once loses none of it. The library does not sync to the device: a power failure
 * can lose or tear what the operating system had not yet written. Files may be damaged or hostile:
 * no file makes the library read or write outside its buffers.
 *
 * What not to do. The library is used from one thread at a time. Do not work on one database from
 * inside a progress function that is running on it. A table, record or table-data buffer passed in
 * stays the caller's; nothing is kept after the call. Functions that fill a caller's buffer do not
 * know its size: ask for the size first, as their descriptions say.
 */
#ifndef QVDBASE_QVDBASE_H
#define QVDBASE_QVDBASE_H

#include <qvdbase/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What GetOneRecordInfo tells of a record. 48 bytes. */
typedef struct oneRecordInfoP1 {
  uint64_t tableID;      /* the owning table */
  uint64_t recordID;     /* the record */
  uint32_t createTime;   /* when the record was first written */
  uint32_t modifyTime;   /* when it was last modified */
  uint32_t dataLength;   /* bytes of payload in use */
  uint32_t dataCapacity; /* bytes of room for the payload; never below dataLength in a sound file */
  int64_t recordPos;     /* file position of the record's block */
  int64_t dataPos;       /* file position of its payload: recordPos + 55 */
} oneRecordInfoP1;

/* A progress function. What its two numbers mean and what it is handed as its third argument is
 * said by each operation. Returning 0 asks the operation to stop. */
typedef uint16_t (*QVProgressFunction)(int, int, void*);

/* ---- Variables ------------------------------------------------------------------------------ */

/* Bytes moved by the latest read and the latest write of the library, process-wide. */
extern QVDBASE_API uint32_t gbl_realReaden;
extern QVDBASE_API uint32_t gbl_realWriten;

/* Starts at 0. The library neither reads nor writes it; it is kept for callers that name it. */
extern QVDBASE_API int32_t Gbl_Flush_Time;

/* ---- Databases ------------------------------------------------------------------------------ */

/* Makes a new identifier.
 *
 * value  receives the identifier; must not be null
 *
 * Returns 1; 0 when value is null. */
QVDBASE_API int GenerateUuID_Int64(uint64_t* value);

/* Creates an empty database and leaves it open for reading and writing, excluding every other
 * writer. Missing directories of the path are made. A file that is already there is emptied
 * first, unless anybody has it open: then nothing in it changes and the call fails.
 *
 * path       where to create it
 * signature  4 bytes, stored as given; only files whose first byte is 'Q' or 'q' and whose second
 *            is 'V' or 'v' can be used as databases later
 * version    stored as 16 bits; table and record operations accept 100 to 199
 *
 * Returns the handle, positioned at the end of the new file (4,630). Returns 0 when path or
 * signature is null, when the file cannot be created, emptied or opened, and when it cannot be
 * written; in the last case the partial file stays, open until the process ends. */
QVDBASE_API int16_t CreateDBaseW(const QVWCHAR* path, const void* signature, int version);

/* Opens an existing file as a database. The file's contents are not looked at: a file that is no
 * database opens as well, and every later operation on it fails.
 *
 * path        the file
 * permission  1 read only; 2 or 3 read and write, excluding every other writer; 4 read and write,
 *             shared with others who open with 4; 0 the most that can be had (4, else 1). Only the
 *             low 8 bits count
 *
 * Returns the handle, positioned at 0; 0 when the path is null, the file is not there or is not a
 * regular file, the permission is not one of these or cannot be granted. */
QVDBASE_API int16_t OpenDBaseW(const QVWCHAR* path, int permission);

/* Closes a database; its handle may be given to another file afterwards.
 *
 * Returns a value other than 0 when the handle was open and is now closed, else 0. */
QVDBASE_API uint16_t CloseDBase(int16_t db);

/* Does nothing: each call has handed its writes to the operating system before it returns.
 * Returns 1 for any handle. */
QVDBASE_API int FlushDBase(int16_t db);

/* Reads signature, version and identifier of the database at a path. The file is opened with
 * permission 4 for the length of the call. The version is told whatever its value.
 *
 * path          the file
 * signatureOut  5 bytes: the signature and a zero; may be null
 * versionOut    the version; may be null
 * idOut         10 bytes: the database's eight identity bytes and their sum; may be null
 *
 * Returns 1; 0 when the file cannot be opened or read, or does not begin as a database does. */
QVDBASE_API int GetDBaseInfoW(const QVWCHAR* path, void* signatureOut, uint16_t* versionOut,
                              void* idOut);

/* Writes a new version into the header. Any value is stored; with one outside 100 to 199 the table
 * and record operations refuse the database from its next opening on.
 *
 * Returns 1 when the version was written, and also, without writing anything, when the handle has
 * no position to be restored (it is not open); 0 when the header cannot be written. */
QVDBASE_API int SetDBaseVersion(int16_t db, uint16_t version);

/* ---- Tables --------------------------------------------------------------------------------- */

/* Adds a table.
 *
 * db    a database, opened for writing
 * name  not empty; the first 32 bytes are stored. Names are compared byte for byte with the stored
 *       names, so that a longer name never equals one that is already there
 *
 * Returns the new table's identifier. Returns 0 when name is null or empty, when a table of that
 * name exists, when the directory is full (31 tables), when a slot in use is damaged, and when the
 * file cannot be read or written; the number of tables is then unchanged. */
QVDBASE_API uint64_t AddTable(int16_t db, const char* name);

/* Finds a table by its name, the first in order of creation.
 *
 * Returns its identifier; 0 when there is none, when name is null or empty, and when the directory
 * cannot be read or a slot before the table is damaged. */
QVDBASE_API uint64_t FindTableByName(int16_t db, const char* name);

/* Tells the number of tables.
 *
 * count  receives it; written on success only
 *
 * Returns 1; 0 when count is null or the directory cannot be read. */
QVDBASE_API int GetNumberOfTable(int16_t db, int32_t* count);

/* Tells name and identifier of a table by its place in order of creation.
 *
 * index  0 to the number of tables - 1
 * name   33 bytes: up to 32 bytes of name and a terminating zero; written on success only
 *
 * Returns the identifier; 0 when name is null, when the index is out of range, and when the
 * directory cannot be read or a slot up to the one wanted is damaged. */
QVDBASE_API uint64_t GetTableNameAndIDByIndex(int16_t db, int index, char* name);

/* ---- Table data ----------------------------------------------------------------------------- */

/* Stores a table's block of data. It is written over the present block when that block has room,
 * else as a new block at the end of the file.
 *
 * table    the table's identifier
 * data     size bytes; null is allowed only with size 0
 * size     bytes to store
 * reserve  room to keep for later growth; a new block has room for the larger of size and reserve
 *
 * Returns 1. Returns 0 when data is null with a size above 0, when no table has the identifier,
 * when the present block is damaged, and when the file cannot be read or written. A failure while
 * a new block is appended leaves the old data in place; one while the present block is written over
 * can leave it holding part of the new data. */
QVDBASE_API int SetTableData(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                             uint32_t reserve);

/* Reads a table's block of data.
 *
 * buffer  room for as many bytes as GetTableDataSize tells
 *
 * Returns 1 with the data in the buffer. Returns 0 when buffer is null, when the table has no data
 * or data of size 0, when there is no such table, when its block is damaged or cannot be read. */
QVDBASE_API int GetTableData(int16_t db, uint64_t table, void* buffer);

/* Tells the size of a table's block of data, in bytes.
 *
 * size  receives it; written on success only
 *
 * Returns 1. Returns 0 when size is null, when the table has no data, when there is no such table,
 * and when its block is damaged or cannot be read. */
QVDBASE_API int GetTableDataSize(int16_t db, uint64_t table, uint32_t* size);

/* ---- Records -------------------------------------------------------------------------------- */

/* Adds a record behind the table's last one, under a new identifier. Its times are now.
 *
 * payload  size bytes; null is allowed only with size 0
 * size     bytes to store
 * reserve  room to keep for later growth; the record has room for the larger of size and reserve
 * record   receives the identifier; written on success only
 *
 * Returns 1. Returns 0 when record is null, when payload is null with a size above 0, when there is
 * no such table, when the ends of its chain are damaged, and when the file cannot be read or
 * written; the record is then not in the table, though bytes may have been added to the file. */
QVDBASE_API int AddRecordData(int16_t db, uint64_t table, const unsigned char* payload,
                              uint32_t size, uint32_t reserve, uint64_t* record);

/* The same, under the identifier that the caller gives. Nothing checks whether the table has a
 * record of that identifier already; lookups find the one that comes first.
 *
 * record  the identifier to use; only read */
QVDBASE_API int AddRecordData_AssignRecordID(int16_t db, uint64_t table,
                                             const unsigned char* payload, uint32_t size,
                                             uint32_t reserve, const uint64_t* record);

/* Tells of a record: times, sizes and where it lies. Looking a record up walks the table's chain
 * from its first record.
 *
 * info    receives the information; on failure it may be partly filled
 * unused  not used; may be null
 *
 * Returns 1. Returns 0 when info is null, when there is no such table or record, when the chain is
 * damaged before the record, and when the file cannot be read. */
QVDBASE_API int GetOneRecordInfo(int16_t db, uint64_t table, uint64_t record, oneRecordInfoP1* info,
                                 int* unused);

/* Sets a record's time of last modification to now; nothing else changes.
 *
 * Returns 1; 0 as GetOneRecordInfo does, and when the file cannot be written. The position is
 * restored except when the header and directory cannot be read. */
QVDBASE_API int ModifyOneRecordInfo_LMTime(int16_t db, uint64_t table, uint64_t record);

/* Lists the identifiers of a table's records, in the order of the chain.
 *
 * list   room for as many identifiers as GetNumberOfRecords tells
 * count  receives how many were stored
 *
 * Returns 1. Returns 0 when list or count is null, when there is no such table, and when the chain
 * is damaged or cannot be read; count then tells how many identifiers were fully stored, and one
 * more entry of the list may have been written. */
QVDBASE_API int GetRecordUuIDList(int16_t db, uint64_t table, uint64_t* list, uint32_t* count);

/* Tells the number of a table's records.
 *
 * count  receives it; must not be null. It is set to 0 first, so that it is 0 after a failure
 *
 * Returns 1; 0 when there is no such table or the directory cannot be read. */
QVDBASE_API int GetNumberOfRecords(int16_t db, uint64_t table, uint32_t* count);

/* Replaces a record's payload and sets its time of last modification to now. A payload that fits
 * the record's room is written over the old one, whose tail, if it was longer, stays in the file; a
 * larger one goes to a new block at the end of the file, without spare room, which takes the old
 * one's place in the chain. The record keeps its identifier, its create time and its place in the
 * order.
 *
 * payload  size bytes; must not be null
 * size     must not be 0
 * unused   not used; may be null
 *
 * Returns 1. Returns 0 when payload is null or size is 0, when there is no such table or record,
 * when the neighbours in the chain are damaged, and when the file cannot be read or written. A
 * failure while writing over the old payload can leave the record with part of the new one.
 *
 * File position: left just behind the new payload when it was written over the old one; restored in
 * every other case. */
QVDBASE_API int ModifyRecordData(int16_t db, uint64_t table, const unsigned char* payload,
                                 uint32_t size, uint64_t record, int* unused);

/* Takes a record out of its table. Its bytes stay in the file until the database is packed.
 *
 * unused  not used; may be null
 *
 * Returns 1. Returns 0 when there is no such table or record, when the chain is damaged there, and
 * when the file cannot be read or written. */
QVDBASE_API int DeleteOneRecord(int16_t db, uint64_t table, uint64_t record, int* unused);

#ifdef __cplusplus
}
#endif

#endif
