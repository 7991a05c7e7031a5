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
 *
 * Several writers. Open a database that you write to with permission 3 (2 means the same). With
 * 4, and with 0, other processes may write at the same time, and the library does not take turns
 * for them: a call reads the table's slot, appends and writes the slot back, so that of two
 * calls at one moment the one loses records that the other has acknowledged. Permission 4
 * therefore means "I take turns by other means": every writer holds a lock of the application's
 * own around each call.
 *
 * Tables are added through one handle at a time. A handle keeps the number of tables from its
 * first look at the directory: a table added through another handle, in this process or
 * elsewhere, is overwritten by the next AddTable through the first one. A handle that is closed
 * and opened again takes another look.
 *
 * A handle that a child process got by fork is used in one of the two processes only, as by a
 * daemon that continues in its child. The lock excludes other processes, not these two from each
 * other: when both use the handle, records are lost.
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
 * said by each operation. Returning 0 asks the operation to stop. One that throws counts as one
 * that returned 0; what it threw is lost. When its thread is cancelled inside it, the operation
 * closes the files that it opened, and the cancellation goes on. */
typedef uint16_t (*QVProgressFunction)(int, int, void*);

/* ---- Variables ------------------------------------------------------------------------------ */

/* Bytes moved by the latest read and the latest write of the library, process-wide. When a write
 * failed, the bytes of it that were written. */
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
 *             shared with others who open with 4, which needs turns taken by other means (see
 *             "Several writers" above); 0 the most that can be obtained (4, else 1). Only the low 8
 *             bits count
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

/* ---- Maintenance ---------------------------------------------------------------------------- */

/* Packs a database into a new file: every table with its current data and the records of its
 * chain, which keep identifiers, times, payload and room. Deleted records, the old places of
 * modified ones and old table data stay behind. The source is opened with permission 4 for the
 * length of the call and is not changed.
 *
 * A table that has records loses its table data: its slot in the new file carries the table-data
 * positions of the source.
 *
 * srcPath   the database
 * dstPath   the new file; made and, if it is there, emptied as CreateDBaseW does. Must not be the
 *           source, and is refused while anybody has it open
 * userData  handed to callback
 * callback  may be null; called as callback(userData, percent, null), with percent 1, with 1 to 98
 *           after each record, with 99 after each table and with 100 when both files are closed. 0
 *           ends the pack as a failure, at 100 too
 *
 * Returns 1. Returns 0 when a path is null, when the source cannot be opened or read or is damaged
 * where its live blocks are, when the new file cannot be made or written, when memory for a payload
 * or a block cannot be had, and when callback returns 0. The new file is then emptied, not removed.
 * While it is filled it carries version 101, at the end 100. */
QVDBASE_API int PackOneDB2NewW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                               QVProgressFunction callback);

/* The same, telling its file numbers, with differences that make it useless for ordinary
 * databases; it is kept for programs that call it. It takes slots for images of a structure in
 * memory, so that it fails on the first table of any file below 4 GiB. A database without tables
 * becomes a header and a directory of such images, which table operations cannot use. A table that
 * has table data fails it when its slot could be written. The version is never touched, callback
 * is called for records only when the percent changes, and not with 99.
 *
 * outSrcRef  receives the source's number when the new file is open, and 0 whenever the source is
 *            closed
 * outDstRef  receives the new file's number likewise, and 0 when it is finished; after a failure
 *            only if the header's copy, a payload or a block was in memory at that moment
 * status     100 at first, 0 once the new file exists, 100 when it cannot be made. The new file is
 *            emptied after a failure only when this is not 100 then: callback may store 100 to
 *            keep it
 *
 * The three pointers must not be null. Returns 1, or 0. */
QVDBASE_API int PackOneDB2New_WithHandle(const QVWCHAR* srcPath, const QVWCHAR* dstPath,
                                         int userData, QVProgressFunction callback,
                                         uint16_t* outSrcRef, uint16_t* outDstRef, int* status);

/* Packs an open database into a new file under new identifiers: its own, and those of its records.
 * The records of the tables "QVrz_Info" and "QVrz_Category" keep theirs (and their times); all
 * others get new ones, and new times. For the records of the table "QVrz_Record" the new
 * identifiers also replace the old ones in the second lists of the category records (see
 * qvrzdb_sub.h), which are the records of "QVrz_Category".
 *
 * Of a chain of n records of "QVrz_Record" only the first n - 1 can be replaced: a category that
 * lists the last one fails the call. A table with other records behind "QVrz_Record" in the
 * directory disturbs the replacement as well.
 *
 * dstPath      as in PackOneDB2NewW
 * srcRef       the source, which stays open, its file position kept
 * callback     may be null; called as callback(userData, percent, callbackArg), with percent 1,
 *              with 1 to 98 after each record, and with 100 when the new file is closed. 0 ends the
 *              call as a failure, at 100 too
 * outSrcRef    receives srcRef when the new file is open
 * outDstRef    receives the new file's number then; 0 when it is finished, and after a failure only
 *              if the header's copy, a payload or a block was in memory at that moment
 * status       as in PackOneDB2New_WithHandle
 * callbackArg  handed to callback
 *
 * outSrcRef, outDstRef and status must not be null. Returns 1. Returns 0 as PackOneDB2NewW does,
 * when dstPath is null, when there is no table "QVrz_Category", when a category record is damaged,
 * and when one lists an identifier that was not replaced. */
