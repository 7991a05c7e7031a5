/* QVDbase: a small embedded database library. Tables of records in single files.
 *
 * A database is one file: a header, a directory of 32 table slots (31 of them usable), and after
 * them the blocks that the library appends. A table has a name, an identifier, a chain of records
 * and at most one block of table data. A record has an identifier, a create time, a time of last
 * modification and a payload of bytes whose meaning is the application's.
 *
 * Handles. An open database is named by a positive 16-bit file reference number; 0 means none. The
 * application opens or creates a database, works on it and closes it with CloseDBase.
 *
 * Identifiers are unsigned 64-bit numbers; where a function returns one, 0 means "none". Times are
 * seconds since 1970, modulo 2^32. Sizes are in bytes. Paths are zero-terminated 16-bit strings
 * (UTF-16) of at most 2,047 characters, walked from the root of the file system whether or not they
 * begin with a separator; '/' and the backslash both separate. Table names are zero-terminated
 * 8-bit strings, of which the first 32 bytes count.
 *
 * Results. Unless said otherwise 1 is success and 0 is failure; there are no error codes, and
 * output arguments are written only where the description says so.
 *
 * File position. A database handle has one file position. Every function here restores the
 * position that it found, on success and on failure, unless its description says otherwise.
 *
 * Memory. What is passed in (names, payloads, table data) stays the caller's, and nothing of it is
 * kept after the call.
 *
 * What is safe. When a call has returned, all that it wrote is with the operating system: ending
 * the process at once loses none of it, and a database need not be closed for that. Files may be
 * damaged or hostile: no file makes the library read or write outside its buffers, loop without
 * end, or end the process. A program that was started with closed standard streams never gets a
 * database in their place.
 *
 *
 * Caveats
 * =======
 *
 * Of each: the symptom, the cause, the cure.
 *
 * Two writers
 *   Records that were added are gone, although both writers got the result 1.
 *   Permission 4, and 0, let other processes write at the same time, and these functions take no
 *   turns: a call reads the slot, appends, and writes the slot back. (The C++ layer takes turns.)
 *   Open a database that you write to with permission 3 (2 means the same). Permission 4 means "I
 *   take turns by other means": every writer holds a lock of the application's own around each
 *   call.
 *
 * Tables added in two places
 *   A table is gone after another one was added.
 *   A handle keeps the number of tables from its first look at the directory. A table that was
 *   added through another handle since, in this process or elsewhere, is overwritten by the next
 *   AddTable.
 *   Add tables through one handle, or close and open the others before they add one.
 *
 * Fork
 *   Records are lost, although the database is open exclusively.
 *   A child has its parent's handles, and the lock excludes other processes, not these two from
 *   each other.
 *   Use a handle in one of the two only, as a daemon that continues in its child does; let the
 *   other process leave it alone, or open the database in the child.
 *
 * Threads
 *   A record was read from the wrong place, or a list is longer than the count that was asked for
 *   before.
 *   The functions here may be called from any thread: calls on one database take turns, through
 *   whatever handles, and calls on different databases run side by side. But each call is a turn of
 *   its own: between two of them other threads may change the database, and a handle has one
 *   position, which they share. While a progress function runs, and while a maintenance function
 *   opens its second file, other threads get turns, too.
 *   Give each thread a handle of its own where it sets positions, hold a lock of the application's
 *   own around calls that belong together, and close a handle when no thread uses it any more. The
 *   exported counts are those of the call that ended last. docs/threads.md has the details.
 *
 * Descriptors
 *   Every call fails after the program became a daemon; or bytes of another file are in a database.
 *   The program closed descriptors that it did not open, as closefrom(3) does, and the system gave
 *   their numbers to other files.
 *   Open databases after that. Do not open a database file with open() or fopen() beside the
 *   library either: on systems without locks of open file descriptions, closing it ends the
 *   library's lock.
 *
 * Relative paths
 *   OpenDBaseW does not find "notes.qvd", or CreateDBaseW fails, or makes the folder /notes.qvd.
 *   Every path starts at the root of the file system; a path without any separator serves as folder
 *   and as file: "/notes.qvd/notes.qvd".
 *   Pass absolute paths (qvdb::Database::native_path of the C++ layer makes them).
 *
 * Blanks in folders
 *   A database in a folder such as "My  files" (two blanks) is not found, or is created in another
 *   folder.
 *   In the names of folders every run of spaces, tabs and double quotes becomes one space, and a
 *   space at either end is dropped.
 *   Keep databases in folders whose names this does not change.
 *
 * Creating what is there
 *   All tables are gone after the program was started again.
 *   CreateDBaseW empties a file that is there, unless it is in use.
 *   Call OpenDBaseW first, and CreateDBaseW only when there is no file.
 *
 * Opening what is no database
 *   OpenDBaseW succeeds, and every later call returns 0.
 *   Opening does not look at the contents; and CreateDBaseW stores any signature and version.
 *   Ask GetDBaseInfoW first. Create with a signature that begins with "QV" or "qv", and with
 *   version 100.
 *
 * A file that is replaced
 *   Changes made through a handle are not in the file, or the contents seem old.
 *   A rename put another file in its place (a backup, a synchronizing service, `qvdb compact`). The
 *   handle stays with the old file, which has no name any more.
 *   Close databases before their files are replaced, and open them again afterwards. Of the
 *   library's own operations those that replace a file refuse one that is open for writing.
 *
 * Reading beside a writer
 *   A payload is half old, half new, or a call fails once and succeeds the next time.
 *   Permission 1 takes no lock: a reader sees what a writer has written so far, and a call can find
 *   half of a change: it fails, or a walk ends early or passes a record that was deleted.
 *   Call it again: a file that is sound gives the right answer when the writer's call is over.
 *   Where half a payload matters, open the database with permission 3 for reading too, or read by
 *   the C++ layer, which waits for writers of its kind.
 *
 * Sizes
 *   The program crashes in, or after, GetTableData or GetRecordUuIDList.
 *   Functions that fill a caller's buffer do not know its size; or the data grew after the size was
 *   asked for.
 *   Ask for the size first (GetTableDataSize, GetNumberOfRecords), and open the database with
 *   permission 3, so that no other process changes it between the two calls.
 *
 * Long table names
 *   FindTableByName does not find a table that AddTable has just added, and adding it again
 *   succeeds.
 *   Names are cut to 32 bytes when they are stored, and compared whole with what is stored.
 *   Use names of at most 32 bytes.
 *
 * Empty payloads
 *   ModifyRecordData returns 0 for a size of 0, though AddRecordData takes it.
 *   A modification needs at least one byte.
 *   Keep one byte to say "empty", or delete the record (qvdb::Table::modify can empty one).
 *
 * Files that grow
 *   The file grows with every change, although no record was added.
 *   Blocks are never used again: a payload that does not fit the capacity of its record goes to a
 *   new block, which has no spare capacity either; deleted records stay in the file.
 *   Give a `reserve` when adding records that will grow. Run `qvdb compact` now and then. What was
 *   deleted can be read from the file until then.
 *
 * Packing
 *   Table data is gone after PackOneDB2NewW.
 *   A table that has records loses it there; see the function.
 *   Use `qvdb compact`, or qvdb::compact, which keep it.
 *
 * Progress functions
 *   A pack fails and its target is empty; a repair stops. Or the percentage is always the same.
 *   A progress function that returns 0 asks to stop, and one declared void returns anything. The
 *   packs call it with (userData, percent, argument), the link repair with (percent, userData,
 *   argument).
 *   Return 1. Look up the order of the arguments with each function. Do not call the library on the
 *   databases of the operation from inside it, neither to write nor to read.
 *
 * Lookups
 *   A loop over GetRecordUuIDList that looks up each record takes minutes.
 *   Every lookup by identifier walks the chain from the table's first record.
 *   Use the C++ layer there: qvdb::Table::records() walks once, qvdb::Table::index() makes lookups
 *   take constant time.
 *
 * Identifiers given twice
 *   A record that was added cannot be found, modified or deleted; another one is.
 *   AddRecordData_AssignRecordID does not check whether the identifier is in use; lookups find the
 *   first record that has it.
 *   Look the identifier up first, or let AddRecordData make one.
 *
 * Counts
 *   gbl_realWriten is a few bytes after a payload of 1,000 bytes was added.
 *   The counts are those of the last single transfer, of which a call makes many.
 *   Use the sizes that the functions report.
 *
 * Buffers to free
 *   Memory leaks, or is freed twice, around category records.
 *   InternalReadOneRecord2CategoryStruct makes the lists of a record, and frees them when it fails;
 *   InternalPutOneCategory2Buffer returns memory of its own.
 *   Free them with free(), as qvrzdb_sub.h says. No other C function returns memory to be freed.
 *
 * Power failures
 *   After a power failure records are missing or torn, although FlushDBase was called.
 *   The library does not sync to the device, and FlushDBase does nothing.
 *   Where it matters, sync: qvdb::Database::sync(), or the system's command `sync FILE`. Afterwards
 *   `qvdb check` reports what is wrong, and `qvdb salvage` brings back what is there.
 */
