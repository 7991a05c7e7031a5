// Writes rows into a new SQLite database.
#include "formats/sqlite_file.h"

#include <filesystem>
#include <fstream>

#include "streams/failure.h"

#ifdef QVDB_HAS_SQLITE
#include <sqlite3.h>
#endif

namespace qvdb::tool {

#ifdef QVDB_HAS_SQLITE

namespace fs = std::filesystem;

namespace {

constexpr const char* kBegin =
    "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;"
    "CREATE TABLE records(table_name TEXT NOT NULL, place INTEGER NOT NULL, id TEXT NOT NULL,"
    " created INTEGER NOT NULL, modified INTEGER NOT NULL, payload BLOB NOT NULL); BEGIN";
constexpr const char* kInsert = "INSERT INTO records VALUES (?, ?, ?, ?, ?, ?)";
// When all rows are there; synchronous from here on, so that what gets its name is on the device.
constexpr const char* kEnd =
    "CREATE INDEX records_by_place ON records(table_name, place);"
    "CREATE INDEX records_by_id ON records(id); COMMIT; PRAGMA synchronous = FULL;"
    "PRAGMA user_version = 1";

}  // namespace

struct SqliteFile::State {
  std::string target;
  std::string source;
  bool replaces = false;
  std::string temporary;
  sqlite3* connection = nullptr;
  sqlite3_stmt* insert = nullptr;

  ~State() {
    close();
    std::error_code ignored;
    if (!temporary.empty()) fs::remove(temporary, ignored);
  }

  void close() {
    sqlite3_finalize(insert);
    sqlite3_close(connection);
    insert = nullptr;
    connection = nullptr;
  }

  void require(int result) const {
    if (result == SQLITE_OK || result == SQLITE_DONE) return;
    if (result == SQLITE_NOMEM) throw std::bad_alloc();
    throw Failure(target + ": cannot be written: " +
                  (connection != nullptr ? sqlite3_errmsg(connection) : sqlite3_errstr(result)));
  }

  void execute(const char* text) const {
    require(sqlite3_exec(connection, text, nullptr, nullptr, nullptr));
  }

  [[noreturn]] void exists() const {
    throw Failure(target + ": exists; choose another name, or use --force to replace it");
  }

  void begin() {
    std::error_code none;
    if (fs::equivalent(target, source, none)) {
      throw Failure(target +
                    ": cannot write the file: it is the database itself; choose another name");
    }
    if (!replaces && fs::exists(fs::symlink_status(target))) exists();
    temporary = target + ".qvdb-" + to_string(new_id()).substr(2) + ".tmp";
    std::ofstream made(temporary);
    if (!made) throw systemFailure(target, "be written");
    made.close();
    fs::permissions(temporary, fs::perms::owner_read | fs::perms::owner_write);
    require(sqlite3_open_v2(temporary.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr));
    execute(kBegin);
    require(sqlite3_prepare_v2(connection, kInsert, -1, &insert, nullptr));
  }

  void add(const FlatRow& row) const {
    const auto bind = [&](int column, const std::string& text) {
      require(sqlite3_bind_text64(insert, column, text.data(), text.size(), SQLITE_STATIC,
                                  SQLITE_UTF8));
    };
    bind(1, row.table);
    require(sqlite3_bind_int64(insert, 2, row.place));
    bind(3, row.id);
    require(sqlite3_bind_int64(insert, 4, row.created));
    require(sqlite3_bind_int64(insert, 5, row.modified));
    static constexpr std::byte kNothing{};
    const std::byte* payload = row.payload.empty() ? &kNothing : row.payload.data();
    require(sqlite3_bind_blob64(insert, 6, payload, row.payload.size(), SQLITE_STATIC));
    require(sqlite3_step(insert));
    require(sqlite3_reset(insert));
  }

  // A new name is given by a link, which never replaces a file that came meanwhile.
  void place() {
    execute(kEnd);
    close();
    fs::permissions(temporary, fs::status(source).permissions() & fs::perms(0666));
    if (replaces) {
      fs::rename(temporary, target);
      temporary.clear();
      return;
    }
    std::error_code error;
    fs::create_hard_link(temporary, target, error);
    if (error == std::errc::file_exists) exists();
    if (!error) return;
    fs::rename(temporary, target);  // where the file system has no links
    temporary.clear();
  }
};

SqliteFile::SqliteFile(const std::string& target, const std::string& source, bool replaces)
    : state_(std::make_unique<State>()) {
  state_->target = target;
  state_->source = source;
  state_->replaces = replaces;
  state_->begin();
}

void SqliteFile::add(const FlatRow& row) {
  state_->add(row);
}

void SqliteFile::place() {
  state_->place();
}

#else

struct SqliteFile::State {};

SqliteFile::SqliteFile(const std::string&, const std::string&, bool) {
  throw Failure(
      "this qvdb was built without SQLite; install SQLite's header and library (in Debian the "
      "package libsqlite3-dev) and build it again");
}

void SqliteFile::add(const FlatRow&) {}

void SqliteFile::place() {}

#endif

SqliteFile::~SqliteFile() = default;

}  // namespace qvdb::tool
