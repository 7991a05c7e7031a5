// From what the user types to databases, tables and records.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "archive/imported_files.h"
#include "streams/failure.h"

namespace qvdb::tool {

inline constexpr const char* kFileHelp = "The database file.";
inline constexpr const char* kNewFileHelp = "The new file, which must not exist yet.";
inline constexpr const char* kTableHelp = "A table: its name, or its identifier.";
inline constexpr const char* kRecordHelp =
    "A record: its identifier or, in a table of imported files, the name of a file. Write ./NAME "
    "for a name that looks like a number.";

// Opens for reading only: no byte of the file is changed.
Database openToRead(const std::string& path);

// Opens for writing, and excludes other writers meanwhile. Waits for it as --wait allows. Throws
// Failure for an unfinished pack.
//
// checksums  whether records that are added get a checksum of their payload
Database openToWrite(const std::string& path, bool checksums = false);

// The tables of a database, those before the damage when its directory is damaged: then the failure
// is stored, to be thrown when they have been shown.
std::vector<Table> tablesOf(const Database& database, std::exception_ptr* failure);

// The size of a table's data.
struct DataSize {
  bool isKnown = false;  // false when the data cannot be reached: a line on standard error says so
  std::optional<uint32_t> bytes;  // nothing when there is none
};
DataSize dataSizeOf(const Database& database, const Table& table);

// The same; data that cannot be reached is a Failure.
std::optional<uint32_t> requireDataSize(const Database& database, const Table& table);

// Waits until the device has everything that was written, unless that is not wanted.
void finishWriting(Database& database, bool noSync);

// A table by name, else by identifier. Throws Failure when there is none, and Error chain_damaged
// when the database is open for writing and the ends of the table's chain are not as they should
// be.
Table findTable(const Database& database, const std::string& nameOrId);

// The names of a table's imported files, as far as they can be read: a line on standard error says
// so when that is not all. Nothing when the table has none.
// When they cannot be reached a line on standard error says so too, and *isUnreachable becomes
// true.
std::optional<ImportedFiles> readNames(const Database& database, const Table& table,
                                       bool* isUnreachable = nullptr);

// The identifier that was written, or that of the imported file of that name. Throws Failure for
// anything else. The record need not exist.
Id recordId(const Database& database, const Table& table, const std::string& idOrName);

inline constexpr const char* kRecordInUseOrNotHelp =
    "A record, in use or deleted: its identifier or, in a table of imported files, the name of a "
    "file. Write ./NAME for a name that looks like a number.";

// The same for a record that may have been deleted; the name of its file is then still in the list
// of names. Another file can have the name now: `prefer` says which record is wanted.
enum class Prefer { inUse, deleted };
Id recordIdInUseOrNot(const std::string& path, const std::string& table,
                      const std::string& idOrName, Prefer prefer);

// "A", "B" or "C".
const char* letterOf(BlockGrade grade);

// The name that a user wrote: "./17" is the name 17, which would be taken for an identifier.
std::string nameIn(const std::string& word);

// The list of a table's imported files, in which a word is looked up that is no identifier. Throws
// Failure when there is none.
ImportedFiles namesOfImported(const Database& database, const Table& table,
                              const std::string& word);

// The failure that a word is no identifier where it must be one.
Failure noIdentifier(const std::string& text);

// The failure that the list has no such name, and nothing that matches.
Failure noSuchName(const Database& database, const Table& table, const ImportedFiles& files,
                   const std::string& word);

// The failure that a record does not exist.
Failure noSuchRecord(const Database& database, const Table& table, Id record);

// A record by its identifier or the name of its file. Throws Failure when it does not exist.
Record findRecord(const Database& database, const Table& table, const std::string& idOrName);

}  // namespace qvdb::tool
