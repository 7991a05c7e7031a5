// Writes rows into a new SQLite database.
#include "formats/sqlite_file.h"

#include <filesystem>
#include <new>

#include "formats/output_vfs.h"
#include "streams/failure.h"

namespace qvdb::tool {

namespace fs = std::filesystem;

void requireNoJournal(const std::string& target) {
  std::error_code none;
  const fs::path followed = fs::weakly_canonical(target, none);
  for (const char* suffix : {"-journal", "-wal"}) {
    const std::string journal = (followed.empty() ? fs::path(target) : followed).native() + suffix;
    const auto size = fs::file_size(journal, none);
    if (none || size == 0) continue;
    throw Failure(target + ": cannot be written: " + journal +
                  " has changes of the SQLite database of that name; close it in other programs, "
                  "then remove both files or choose another name");
  }
}

#ifdef QVDB_HAS_SQLITE

namespace {

constexpr const char* kBegin =
    "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;"
    "CREATE TABLE records(table_name TEXT NOT NULL, place INTEGER NOT NULL, id TEXT NOT NULL,"
    " created INTEGER NOT NULL, modified INTEGER NOT NULL, payload BLOB NOT NULL); BEGIN";
constexpr const char* kInsert = "INSERT INTO records VALUES (?, ?, ?, ?, ?, ?)";
constexpr const char* kEnd =
    "CREATE INDEX records_by_place ON records(table_name, place);"
    "CREATE INDEX records_by_id ON records(id); COMMIT;"
    "PRAGMA user_version = 1";

}  // namespace

struct SqliteFile::State {
  State(OutputFile& file, std::string name) : target(std::move(name)), vfs(file) {}
  ~State() { close(); }

  std::string target;
  OutputVfs vfs;
  sqlite3* connection = nullptr;
  sqlite3_stmt* insert = nullptr;

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

  void begin() {
    require(sqlite3_open_v2("rows", &connection, SQLITE_OPEN_READWRITE, vfs.name()));
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
};

SqliteFile::SqliteFile(OutputFile& file, const std::string& target)
    : state_(std::make_unique<State>(file, target)) {
  state_->begin();
}

void SqliteFile::add(const FlatRow& row) {
  state_->add(row);
}

void SqliteFile::finish() {
  state_->execute(kEnd);
  state_->close();
}

#else

struct SqliteFile::State {};

SqliteFile::SqliteFile(OutputFile&, const std::string&) {
  throw Failure(
      "this qvdb was built without SQLite; install SQLite's header and library (in Debian the "
      "package libsqlite3-dev) and build it again");
}

void SqliteFile::add(const FlatRow&) {}

void SqliteFile::finish() {}

#endif

SqliteFile::~SqliteFile() = default;

}  // namespace qvdb::tool
