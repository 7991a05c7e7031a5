// From what the user types to databases, tables and records.
#include "commands/locate.h"

#include <qvdbase/qvdbase.h>

#include "format/layout.h"
#include "selection/pattern.h"
#include "streams/interrupt.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

Id idOfName(const Database& database, const Table& table, const ImportedFiles& files,
            const std::string& idOrName) {
  const std::string name = nameIn(idOrName);
  const auto index = files.find(name);
  if (!index) throw noSuchName(database, table, files, idOrName);
  const ImportedFile& file = files.list()[*index];
  if (file.kind == FileKind::file) return file.record;
  throw Failure(database.path().native() + ": '" + name + "' is a " +
                (file.kind == FileKind::link ? "symbolic link" : "folder") +
                ", which has no record");
}

// In a packed file the slots of tables that have records lead to no data.
std::string unreachableData(const Table& table) {
  return "the data of table '" + table.name() +
         "' is not where its slot says, as is usual in a packed file; 'qvdb mend' corrects the "
         "slot, "
         "'qvdb salvage' writes a new file that has the data";
}

}  // namespace

Database openToRead(const std::string& path) {
  return Database::open(path, Mode::read_only);
}

Database openToWrite(const std::string& path, bool checksums) {
  const OpenOptions options = {.mode = Mode::exclusive, .checksums = checksums};
  Database database = whileInUse([&] { return Database::open(path, options); });
  if (database.info().version != qvdbase::format::kUnfinishedPackVersion) return database;
  throw Failure(path +
                ": is an unfinished pack (version 101), in which records are missing; use the "
                "source of the pack, or save what it has with 'qvdb salvage'");
}

std::vector<Table> tablesOf(const Database& database, std::exception_ptr* failure) {
  try {
    return database.tables();
  } catch (const Error& error) {
    if (error.reason() != Reason::directory_damaged) throw;
    *failure = std::current_exception();
  }
  std::vector<Table> tables;
  char name[33] = {};
  for (int i = 0;; ++i) {
    const uint64_t id = GetTableNameAndIDByIndex(database.handle(), i, name);
    const auto table = id != 0 ? database.find_table(Id{id}) : std::nullopt;
    if (!table) return tables;
    tables.push_back(*table);
  }
}

DataSize dataSizeOf(const Database& database, const Table& table) {
  try {
    return {true, table.data_size()};
  } catch (const Error& error) {
    if (error.reason() != Reason::data_damaged) throw;
    complain(database.path().native() + ": " + unreachableData(table));
    return {};
  }
}

std::optional<uint32_t> requireDataSize(const Database& database, const Table& table) {
  try {
    return table.data_size();
  } catch (const Error& error) {
    if (error.reason() != Reason::data_damaged) throw;
  }
  throw Failure(database.path().native() + ": " + unreachableData(table));
}

void finishWriting(Database& database, bool noSync) {
  if (!noSync) database.sync();
}

Table findTable(const Database& database, const std::string& nameOrId) {
  auto table = database.find_table(nameOrId);
  const auto id = parse_id(nameOrId);
  if (!table && id) table = database.find_table(*id);
  if (table) {
    // Writing to a table with an interrupted operation would add to the damage.
    if (database.mode() != Mode::read_only) check_ends(database, table->id());
    return *table;
  }
  throw Failure(database.path().native() + ": there is no table '" + nameOrId +
                "'; 'qvdb tables' lists the tables");
}

std::optional<ImportedFiles> readNames(const Database& database, const Table& table,
                                       bool* isUnreachable) {
  const std::string where = database.path().native() + ": ";
  try {
    auto files = ImportedFiles::of(database, table);
    if (files && !files->isWhole()) {
      complain(where + "the names of the files of table '" + table.name() +
               "' are damaged after the first " + std::to_string(files->list().size()) +
               "; the other records have only their identifiers");
    }
    return files;
  } catch (const Error& error) {
    if (error.reason() != Reason::data_damaged) throw;
    complain(where + unreachableData(table));
    if (isUnreachable != nullptr) *isUnreachable = true;
    return std::nullopt;
  }
}

Failure noIdentifier(const std::string& text) {
  return Failure("'" + text +
                 "' is not an identifier: write 0x and hexadecimal digits, or a decimal number");
}

Id recordId(const Database& database, const Table& table, const std::string& idOrName) {
  if (const auto id = parse_id(idOrName)) return *id;
  return idOfName(database, table, namesOfImported(database, table, idOrName), idOrName);
}

Id recordIdInUseOrNot(const std::string& path, const std::string& table,
                      const std::string& idOrName, Prefer prefer) {
  if (const auto id = parse_id(idOrName)) return *id;
  const Database database = openToRead(path);
  const Table found = findTable(database, table);
  const auto files = ImportedFiles::of(database, found);
  if (!files) throw wrongUsage(noIdentifier(idOrName).what());
  const auto removed = files->findRemoved(nameIn(idOrName));
  const auto inUse = files->find(nameIn(idOrName));
  if (removed && (prefer == Prefer::deleted || !inUse)) return files->list()[*removed].record;
  return idOfName(database, found, *files, idOrName);
}

const char* letterOf(BlockGrade grade) {
  static constexpr const char* kLetters[] = {"A", "B", "C"};
  return kLetters[static_cast<size_t>(grade)];
}

std::string nameIn(const std::string& word) {
  return word.starts_with("./") ? word.substr(2) : word;
}

ImportedFiles namesOfImported(const Database& database, const Table& table,
                              const std::string& word) {
  auto files = ImportedFiles::of(database, table);
  if (!files) throw noIdentifier(word);
  return *std::move(files);
}

Failure noSuchName(const Database& database, const Table& table, const ImportedFiles& files,
                   const std::string& word) {
  return Failure(database.path().native() + ": table '" + table.name() + "' has " +
                 (Pattern::isOne(word) ? "nothing that matches '" : "no file '") + nameIn(word) +
                 "'" + (files.isWhole() ? "" : " before the damage in its list of names") +
                 "; 'qvdb records' lists what it has");
}

Failure noSuchRecord(const Database& database, const Table& table, Id record) {
  return Failure(database.path().native() + ": table '" + table.name() + "' has no record " +
                 to_string(record) + "; 'qvdb records' lists what it has");
}

Record findRecord(const Database& database, const Table& table, const std::string& idOrName) {
  const Id id = recordId(database, table, idOrName);
  for (const Record& record : table.records()) {
    throwIfInterrupted();
    if (record.id() == id) return record;
  }
  throw noSuchRecord(database, table, id);
}

}  // namespace qvdb::tool
