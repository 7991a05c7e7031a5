// The module qvdb_records: a row for each record, in the order of the tables and of their records.
#include "sql/records.h"

#include <strings.h>
#include <bit>
#include <cstring>

#include "sql/record_cursor.h"
#include "sql/virtual_table.h"

namespace qvdb::sql {
namespace {

constexpr const char* kColumns =
    "CREATE TABLE qvdb_records(id TEXT COLLATE NOCASE, number INTEGER, table_name TEXT,"
    " created INTEGER, modified INTEGER, size INTEGER, capacity INTEGER, position INTEGER,"
    " payload BLOB, text TEXT, file TEXT HIDDEN, in_table TEXT HIDDEN)";
enum Column {
  kRowid = -1,
  kId,
  kNumber,
  kTableName,
  kCreated,
  kModified,
  kSize,
  kCapacity,
  kPosition,
  kPayload,
  kText,
  kFile,
  kInTable
};

// What xBestIndex passes on to xFilter: one bit for each value, in the order of the values, and one
// for the order of the rows.
enum Use : unsigned {
  kByFile = 1,
  kByTable = 2,
  kByName = 4,
  kById = 8,
  kByNumber = 16,
  kByRowid = 32,
  kFromRowid = 64,
  kUntilRowid = 128,
  kNewestFirst = 256
};
constexpr unsigned kValues[] = {kByFile,   kByTable, kByName,    kById,
                                kByNumber, kByRowid, kFromRowid, kUntilRowid};

struct Cursor : sqlite3_vtab_cursor {
  RecordCursor rows;
};

Cursor& cursorOf(sqlite3_vtab_cursor* cursor) {
  return *static_cast<Cursor*>(cursor);
}

int connectRecords(sqlite3* connection, void*, int argc, const char* const* argv,
                   sqlite3_vtab** table, char** message) noexcept {
  return connect(connection, argc, argv, kColumns, true, table, message);
}

// ---- choosing a way

// Which value a constraint can be; 0 for none. SQLite compares everything but the arguments again,
// so that a value may let more rows through than there should be.
unsigned useOf(const sqlite3_index_info::sqlite3_index_constraint& constraint) {
  const unsigned char op = constraint.op;
  if (constraint.iColumn == kRowid) {
    if (op == SQLITE_INDEX_CONSTRAINT_EQ) return kByRowid;
    if (op == SQLITE_INDEX_CONSTRAINT_GT || op == SQLITE_INDEX_CONSTRAINT_GE) return kFromRowid;
    const bool isUpperBound = op == SQLITE_INDEX_CONSTRAINT_LT || op == SQLITE_INDEX_CONSTRAINT_LE;
    return isUpperBound ? unsigned{kUntilRowid} : 0u;
  }
  if (op != SQLITE_INDEX_CONSTRAINT_EQ) return 0;
  switch (constraint.iColumn) {
    case kFile:
      return kByFile;
    case kInTable:
      return kByTable;
    case kTableName:
      return kByName;
    case kId:
      return kById;
    case kNumber:
      return kByNumber;
    default:
      return 0;
  }
}

// Names are compared byte by byte, identifiers in either case; other comparisons are SQLite's.
bool comparesAsWeDo(sqlite3_index_info* info, int constraint, unsigned use) {
  if (use != kByName && use != kById) return true;
  const char* collation = sqlite3_vtab_collation(info, constraint);
  return ::strcasecmp(collation, "BINARY") == 0 ||
         (use == kById && ::strcasecmp(collation, "NOCASE") == 0);
}

// What a way of reading costs, in records that are read.
void estimate(sqlite3_index_info* info, unsigned uses) {
  double cost = 1e6;
  if ((uses & (kByTable | kByName)) != 0) cost /= 10;
  if ((uses & (kFromRowid | kUntilRowid)) != 0) cost /= 4;
  if ((uses & kByRowid) != 0) cost = 1000;
  if ((uses & (kById | kByNumber)) != 0) cost = 10;
  info->estimatedCost = cost;
  info->estimatedRows = cost <= 1000 ? 1 : static_cast<sqlite3_int64>(cost);
}

// How often each use can be made of the constraints: of those that are known in this order of a
// join, the first one. False where the file's or the table's name is not known yet.
bool choose(sqlite3_index_info* info, int (&chosen)[std::size(kValues)], unsigned* uses) {
  bool isComplete = true;
  for (int i = 0; i < info->nConstraint; ++i) {
    const unsigned use = useOf(info->aConstraint[i]);
    if (use == 0 || (*uses & use) != 0) continue;
    if (info->aConstraint[i].usable == 0) {
      isComplete = isComplete && use != kByFile && use != kByTable;
      continue;
    }
    if (!comparesAsWeDo(info, i, use)) continue;
    *uses |= use;
    chosen[std::countr_zero(use)] = i;
  }
  return isComplete;
}

int bestIndex(sqlite3_vtab* base, sqlite3_index_info* info) noexcept {
  const bool hasFile = static_cast<VirtualTable*>(base)->file.has_value();
  int chosen[std::size(kValues)] = {};
  unsigned uses = 0;
  if (!choose(info, chosen, &uses)) return SQLITE_CONSTRAINT;
  if (!hasFile && (uses & kByFile) == 0) {
    setMessage(&base->zErrMsg, "no file is named: write qvdb_records('FILE', 'TABLE')");
    return SQLITE_ERROR;
  }
  int values = 0;
  for (const unsigned use : kValues) {
    if ((uses & use) == 0) continue;
    auto& usage = info->aConstraintUsage[chosen[std::countr_zero(use)]];
    usage.argvIndex = ++values;
    usage.omit = use == kByFile || use == kByTable ? 1 : 0;
  }
  if (info->nOrderBy == 1 && info->aOrderBy[0].iColumn == kRowid) {
    info->orderByConsumed = 1;
    if (info->aOrderBy[0].desc != 0) uses |= kNewestFirst;
  }
  info->idxNum = static_cast<int>(uses);
  estimate(info, uses);
  return SQLITE_OK;
}

// ---- reading

// Narrows what is wanted by one value. A value of another type narrows nothing: SQLite compares it
// with every row. False where no row can be right.
bool narrow(WantedRecords* wanted, unsigned use, sqlite3_value* value) {
  const auto number = integerOf(value);
  const auto text = textOf(value);
  if (use == kByTable) wanted->table = text;
  if (use == kByTable) return text.has_value();
  if (use == kByName) wanted->name = text;
  if (use == kById && text) {
    const auto id = parse_id(*text);
    if (!id) return false;
    wanted->id = *id;
  }
  if (use == kByNumber && number) wanted->id = Id{static_cast<uint64_t>(*number)};
  if (!number) return true;
  if (use == kByRowid || use == kFromRowid) wanted->lowest = std::max(wanted->lowest, *number);
  if (use == kByRowid || use == kUntilRowid) wanted->highest = std::min(wanted->highest, *number);
  return true;
}

int begin(Cursor& cursor, VirtualTable& table, unsigned uses, sqlite3_value** argv) {
  WantedRecords wanted;
  wanted.table = table.table;
  wanted.isNewestFirst = (uses & kNewestFirst) != 0;
  cursor.rows = RecordCursor();
  auto path = table.file;
  int at = 0;
  for (const unsigned use : kValues) {
    if ((uses & use) == 0) continue;
    sqlite3_value* value = argv[at++];
    if (use == kByFile)
      path = textOf(value);
    else if (!narrow(&wanted, use, value))
      return SQLITE_OK;
  }
  if (!path || wanted.highest < 1) return SQLITE_OK;  // NULL is no file
  wanted.file = table.files.at(*path);
  cursor.rows.begin(wanted);
  return SQLITE_OK;
}

int filter(sqlite3_vtab_cursor* base, int uses, const char*, int, sqlite3_value** argv) noexcept {
  VirtualTable& table = *static_cast<VirtualTable*>(base->pVtab);
  return guarded(&table.zErrMsg,
                 [&] { return begin(cursorOf(base), table, static_cast<unsigned>(uses), argv); });
}

int next(sqlite3_vtab_cursor* base) noexcept {
  return guarded(&base->pVtab->zErrMsg, [&] {
    cursorOf(base).rows.next();
    return SQLITE_OK;
  });
}

int isAtEnd(sqlite3_vtab_cursor* base) noexcept {
  return cursorOf(base).rows.isAtEnd() ? 1 : 0;
}

void give(sqlite3_context* context, RecordCursor& rows, int column) {
  const RecordInfo& info = rows.record().info();
  switch (column) {
    case kId:
      return giveId(context, info.id);
    case kNumber:
      return giveNumber(context, info.id);
    case kTableName:
      return giveText(context, rows.table().name());
    case kCreated:
      return giveInteger(context, info.create_time);
    case kModified:
      return giveInteger(context, info.modify_time);
    case kSize:
      return giveInteger(context, info.size);
    case kCapacity:
      return giveInteger(context, info.capacity);
    case kPosition:
      return giveInteger(context, static_cast<uint64_t>(info.position));
    case kFile:
      return giveText(context, rows.file().path());
    case kInTable:
      return rows.argument() ? giveText(context, *rows.argument()) : sqlite3_result_null(context);
    default:
      break;
  }
  if (isTakenBy(context, info.size)) return giveBytes(context, rows.payload(), column == kText);
  refuseSize(context, "the payload of record " + to_string(info.id), info.size,
             "'qvdb get' prints it");
}

int column(sqlite3_vtab_cursor* base, sqlite3_context* context, int number) noexcept {
  return guardedValue(context, [&] {
    give(context, cursorOf(base).rows, number);
    return SQLITE_OK;
  });
}

int rowid(sqlite3_vtab_cursor* base, sqlite3_int64* number) noexcept {
  return guarded(&base->pVtab->zErrMsg, [&] {
    *number = cursorOf(base).rows.rowid();
    return SQLITE_OK;
  });
}

constexpr sqlite3_module moduleOfRecords() {
  sqlite3_module module = moduleWith<Cursor>(connectRecords);
  module.xBestIndex = bestIndex;
  module.xFilter = filter;
  module.xNext = next;
  module.xEof = isAtEnd;
  module.xColumn = column;
  module.xRowid = rowid;
  return module;
}

}  // namespace

constinit const sqlite3_module kRecordsModule = moduleOfRecords();

}  // namespace qvdb::sql
