// qvdb sql: answers a question in SQL. SQLite does the work; the tables of the database are virtual
// tables (tools/sql).
#include <nlohmann/json.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

#ifdef QVDB_HAS_SQLITE
#include <cmath>
#include <set>

#include "sql/module.h"
#endif

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string query;
  std::vector<std::string> attached;
  bool json = false;
};

#ifdef QVDB_HAS_SQLITE

constexpr int kStepsBetweenLooks = 10000;  // of SQLite's machine, until Ctrl-C is looked for

std::string inQuotes(std::string_view text, char quote) {
  std::string result(1, quote);
  for (const char c : text) {
    if (c == quote) result += c;
    result += c;
  }
  return result + quote;
}

// A connection to a database in memory, in which the databases are seen.
class Session {
 public:
  explicit Session(std::string file) : file_(std::move(file)) {
    if (sqlite3_open(":memory:", &connection_) != SQLITE_OK) fail();
    if (sql::addModules(connection_) != SQLITE_OK) fail();
    const auto isStopped = [](void*) { return isInterrupted() ? 1 : 0; };
    sqlite3_progress_handler(connection_, kStepsBetweenLooks, isStopped, nullptr);
    sqlite3_set_authorizer(connection_, judge, this);
  }
  ~Session() { sqlite3_close_v2(connection_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Shows the tables of a file in a schema. A directory that ends early is stored as a failure.
  void show(const std::string& schema, const std::string& file, std::exception_ptr* failure) {
    const Database database = openToRead(file);
    const std::string at = inQuotes(schema, '"') + '.';
    const std::string source = inQuotes(file, '\'');
    execute("CREATE VIRTUAL TABLE " + at + "qvdb_tables USING qvdb_tables(" + source + ")");
    execute("CREATE VIRTUAL TABLE " + at + "qvdb_records USING qvdb_records(" + source + ")");
    for (const Table& table : tablesOf(database, failure)) {
      if (!isUtf8(table.name())) continue;  // it can be reached through qvdb_records
      const std::string text = "CREATE VIRTUAL TABLE " + at + inQuotes(table.name(), '"') +
                               " USING qvdb_records(" + source + "," +
                               inQuotes(to_string(table.id()), '\'') + ")";
      // A name that SQLite keeps for itself, or that differs from another one in case only.
      if (sqlite3_exec(connection_, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        complain(file + ": table '" + table.name() + "' has no SQL table of its own (" +
                 sqlite3_errmsg(connection_) + "); use qvdb_records");
      }
    }
    shown_.insert(schema);
  }

  void attach(const std::string& schema) {
    execute("ATTACH ':memory:' AS " + inQuotes(schema, '"'));
  }

  // Runs all statements of a text, and calls the function with each that returns rows.
  template <typename Take>
  void run(const std::string& text, Take take) {
    for (const char* rest = text.c_str(); *rest != 0;) {
      sqlite3_stmt* made = nullptr;
      if (sqlite3_prepare_v2(connection_, rest, -1, &made, &rest) != SQLITE_OK) fail();
      const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(made, sqlite3_finalize);
      if (!statement) continue;  // a comment, or nothing
      if (sqlite3_column_count(made) != 0) {
        take(made);
      } else {
        while (step(made)) {
        }
      }
    }
  }

  // Goes to the statement's next row. False at its end.
  bool step(sqlite3_stmt* statement) {
    throwIfInterrupted();
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) fail();
    return result == SQLITE_ROW;
  }

 private:
  // SQLite would drop or rename the tables that are shown as if that changed the database.
  static int judge(void* session, int action, const char* first, const char* second,
                   const char* third, const char*) {
    auto& self = *static_cast<Session*>(session);
    const bool isAltered = action == SQLITE_ALTER_TABLE;  // has its names in another order
    if (action != SQLITE_DROP_VTABLE && !isAltered) return SQLITE_OK;
    if (!self.shown_.contains(isAltered ? first : third)) return SQLITE_OK;
    self.kept_ = isAltered ? second : first;
    return SQLITE_DENY;
  }

  void execute(const std::string& text) {
    if (sqlite3_exec(connection_, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail();
  }

  [[noreturn]] void fail() {
    const int code = sqlite3_errcode(connection_);
    if (code == SQLITE_INTERRUPT) throw Interrupted();
    if (code == SQLITE_NOMEM) throw std::bad_alloc();
    std::string message = sqlite3_errmsg(connection_);
    if (code == SQLITE_AUTH && !kept_.empty()) message = "table " + kept_ + " may not be modified";
    if (message == "file is not a database")
      message += "; '--attach NAME=FILE' shows one of qvdb's";
    if (message.starts_with("unsafe use of virtual table")) {
      message += "; write CREATE TEMP VIEW, or CREATE TEMP TRIGGER";
    }
    const bool namesFile = message.find(file_) != message.npos;
    throw Failure(namesFile ? message : file_ + ": the query failed: " + message,
                  code == SQLITE_BUSY ? kInUse : kFailed);
  }

  std::string file_;
  sqlite3* connection_ = nullptr;
  std::set<std::string> shown_;  // schemas whose tables are those of a database
  std::string kept_;             // the table that was to be dropped
};

std::string_view bytesOf(sqlite3_stmt* row, int column) {
  const void* bytes = sqlite3_column_blob(row, column);
  const int size = sqlite3_column_bytes(row, column);
  return {static_cast<const char*>(bytes), bytes == nullptr ? 0 : static_cast<size_t>(size)};
}

// The names of the columns. In an object each name can be there once: later ones get a number.
std::vector<std::string> columnsOf(sqlite3_stmt* statement) {
  std::vector<std::string> names;
  for (int i = 0; i < sqlite3_column_count(statement); ++i) {
    const std::string name = sqlite3_column_name(statement, i);
    std::string unique = name;
    for (int n = 2; std::find(names.begin(), names.end(), unique) != names.end(); ++n) {
      unique = name + ":" + std::to_string(n);
    }
    names.push_back(unique);
  }
  return names;
}

void printRow(sqlite3_stmt* row) {
  std::string line;
  for (int i = 0; i < sqlite3_column_count(row); ++i) {
    if (i != 0) line += '\t';
    line += escaped(bytesOf(row, i));
  }
  printLine(line);
}

void printList(Session& session, sqlite3_stmt* statement) {
  std::string head;
  for (const std::string& name : columnsOf(statement)) {
    if (!head.empty()) head += '\t';
    head += escaped(name);
  }
  bool isRow = session.step(statement);  // a query that fails at once prints nothing
  printLine(head);
  for (; isRow; isRow = session.step(statement)) printRow(statement);
}

Json jsonOf(sqlite3_stmt* row, const std::vector<std::string>& columns) {
  Json json = Json::object();
  for (size_t i = 0; i < columns.size(); ++i) {
    const int column = static_cast<int>(i);
    const int type = sqlite3_column_type(row, column);
    const double number = type == SQLITE_FLOAT ? sqlite3_column_double(row, column) : 0;
    if (type == SQLITE_INTEGER) {
      json[columns[i]] = static_cast<int64_t>(sqlite3_column_int64(row, column));
    } else if (type == SQLITE_FLOAT && std::isfinite(number)) {
      json[columns[i]] = number;
    } else if (type == SQLITE_NULL) {
      json[columns[i]] = nullptr;
    } else {
      addText(&json, columns[i].c_str(), bytesOf(row, column));
    }
  }
  return json;
}

// The document is complete, closing brackets included, also where the rows end early.
void printJsonList(Session& session, sqlite3_stmt* statement) {
  const std::vector<std::string> columns = columnsOf(statement);
  Json head;
  head["columns"] = columns;
  JsonArrayWriter writer(head, "rows");
  try {
    while (session.step(statement)) writer.add(jsonOf(statement, columns));
  } catch (const Failure& failure) {
    writer.finish(escaped(failure.what()));
    throw;
  } catch (const Interrupted&) {
    writer.finish("interrupted");
    throw;
  }
  writer.finish();
}

// "other=OTHER.qvd", split.
std::pair<std::string, std::string> schemaAndFile(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == text.npos || equals == 0 || equals + 1 == text.size()) {
    throw wrongUsage("--attach: '" + text + "' is no name and file; write --attach NAME=FILE");
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

// That of the command line, or all of standard input. SQLite would take a zero byte for the end.
std::string queryOf(const Options& options) {
  if (options.query != "-") return options.query;
  const std::vector<std::byte> input = readStandardInput();
  std::string query(reinterpret_cast<const char*>(input.data()), input.size());
  if (query.find('\0') == query.npos) return query;
  throw Failure("standard input: is not SQL: it has a zero byte; write the query as UTF-8");
}

int run(const Options& options) {
  std::exception_ptr failure;
  Session session(options.file);
  for (const std::string& each : options.attached) static_cast<void>(schemaAndFile(each));
  session.show("main", options.file, &failure);
  for (const std::string& each : options.attached) {
    const auto [schema, file] = schemaAndFile(each);
    session.attach(schema);
    session.show(schema, file, &failure);
  }
  session.run(queryOf(options), [&](sqlite3_stmt* statement) {
    options.json ? printJsonList(session, statement) : printList(session, statement);
  });
  if (failure) std::rethrow_exception(failure);
  return kDone;
}

#else

int run(const Options&) {
  throw Failure(
      "this qvdb was built without SQLite, which answers queries; install SQLite's header and "
      "library (in Debian the package libsqlite3-dev) and build it again");
}

#endif

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("QUERY", options->query,
                     "SQL as SQLite understands it; several statements are separated by ';'. '-' "
                     "is standard input.");
  arguments.option("--attach", "NAME=FILE", options->attached,
                   "Show the tables of another database too, as NAME.TABLE. Can be repeated.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kSqlCommand = {
    "sql",
    "answer a question in SQL",
    R"(Runs SQL by means of SQLite. Each table of the database is an SQL table of the same name; beside
them qvdb_tables has a row for each table, and qvdb_records one for each record of all tables.

The columns of a record: id (text, as other commands show it), number (the same as a signed integer),
table_name, created, modified (seconds since 1970), size, capacity, position, payload (a blob) and text
(the payload where it is UTF-8, else NULL). The rowid is the record's place in the order of its table,
from 1. The columns of qvdb_tables: name, id, number, records, records_ever_added, version, data_size,
data and data_text.

The columns id, number and rowid lead straight to records, ORDER BY rowid DESC LIMIT N reads only the
last N, and a payload is read when a query uses payload or text. Databases are only read, also beside
a process that writes: what it writes while a statement runs the statement may see or not. For sums of
one moment query a copy that 'qvdb backup' makes. The result is one line for each row, with a tab between columns; NULL is
empty, and control characters and bytes that are not UTF-8 are shown as \x and two hexadecimal
digits.)",
    R"(qvdb sql notes.qvd "select id, text from letters order by rowid desc limit 10"
qvdb sql notes.qvd "select name, records from qvdb_tables"
qvdb sql --json notes.qvd "select text->>'$.title' as title from letters"
qvdb sql a.qvd --attach b=b.qvd "select id from x except select id from b.x"
qvdb sql notes.qvd - < queries.sql)",
    define,
};

}  // namespace qvdb::tool