QVDBASE_API int PackOneDB2AllNewUUIDFile(const QVWCHAR* dstPath, int16_t srcRef, int userData,
                                         QVProgressFunction callback, uint16_t* outSrcRef,
                                         uint16_t* outDstRef, int* status, void* callbackArg);

/* Checks the record chain of every table and relinks the broken ones, in place. Keep a copy of the
 * file: what can be reached only backwards from a chain's last record is dropped from the table.
 * The file is opened with permission 4 for the length of the call; its version becomes 100.
 *
 * srcPath      the database
 * callback     may be null; called as callback(percent, userData, callbackArg), with percent 1,
 *              with 1 to 98 for each record of either walk, with 99, and with 100 when the file is
 *              closed. 0 stops the repair, except at 100
 * result       0 nothing to repair, 2 at least one table was rewritten, 1 failure (also on a file
 *              that is no database), 10 stopped. What was written before a failure stays
 *
 * Returns 1 when the file could be opened: `result` tells the rest. Returns 0 when srcPath or
 * result is null and when the file cannot be opened for writing. */
QVDBASE_API int FixOneDBLinkErrorW(const QVWCHAR* srcPath, QVProgressFunction callback,
                                   int userData, void* callbackArg, int* result);

/* Meant to copy header and directory of a database into a new file, without records. It does not:
 * with any database that has slots it returns 0, leaves an empty file at dstPath, and leaves the
 * source open under a number that nobody is told. It is kept for programs that call it; do not use
 * it in new ones.
 *
 * status  100, and 0 once the new file exists; must not be null
 *
 * Returns 0 as said. A path that is null, a source that cannot be opened or read, and a new file
 * that cannot be made leave status at 100 and no file open. */
QVDBASE_API int DupFrameForRzbd3W(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int* status);

/* ---- Short names ---------------------------------------------------------------------------- */

/* A second name for each function above: same arguments, same result, same effect. */

/* GenerateUuID_Int64 */
QVDBASE_API int PGUI64(uint64_t* value);
/* CreateDBaseW */
QVDBASE_API int16_t PCDBW(const QVWCHAR* path, const void* signature, int version);
/* OpenDBaseW */
QVDBASE_API int16_t PCODBW(const QVWCHAR* path, int permission);
/* GetDBaseInfoW */
QVDBASE_API int PGDBIW(const QVWCHAR* path, void* signatureOut, uint16_t* versionOut, void* idOut);
/* CloseDBase */
QVDBASE_API uint16_t PCCDB(int16_t db);
/* FlushDBase */
QVDBASE_API int PCFDB(int16_t db);
/* SetDBaseVersion */
QVDBASE_API int PSDBV(int16_t db, uint16_t version);
/* AddTable */
QVDBASE_API uint64_t PCAT(int16_t db, const char* name);
/* FindTableByName */
QVDBASE_API uint64_t PCFTBN(int16_t db, const char* name);
/* GetNumberOfTable */
QVDBASE_API int PCGNOT(int16_t db, int32_t* count);
/* GetTableNameAndIDByIndex */
QVDBASE_API uint64_t PCGTNAIDBI(int16_t db, int index, char* name);
/* SetTableData */
QVDBASE_API int PCSTD(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                      uint32_t reserve);
/* GetTableDataSize */
QVDBASE_API int PCGTDS(int16_t db, uint64_t table, uint32_t* size);
/* GetTableData */
QVDBASE_API int PCGTD(int16_t db, uint64_t table, void* buffer);
/* AddRecordData */
QVDBASE_API int PCARD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                      uint32_t reserve, uint64_t* record);
/* AddRecordData_AssignRecordID */
QVDBASE_API int PCARDARID(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                          uint32_t reserve, const uint64_t* record);
/* GetNumberOfRecords */
QVDBASE_API int PCGNOR(int16_t db, uint64_t table, uint32_t* count);
/* GetRecordUuIDList */
QVDBASE_API int PCGRUIDL(int16_t db, uint64_t table, uint64_t* list, uint32_t* count);
/* GetOneRecordInfo */
QVDBASE_API int PCGORI(int16_t db, uint64_t table, uint64_t record, oneRecordInfoP1* info,
                       int* unused);
/* ModifyOneRecordInfo_LMTime */
QVDBASE_API int PCMORILMT(int16_t db, uint64_t table, uint64_t record);
/* ModifyRecordData */
QVDBASE_API int PCMRD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                      uint64_t record, int* unused);
/* DeleteOneRecord */
QVDBASE_API int PCDOR(int16_t db, uint64_t table, uint64_t record, int* unused);
/* PackOneDB2NewW */
QVDBASE_API int PCPOD2NW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                         QVProgressFunction callback);
/* PackOneDB2New_WithHandle */
QVDBASE_API int PCPOD2NWH(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                          QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                          int* status);
/* PackOneDB2AllNewUUIDFile */
QVDBASE_API int PCPOD2ANUUIDF(const QVWCHAR* dstPath, int16_t srcRef, int userData,
                              QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                              int* status, void* callbackArg);
/* FixOneDBLinkErrorW */
QVDBASE_API int PCFODBLEW(const QVWCHAR* srcPath, QVProgressFunction callback, int userData,
                          void* callbackArg, int* result);
/* DupFrameForRzbd3W */
QVDBASE_API int PCDFFW3W(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int* status);

#ifdef __cplusplus
}
#endif

#endif
