// qvdb::Database: its tables, by name and by identifier.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <utility>

#include "QVDbase/position.h"
#include "QVDbase/record_find.h"
#include "QVDbase/table_data.h"
#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/identifiers.h"
#include "format/layout.h"
#include "objects/open_database.h"
#include "objects/sharing/looks.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/own_commit.h"

using namespace qvdbase;

namespace qvdb {

using detail::Operation;
using engine::SavedPosition;

namespace {

constexpr const char* kFind = "find the table";
constexpr const char* kAddTable = "add the table";

bool findNamed(const Operation& operation, std::string_view name, tablePart1* slot) {
  return operation.findSlot(
      slot, [name](const tablePart1& used) { return format::storedName(used) == name; });
}

// Whether the slot is that of a table which is in the file, though the header does not count it.
// Where adding a table was interrupted, the slot is used as well, but no block belongs to it.
bool leadsToBlocks(int16_t db, const tablePart1& slot) {
  recordPart1 record;
  format::TableDataHead data;
  return (slot.firstRecordPos > 0 &&
          engine::readRecordHeaderAt(db, slot.firstRecordPos, slot.tableID, &record)) ||
         (slot.firstDataPos > 0 &&
          engine::readTableDataHead(db, slot.firstDataPos, slot.tableID, &data));
}

// The next table would be written over the slot after those that are counted.
void requireFreeSlot(const Operation& operation) {
  SavedPosition scope(operation.db());
  tablePart1 slot;
  const engine::DirectoryNumbers numbers = operation.directory();
  if (numbers.tableCount >= numbers.slotCount - 1) return;
  const int64_t slotPos = format::slotPosition(numbers.tableCount, numbers.slotSize);
  if (myFileSeek(operation.db(), slotPos, kFromStart) != 0 ||
      !engine::readUsedSlot(operation.db(), numbers.slotSize, &slot) ||
      !leadsToBlocks(operation.db(), slot)) {
    return;
  }
  operation.fail(Reason::directory_damaged,
                 "its header counts " + std::to_string(numbers.tableCount) +
                     " tables, but the entry for the next one is that of table '" +
                     format::storedName(slot) + "', which has records or data");
}

void requireName(const Operation& operation, std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) {
    operation.fail(Reason::bad_name, "a table name has at least one byte, and no zero bytes");
  }
  if (name.size() > format::kTableNameSize) {
    operation.fail(Reason::name_too_long, "a table name has at most 32 bytes, and this one has " +
                                              std::to_string(name.size()));
  }
}

void requireNewTable(const Operation& operation, Id table) {
  SavedPosition scope(operation.db());
  tablePart1 slot;
  if (!operation.findSlot(&slot, [table](const tablePart1& used) {
        return format::identifierNumber(used.tableID) == table.value;
      })) {
    return;
  }
  operation.fail(Reason::table_exists, "table '" + format::storedName(slot) +
                                           "' has the identifier " + to_string(table) + " already");
}

// A table could not be added: the name is taken, the directory is full, or the file cannot be
// written.
[[noreturn]] void explainTable(const Operation& operation, const NewTable& table) {
  operation.failIfWriteWasRefused(0);
  SavedPosition scope(operation.db());
  tablePart1 slot;
  if (!table.may_repeat_name && findNamed(operation, table.name, &slot)) {
    operation.fail(Reason::table_exists, "a table named '" + table.name + "' exists already");
  }
  const engine::DirectoryNumbers numbers = operation.directory();
  if (numbers.tableCount >= numbers.slotCount - 1) {
    operation.fail(Reason::directory_full, "it has " + std::to_string(numbers.tableCount) +
                                               " tables, and no free entry for another");
  }
  operation.failedWrite(0);
}

}  // namespace

std::vector<Table> Database::tables() const {
  const Operation operation(state_, "list the tables");
  return detail::look(operation, [&] {
    std::vector<Table> tables;
    tablePart1 slot;
    static_cast<void>(operation.findSlot(&slot, [&](const tablePart1& used) {
      const Id id{format::identifierNumber(used.tableID)};
      tables.push_back(Table(state_, id, format::storedName(used)));
      return false;
    }));
    return tables;
  });
}

std::optional<Table> Database::find_table(std::string_view name) const {
  const Operation operation(state_, kFind);
  tablePart1 slot;
  const bool found = detail::look(operation, [&] { return findNamed(operation, name, &slot); });
  if (!found) return std::nullopt;
  return Table(state_, Id{format::identifierNumber(slot.tableID)}, std::string(name));
}

std::optional<Table> Database::find_table(Id table) const {
  const Operation operation(state_, kFind);
  tablePart1 slot;
  const auto isWanted = [table](const tablePart1& used) {
    return format::identifierNumber(used.tableID) == table.value;
  };
  if (!detail::look(operation, [&] { return operation.findSlot(&slot, isWanted); })) {
    return std::nullopt;
  }
  return Table(state_, table, format::storedName(slot));
}

bool Database::contains(std::string_view name) const {
  return find_table(name).has_value();
}

bool Database::contains(Id table) const {
  return find_table(table).has_value();
}

Table Database::table(std::string_view name) const {
  std::optional<Table> found = find_table(name);
  if (found) return *std::move(found);
  Operation(state_, kFind)
      .failMissingTable(std::string(name), "it has no table named '" + std::string(name) + "'");
}

Table Database::add_table(std::string_view name) {
  return addNew(NewTable(name));
}

Table Database::addNew(const NewTable& table) {
  return detail::committed(state_, kAddTable, [&] { return addTable(table); });
}

Table Database::addTable(const NewTable& table) {
  const Operation operation(state_, kAddTable);
  const std::string& name = table.name;
  requireName(operation, name);
  if (table.id && table.id->value == 0) {
    operation.fail(Reason::bad_argument, "identifier 0 means no table");
  }
  operation.about(name);
  operation.requireWritable();
  const detail::ChangeTurn turn(operation);
  requireFreeSlot(operation);
  if (table.id) requireNewTable(operation, *table.id);
  if (operation.stage() != nullptr) state_->transactions.open->hasNewTables = true;
  unsigned char tableID[format::kIdentifierSize];
  if (table.id) internal_ConvertInt64_2UuID(table.id->value, tableID);
  const uint64_t id = engine::addTable(operation.db(), name.c_str(),
                                       {.tableID = table.id ? tableID : nullptr,
                                        .tableVersion = table.version,
                                        .tableFlags1 = table.flags_1,
                                        .tableFlags2 = table.flags_2,
                                        .recordWriteCount = table.record_write_count,
                                        .dataWriteCount = table.data_write_count,
                                        .mayRepeatName = table.may_repeat_name});
  if (id != 0) return Table(state_, Id{id}, name);
  explainTable(operation, table);
}

Table Database::find_or_add_table(std::string_view name) {
  for (;;) {
    if (std::optional<Table> found = find_table(name)) return *std::move(found);
    try {
      return add_table(name);
    } catch (const Error& error) {
      if (error.reason() != Reason::table_exists) throw;  // else others have added it meanwhile
    }
  }
}

}  // namespace qvdb