#pragma once

#include <qvdbase/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What GetOneRecordInfo reports about a record. 48 bytes. */
typedef struct oneRecordInfoP1 {
  uint64_t tableID;      /* the owning table */
  uint64_t recordID;     /* the record */
  uint32_t createTime;   /* when the record was first written */
  uint32_t modifyTime;   /* when it was last modified */
  uint32_t dataLength;   /* bytes of payload in use */
  uint32_t dataCapacity; /* bytes that the payload can grow to in place; never
                            below dataLength in a sound file */
  int64_t recordPos;     /* file position of the record's block */
  int64_t dataPos;       /* file position of its payload: recordPos + 55 */
} oneRecordInfoP1;

/* A progress function. Each operation says what its two numbers mean, and what it gets as its third
 * argument. Returning 0 asks the operation to stop. One that throws counts as one that returned 0;
 * what it threw is lost. When its thread is cancelled inside it, the operation closes the files
 * that it opened, and the cancellation continues. */
typedef uint16_t (*QVProgressFunction)(int, int, void*);

/* ---- Variables ------------------------------------------------------------------------------ */

/* The number of bytes that the library's last read has moved, in this process. A call makes many
 * reads: this is no sum. */
extern QVDBASE_API uint32_t gbl_realReaden;

/* The number of bytes that the library's last write has moved, in this process; of one that failed,
 * the bytes that were written. */
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
 * writer. Missing directories of the path are created. A file that is already there is emptied
 * first. While this process has it open, or another process has it open for writing, nothing in it
 * changes and the call fails.
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
 *             "Two writers" above); 0 the most that can be obtained (4, else 1). Only the low 8
 *             bits count
 *
 * Returns the handle, positioned at 0. Returns 0 when the path is null or too long, when the file
 * does not exist or is not a regular file, and when the permission is not one of these or cannot be
 * granted. */
