// What the virtual tables share.
#include "sql/virtual_table.h"

#include "streams/text.h"

namespace qvdb::sql {
namespace {

bool isDamage(Reason reason) {
  return reason == Reason::directory_damaged || reason == Reason::chain_damaged ||
         reason == Reason::data_damaged || reason == Reason::damaged;
}

bool cannotBeOpened(Reason reason) {
  return reason == Reason::path_not_reachable || reason == Reason::no_such_file ||
         reason == Reason::not_a_file || reason == Reason::access_denied ||
         reason == Reason::cannot_open;
}

// An argument of CREATE VIRTUAL TABLE arrives as it was written: with its quotes, and these doubled
// inside them.
std::string withoutQuotes(std::string_view argument) {
  const size_t first = argument.find_first_not_of(" \t\r\n");
  if (first == argument.npos) return {};
  argument = argument.substr(first, argument.find_last_not_of(" \t\r\n") + 1 - first);
  const char quote = argument.front();
  if ((quote != '\'' && quote != '"') || argument.size() < 2 || argument.back() != quote) {
    return std::string(argument);
  }
  std::string text;
  for (size_t i = 1; i + 1 < argument.size(); ++i) {
    text += argument[i];
    if (argument[i] == quote && i + 2 < argument.size() && argument[i + 1] == quote) ++i;
  }
  return text;
}

// The arguments follow the names of module, schema and table.
constexpr int kFirstArgument = 3;

int readArguments(VirtualTable& table, int argc, const char* const* argv, bool takesTable,
                  char** message) {
  const int most = kFirstArgument + (takesTable ? 2 : 1);
  if (argc > most) {
    setMessage(message, takesTable ? "too many arguments: write USING qvdb_records('FILE', 'TABLE')"
                                   : "too many arguments: write USING qvdb_tables('FILE')");
    return SQLITE_ERROR;
  }
  if (argc > kFirstArgument) table.file = withoutQuotes(argv[kFirstArgument]);
  if (argc > kFirstArgument + 1) table.table = withoutQuotes(argv[kFirstArgument + 1]);
  return SQLITE_OK;
}

}  // namespace

int codeOf(const Error& error) noexcept {
  const Reason reason = error.reason();
  if (reason == Reason::in_use || reason == Reason::changed_meanwhile) return SQLITE_BUSY;
  if (reason == Reason::not_a_database) return SQLITE_NOTADB;
  if (reason == Reason::too_large) return SQLITE_TOOBIG;
  if (reason == Reason::cannot_read) return SQLITE_IOERR;
  if (cannotBeOpened(reason)) return SQLITE_CANTOPEN;
  return isDamage(reason) ? SQLITE_CORRUPT : SQLITE_ERROR;
}

void setMessage(char** message, const char* text) noexcept {
  sqlite3_free(*message);
  *message = sqlite3_mprintf("%s", text);
}

int connect(sqlite3* connection, int argc, const char* const* argv, const char* columns,
            bool takesTable, sqlite3_vtab** table, char** message) noexcept {
  return guarded(message, [&] {
    auto made = std::make_unique<VirtualTable>();
    made->connection = connection;
    int result = readArguments(*made, argc, argv, takesTable, message);
    if (result == SQLITE_OK) result = sqlite3_declare_vtab(connection, columns);
    if (result == SQLITE_OK) result = sqlite3_vtab_config(connection, SQLITE_VTAB_DIRECTONLY);
    if (result == SQLITE_OK) *table = made.release();
    return result;
  });
}

int disconnect(sqlite3_vtab* table) noexcept {
  delete static_cast<VirtualTable*>(table);
  return SQLITE_OK;
}

std::optional<std::string> textOf(sqlite3_value* value) {
  if (sqlite3_value_type(value) != SQLITE_TEXT) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (text == nullptr) throw std::bad_alloc();
  return std::string(text, static_cast<size_t>(sqlite3_value_bytes(value)));
}

std::optional<int64_t> integerOf(sqlite3_value* value) {
  if (sqlite3_value_type(value) != SQLITE_INTEGER) return std::nullopt;
  return sqlite3_value_int64(value);
}

void giveText(sqlite3_context* context, std::string_view text) {
  if (text.find('\0') != text.npos || !tool::isUtf8(text)) return sqlite3_result_null(context);
  sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void giveId(sqlite3_context* context, Id id) {
  giveText(context, to_string(id));
}

void giveNumber(sqlite3_context* context, Id id) {
  sqlite3_result_int64(context, static_cast<int64_t>(id.value));
}

void giveInteger(sqlite3_context* context, uint64_t value) {
  sqlite3_result_int64(context, static_cast<int64_t>(value));
}

void giveBytes(sqlite3_context* context, std::span<const std::byte> bytes, bool asText) {
  const auto* data = reinterpret_cast<const char*>(bytes.data());
  if (asText) return giveText(context, std::string_view(data, bytes.size()));
  if (bytes.empty()) return sqlite3_result_zeroblob(context, 0);
  sqlite3_result_blob64(context, data, bytes.size(), SQLITE_TRANSIENT);
}

namespace {

uint64_t mostTakenBy(sqlite3_context* context) {
  sqlite3* const connection = sqlite3_context_db_handle(context);
  return static_cast<uint64_t>(sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, -1));
}

}  // namespace

bool isTakenBy(sqlite3_context* context, uint64_t size) {
  return size <= mostTakenBy(context);
}

void refuseSize(sqlite3_context* context, const std::string& whose, uint64_t size,
                const std::string& remedy) {
  const std::string message = whose + " has " + std::to_string(size) +
                              " bytes, and SQLite takes at most " +
                              std::to_string(mostTakenBy(context)) + "; " + remedy;
  sqlite3_result_error(context, message.data(), static_cast<int>(message.size()));
  sqlite3_result_error_code(context, SQLITE_TOOBIG);
}

}  // namespace qvdb::sql
