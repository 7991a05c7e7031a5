// What the virtual tables share: how failures become SQL errors, how values cross over, and what a
// statement says about the file and the table that it wants.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <exception>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sql/open_files.h"
#include "sql/sqlite_api.h"

namespace qvdb::sql {

// A virtual table. `file` and `table` are what CREATE VIRTUAL TABLE names; without them the
// statement names a file for each use.
struct VirtualTable : sqlite3_vtab {
  sqlite3* connection = nullptr;
  std::optional<std::string> file;
  std::optional<std::string> table;
  OpenFiles files;
};

// The result code for a failure.
int codeOf(const Error& error) noexcept;

// Stores the message of a failure for SQLite, in place of the one that is there.
void setMessage(char** message, const char* text) noexcept;

// Calls the function, which returns a result code; a failure becomes a code with a message. No
// exception reaches SQLite.
template <typename Function>
int guarded(char** message, Function function) noexcept {
  try {
    return function();
  } catch (const Error& error) {
    setMessage(message, error.what());
    return codeOf(error);
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& exception) {
    setMessage(message, exception.what());
  }
  return SQLITE_ERROR;
}

// The same for the value of a column.
template <typename Function>
int guardedValue(sqlite3_context* context, Function function) noexcept {
  char* message = nullptr;
  const int code = guarded(&message, function);
  if (code == SQLITE_NOMEM) {
    sqlite3_result_error_nomem(context);
  } else if (code != SQLITE_OK) {
    sqlite3_result_error(context, message != nullptr ? message : sqlite3_errstr(code), -1);
    sqlite3_result_error_code(context, code);
  }
  sqlite3_free(message);
  return code;
}

// Makes a table for a module's xConnect: reads the arguments (file and, where `takesTable`, table),
// and declares the columns. Returns a result code of SQLite, with a message.
int connect(sqlite3* connection, int argc, const char* const* argv, const char* columns,
            bool takesTable, sqlite3_vtab** table, char** message) noexcept;
int disconnect(sqlite3_vtab* table) noexcept;

// xOpen and xClose of a module with cursors of this type.
template <typename Cursor>
int openCursor(sqlite3_vtab* table, sqlite3_vtab_cursor** cursor) noexcept {
  return guarded(&table->zErrMsg, [&] {
    *cursor = new Cursor();
    return SQLITE_OK;
  });
}
template <typename Cursor>
int closeCursor(sqlite3_vtab_cursor* cursor) noexcept {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

// What a module has of this; it adds the functions of its own. xCreate is the same as xConnect, so
// that the module is also a function in a FROM clause.
template <typename Cursor>
constexpr sqlite3_module moduleWith(decltype(sqlite3_module::xConnect) connect) {
  sqlite3_module module = {};
  module.iVersion = 1;
  module.xCreate = connect;
  module.xConnect = connect;
  module.xDisconnect = disconnect;
  module.xDestroy = disconnect;
  module.xOpen = openCursor<Cursor>;
  module.xClose = closeCursor<Cursor>;
  return module;
}

// What a constraint compares with, as text; nothing where that is no text.
std::optional<std::string> textOf(sqlite3_value* value);
std::optional<int64_t> integerOf(sqlite3_value* value);

// Values for SQLite. Text that is not UTF-8, or holds a zero, is NULL.
void giveText(sqlite3_context* context, std::string_view text);
void giveId(sqlite3_context* context, Id id);
void giveNumber(sqlite3_context* context, Id id);
void giveInteger(sqlite3_context* context, uint64_t value);
void giveBytes(sqlite3_context* context, std::span<const std::byte> bytes, bool asText);

// Whether SQLite takes a value of so many bytes.
bool isTakenBy(sqlite3_context* context, uint64_t size);

// Where not, the column's value is the error that says so.
void refuseSize(sqlite3_context* context, const std::string& whose, uint64_t size,
                const std::string& remedy);

}  // namespace qvdb::sql