QVDBASE_API int16_t OpenDBaseW(const QVWCHAR* path, int permission);

/* Closes a database. Its number may become the handle of another file afterwards.
 *
 * db  the handle; not usable after the call, whatever it returns
 *
 * Returns a value other than 0 when the handle was open. Returns 0 when it was not, and when the
 * system reports an error on closing (the handle is closed then too). */
QVDBASE_API uint16_t CloseDBase(int16_t db);

/* Does nothing: each call has passed its writes to the operating system before it returns. It does
 * not sync to the device either.
 *
 * Returns 1 for any handle. */
QVDBASE_API int FlushDBase(int16_t db);

/* Reads signature, version and identifier of the database at a path. The file is opened with
 * permission 4 for the length of the call. The version is reported whatever its value.
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

/* Reports the number of tables.
 *
 * count  receives it; written on success only
 *
 * Returns 1; 0 when count is null or the directory cannot be read. */
QVDBASE_API int GetNumberOfTable(int16_t db, int32_t* count);

/* Reports name and identifier of a table by its place in order of creation.
 *
 * index  0 to the number of tables - 1
 * name   33 bytes: up to 32 bytes of name and a terminating zero; written on success only
 *
 * Returns the identifier; 0 when name is null, when the index is out of range, and when the
 * directory cannot be read or a slot up to the one wanted is damaged. */
