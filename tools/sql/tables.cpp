// The module qvdb_tables: a row for each table of a database, in the order of the directory.
#include "sql/tables.h"

#include "sql/virtual_table.h"

namespace qvdb::sql {
namespace {

constexpr const char* kColumns =
    "CREATE TABLE qvdb_tables(name TEXT, id TEXT COLLATE NOCASE, number INTEGER, records INTEGER,"
    " records_ever_added INTEGER, version INTEGER, data_size INTEGER, data BLOB, data_text TEXT,"
    " file TEXT HIDDEN)";
enum Column {
  kName,
  kId,
  kNumber,
  kRecords,
  kEverAdded,
  kVersion,
  kDataSize,
  kData,
  kDataText,
  kFile
};

struct Cursor : sqlite3_vtab_cursor {
  std::shared_ptr<OpenFile> file;
  std::vector<Table> tables;
  size_t at = 0;
};

VirtualTable& tableOf(sqlite3_vtab_cursor* cursor) {
  return *static_cast<VirtualTable*>(cursor->pVtab);
}

int connectTables(sqlite3* connection, void*, int argc, const char* const* argv,
                  sqlite3_vtab** table, char** message) noexcept {
  return connect(connection, argc, argv, kColumns, false, table, message);
}

int bestIndex(sqlite3_vtab* base, sqlite3_index_info* info) noexcept {
  info->estimatedCost = 100;
  info->estimatedRows = 31;
  bool isNamed = false;  // by an expression that is not known yet in this order of a join
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& constraint = info->aConstraint[i];
    if (constraint.iColumn != kFile || constraint.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    isNamed = true;
    if (constraint.usable == 0) continue;
    info->aConstraintUsage[i].argvIndex = 1;
    info->aConstraintUsage[i].omit = 1;
    return SQLITE_OK;
  }
  if (isNamed) return SQLITE_CONSTRAINT;
  if (static_cast<VirtualTable*>(base)->file) return SQLITE_OK;
  setMessage(&base->zErrMsg, "no file is named: write qvdb_tables('FILE')");
  return SQLITE_ERROR;
}

int filter(sqlite3_vtab_cursor* base, int, const char*, int argc, sqlite3_value** argv) noexcept {
  Cursor& cursor = *static_cast<Cursor*>(base);
  VirtualTable& table = tableOf(base);
  return guarded(&table.zErrMsg, [&] {
    cursor.tables.clear();
    cursor.at = 0;
    const auto path = argc > 0 ? textOf(argv[0]) : table.file;
    if (!path) return SQLITE_OK;  // NULL is no file
    cursor.file = table.files.at(*path);
    cursor.tables = cursor.file->database().tables();
    return SQLITE_OK;
  });
}

int next(sqlite3_vtab_cursor* cursor) noexcept {
  ++static_cast<Cursor*>(cursor)->at;
  return SQLITE_OK;
}

int isAtEnd(sqlite3_vtab_cursor* base) noexcept {
  const Cursor& cursor = *static_cast<Cursor*>(base);
  return cursor.at >= cursor.tables.size() ? 1 : 0;
}

void giveData(sqlite3_context* context, const Table& table, int column) {
  const auto size = table.data_size();
  if (!size) return sqlite3_result_null(context);
  if (column == kDataSize) return giveInteger(context, *size);
  if (!isTakenBy(context, *size)) {
    return refuseSize(context, "the data of table " + to_string(table.id()), *size,
                      "'qvdb data' prints it");
  }
  const auto data = table.data();
  if (data) giveBytes(context, *data, column == kDataText);
}

void give(sqlite3_context* context, const Cursor& cursor, int column) {
  const Table& table = cursor.tables[cursor.at];
  switch (column) {
    case kName:
      return giveText(context, table.name());
    case kId:
      return giveId(context, table.id());
    case kNumber:
      return giveNumber(context, table.id());
    case kRecords:
      return giveInteger(context, table.info().record_count);
    case kEverAdded:
      return giveInteger(context, table.info().record_write_count);
    case kVersion:
      return giveInteger(context, table.info().version);
    case kFile:
      return giveText(context, cursor.file->path());
    default:
      return giveData(context, table, column);
  }
}

int column(sqlite3_vtab_cursor* base, sqlite3_context* context, int number) noexcept {
  return guardedValue(context, [&] {
    give(context, *static_cast<Cursor*>(base), number);
    return SQLITE_OK;
  });
}

int rowid(sqlite3_vtab_cursor* base, sqlite3_int64* number) noexcept {
  *number = static_cast<sqlite3_int64>(static_cast<Cursor*>(base)->at) + 1;
  return SQLITE_OK;
}

constexpr sqlite3_module moduleOfTables() {
  sqlite3_module module = moduleWith<Cursor>(connectTables);
  module.xBestIndex = bestIndex;
  module.xFilter = filter;
  module.xNext = next;
  module.xEof = isAtEnd;
  module.xColumn = column;
  module.xRowid = rowid;
  return module;
}

}  // namespace

constinit const sqlite3_module kTablesModule = moduleOfTables();

}  // namespace qvdb::sql