QVDBASE_API uint64_t GetTableNameAndIDByIndex(int16_t db, int index, char* name);

/* ---- Table data ----------------------------------------------------------------------------- */

/* Stores a table's block of data. It is written over the present block when that has the capacity,
 * else as a new block at the end of the file.
 *
 * table    the table's identifier
 * data     size bytes; null is allowed only with size 0
 * size     bytes to store
 * reserve  bytes to provide for later growth; a new block has the capacity of the larger of size
 * and reserve
 *
 * Returns 1. Returns 0 when data is null with a size above 0, when no table has the identifier,
 * when the present block is damaged, and when the file cannot be read or written. A failure while
 * a new block is appended leaves the old data in place; one while the present block is written over
 * can leave it holding part of the new data. */
QVDBASE_API int SetTableData(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                             uint32_t reserve);

/* Reads a table's block of data.
 *
 * buffer  as many bytes as GetTableDataSize reports
 *
 * Returns 1 with the data in the buffer. Returns 0 when buffer is null, when the table has no data
 * or data of size 0, when there is no such table, when its block is damaged or cannot be read. */
QVDBASE_API int GetTableData(int16_t db, uint64_t table, void* buffer);

/* Reports the size of a table's block of data, in bytes.
 *
 * size  receives it; written on success only
 *
 * Returns 1. Returns 0 when size is null, when the table has no data, when there is no such table,
 * and when its block is damaged or cannot be read. */
QVDBASE_API int GetTableDataSize(int16_t db, uint64_t table, uint32_t* size);

/* ---- Records -------------------------------------------------------------------------------- */

/* Adds a record after the table's last one, under a new identifier. Its times are now.
 *
 * payload  size bytes; null is allowed only with size 0
 * size     bytes to store
 * reserve  bytes to provide for later growth; the record has the capacity of the larger of size and
 *          reserve
 * record   receives the identifier; written on success only
 *
 * Returns 1. Returns 0 when record is null, when payload is null with a size above 0, when there is
 * no such table, when the ends of its chain are damaged, and when the file cannot be read or
 * written; the record is then not in the table, though bytes may have been added to the file. */
QVDBASE_API int AddRecordData(int16_t db, uint64_t table, const unsigned char* payload,
                              uint32_t size, uint32_t reserve, uint64_t* record);

/* Adds a record as AddRecordData does, under the identifier that the caller gives. Nothing checks
 * whether the table has a record of that identifier already; lookups find the one that comes first.
 *
 * record  the identifier to use; only read; must not be null
 *
 * Returns 1, or 0 as AddRecordData does. */
QVDBASE_API int AddRecordData_AssignRecordID(int16_t db, uint64_t table,
                                             const unsigned char* payload, uint32_t size,
                                             uint32_t reserve, const uint64_t* record);

/* Reports times, sizes and position of a record. Looking a record up walks the table's chain from
 * its first record.
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
 * list   as many identifiers as GetNumberOfRecords reports
 * count  receives how many were stored
 *
 * Returns 1. Returns 0 when list or count is null, when there is no such table, and when the chain
 * is damaged or cannot be read; count is then the number of identifiers that were fully stored, and
 * one more entry of the list may have been written. */
QVDBASE_API int GetRecordUuIDList(int16_t db, uint64_t table, uint64_t* list, uint32_t* count);

/* Reports the number of a table's records.
 *
 * count  receives it; must not be null. It is set to 0 first, so that it is 0 after a failure
 *
 * Returns 1; 0 when there is no such table or the directory cannot be read. */
QVDBASE_API int GetNumberOfRecords(int16_t db, uint64_t table, uint32_t* count);

/* Replaces a record's payload and sets its time of last modification to now. A payload that fits
 * the record's capacity is written over the old one, whose tail, if it was longer, stays in the
 * file; a larger one goes to a new block at the end of the file, without spare capacity, which
 * takes the old one's place in the chain. The record keeps its identifier, its create time and its
 * place in the order.
 *
 * payload  size bytes; must not be null
 * size     must not be 0
 * unused   not used; may be null
 *
 * Returns 1. Returns 0 when payload is null or size is 0, when there is no such table or record,
 * when the neighbours in the chain are damaged, and when the file cannot be read or written. A
 * failure while writing over the old payload can leave the record with part of the new one.
 *
 * File position: left just after the new payload when it was written over the old one; restored in
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
 * chain, which keep identifiers, times, payload and capacity. Deleted records, the old places of
 * modified ones and old table data are left out. The source is opened with permission 4 for the
 * length of the call and is not changed.
 *
 * A table that has records loses its table data: its slot in the new file carries the table-data
 * positions of the source.
 *
 * srcPath   the database
 * dstPath   the new file; created or, if it is there, emptied as CreateDBaseW does. Must not be the
 *           source
 * userData  passed to callback
 * callback  may be null; called as callback(userData, percent, null), with percent 1, with 1 to 98
 *           after each record, with 99 after each table and with 100 when both files are closed. 0
 *           ends the pack as a failure, at 100 too
 *
 * Returns 1. Returns 0 when a path is null, when the source cannot be opened or read or is damaged
 * where its live blocks are, when the new file cannot be made or written, when there is not
 * enough memory for a payload or a block, and when callback returns 0. The new file is then
 * emptied, not removed. While it is filled it carries version 101, at the end 100. */
QVDBASE_API int PackOneDB2NewW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                               QVProgressFunction callback);

/* Packs as PackOneDB2NewW does and reports its file numbers, with differences that make it useless
 * for ordinary databases; it is kept for programs that call it. It takes slots for images of a
 * structure in memory, so that it fails on the first table of any file below 4 GiB. A database
 * without tables becomes a header and a directory of such images, which table operations cannot
 * use. A table that has table data fails it when its slot could be written. The version is never
 * touched, callback is called for records only when the percent changes, and not with 99.
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
 * lists the last one fails the call. A table with other records after "QVrz_Record" in the
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
 * callbackArg  passed to callback
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
 * Returns 1 when the file could be opened: `result` says the rest. Returns 0 when srcPath or
 * result is null and when the file cannot be opened for writing. */
QVDBASE_API int FixOneDBLinkErrorW(const QVWCHAR* srcPath, QVProgressFunction callback,
                                   int userData, void* callbackArg, int* result);

/* Meant to copy header and directory of a database into a new file, without records. It does not:
 * with any database that has slots it returns 0, leaves an empty file at dstPath, and leaves the
 * source open under a number that is not reported. It is kept for programs that call it; do not use
 * it in new ones.
 *
 * status  100, and 0 once the new file exists; must not be null
 *
 * Returns 0 as said. A path that is null, a source that cannot be opened or read, and a new file
 * that cannot be made leave status at 100 and no file open. */
QVDBASE_API int DupFrameForRzbd3W(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int* status);

/* ---- Short names ---------------------------------------------------------------------------- */

/* A second name for each function above: the same arguments, results and effects. */

/* The same as GenerateUuID_Int64. */
QVDBASE_API int PGUI64(uint64_t* value);
/* The same as CreateDBaseW. */
QVDBASE_API int16_t PCDBW(const QVWCHAR* path, const void* signature, int version);
/* The same as OpenDBaseW. */
QVDBASE_API int16_t PCODBW(const QVWCHAR* path, int permission);
/* The same as GetDBaseInfoW. */
QVDBASE_API int PGDBIW(const QVWCHAR* path, void* signatureOut, uint16_t* versionOut, void* idOut);
/* The same as CloseDBase. */
QVDBASE_API uint16_t PCCDB(int16_t db);
/* The same as FlushDBase. */
QVDBASE_API int PCFDB(int16_t db);
/* The same as SetDBaseVersion. */
QVDBASE_API int PSDBV(int16_t db, uint16_t version);
/* The same as AddTable. */
QVDBASE_API uint64_t PCAT(int16_t db, const char* name);
/* The same as FindTableByName. */
QVDBASE_API uint64_t PCFTBN(int16_t db, const char* name);
/* The same as GetNumberOfTable. */
QVDBASE_API int PCGNOT(int16_t db, int32_t* count);
/* The same as GetTableNameAndIDByIndex. */
QVDBASE_API uint64_t PCGTNAIDBI(int16_t db, int index, char* name);
/* The same as SetTableData. */
QVDBASE_API int PCSTD(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                      uint32_t reserve);
/* The same as GetTableDataSize. */
QVDBASE_API int PCGTDS(int16_t db, uint64_t table, uint32_t* size);
/* The same as GetTableData. */
QVDBASE_API int PCGTD(int16_t db, uint64_t table, void* buffer);
/* The same as AddRecordData. */
QVDBASE_API int PCARD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                      uint32_t reserve, uint64_t* record);
/* The same as AddRecordData_AssignRecordID. */
QVDBASE_API int PCARDARID(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                          uint32_t reserve, const uint64_t* record);
/* The same as GetNumberOfRecords. */
QVDBASE_API int PCGNOR(int16_t db, uint64_t table, uint32_t* count);
/* The same as GetRecordUuIDList. */
QVDBASE_API int PCGRUIDL(int16_t db, uint64_t table, uint64_t* list, uint32_t* count);
/* The same as GetOneRecordInfo. */
QVDBASE_API int PCGORI(int16_t db, uint64_t table, uint64_t record, oneRecordInfoP1* info,
                       int* unused);
/* The same as ModifyOneRecordInfo_LMTime. */
QVDBASE_API int PCMORILMT(int16_t db, uint64_t table, uint64_t record);
/* The same as ModifyRecordData. */
QVDBASE_API int PCMRD(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                      uint64_t record, int* unused);
/* The same as DeleteOneRecord. */
QVDBASE_API int PCDOR(int16_t db, uint64_t table, uint64_t record, int* unused);
/* The same as PackOneDB2NewW. */
QVDBASE_API int PCPOD2NW(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                         QVProgressFunction callback);
/* The same as PackOneDB2New_WithHandle. */
QVDBASE_API int PCPOD2NWH(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int userData,
                          QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                          int* status);
/* The same as PackOneDB2AllNewUUIDFile. */
QVDBASE_API int PCPOD2ANUUIDF(const QVWCHAR* dstPath, int16_t srcRef, int userData,
                              QVProgressFunction callback, uint16_t* outSrcRef, uint16_t* outDstRef,
                              int* status, void* callbackArg);
/* The same as FixOneDBLinkErrorW. */
QVDBASE_API int PCFODBLEW(const QVWCHAR* srcPath, QVProgressFunction callback, int userData,
                          void* callbackArg, int* result);
/* The same as DupFrameForRzbd3W. */
QVDBASE_API int PCDFFW3W(const QVWCHAR* srcPath, const QVWCHAR* dstPath, int* status);

#ifdef __cplusplus
}
#endif
