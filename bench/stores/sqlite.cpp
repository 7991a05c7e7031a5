// SQLite: one table with an integer key, prepared statements, synchronous off; with a write-ahead
// log and with a rollback journal. Single operations commit by themselves, batches in one go.
//
// With names, which are a column with a unique index.
#include <sqlite3.h>

#include "store.h"

namespace bench {
namespace {

class Sqlite : public Store {
 public:
  explicit Sqlite(const char* journal, bool hasNames = false)
      : journal_(journal), hasNames_(hasNames) {}

  void open(const std::filesystem::path& folder) override { openWith(folder, "OFF"); }
  void openDurably(const std::filesystem::path& folder) override { openWith(folder, "FULL"); }
  void inTransaction(const std::function<void()>& body) override {
    run("BEGIN");
    body();
    run("COMMIT");
  }
  void openWith(const std::filesystem::path& folder, const char* synchronous) {
    if (sqlite3_open((folder / "data.sqlite").c_str(), &db_) != SQLITE_OK) failed("sqlite: open");
    run("PRAGMA journal_mode=" + std::string(journal_));
    run("PRAGMA synchronous=" + std::string(synchronous));
    run("PRAGMA locking_mode=EXCLUSIVE");
    if (hasNames_) {
      run("CREATE TABLE IF NOT EXISTS t (k INTEGER PRIMARY KEY, n TEXT, v BLOB)");
      run("CREATE UNIQUE INDEX IF NOT EXISTS names ON t (n)");
      insert_ = prepare("INSERT INTO t (v, n) VALUES (?1, ?2)");
      named_ = prepare("SELECT v FROM t WHERE n = ?1");
      namedFrom_ = prepare("SELECT v FROM t WHERE n >= ?1 AND n < ?2 ORDER BY n");
    } else {
      run("CREATE TABLE IF NOT EXISTS t (k INTEGER PRIMARY KEY, v BLOB)");
      insert_ = prepare("INSERT INTO t (v) VALUES (?1)");
    }
    select_ = prepare("SELECT v FROM t WHERE k = ?1");
    update_ = prepare("UPDATE t SET v = ?2 WHERE k = ?1");
    after_ = prepare("SELECT v FROM t WHERE k > ?1 ORDER BY k LIMIT ?2");
    last_ = prepare("SELECT v FROM t ORDER BY k DESC LIMIT ?1");
    delete_ = prepare("DELETE FROM t WHERE k = ?1");
  }
  void close() override {
    for (sqlite3_stmt* statement :
         {insert_, select_, update_, after_, last_, delete_, named_, namedFrom_}) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
  }

  Key append(std::span<const char> value) override {
    Key key = 0;
    if (!insert(value, &key)) failed(sqlite3_errmsg(db_));
    return key;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    run("BEGIN");
    for (Key& key : keys) key = append(values.of(stamp++));
    run("COMMIT");
  }

  Walked scanKeys() override {
    sqlite3_stmt* statement = prepare("SELECT k FROM t");
    Walked seen;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      seen.key(static_cast<Key>(sqlite3_column_int64(statement, 0)));
    }
    sqlite3_finalize(statement);
    return seen;
  }
  Walked scanValues() override {
    sqlite3_stmt* statement = prepare("SELECT v FROM t");
    const Walked seen = valuesOf(statement);
    sqlite3_finalize(statement);
    return seen;
  }
  Walked valuesAfter(Key key, size_t count) override {
    sqlite3_bind_int64(after_, 1, static_cast<sqlite3_int64>(key));
    sqlite3_bind_int64(after_, 2, static_cast<sqlite3_int64>(count));
    return valuesOf(after_);
  }
  Walked lastValues(size_t count) override {
    sqlite3_bind_int64(last_, 1, static_cast<sqlite3_int64>(count));
    return valuesOf(last_);
  }

  bool get(Key key, Bytes* value) override {
    sqlite3_bind_int64(select_, 1, static_cast<sqlite3_int64>(key));
    return valueOf(select_, value);
  }
  bool update(Key key, std::span<const char> value) override {
    sqlite3_bind_int64(update_, 1, static_cast<sqlite3_int64>(key));
    sqlite3_bind_blob64(update_, 2, value.data(), value.size(), SQLITE_STATIC);
    finish(update_);
    return sqlite3_changes(db_) == 1;
  }
  bool remove(Key key) override {
    sqlite3_bind_int64(delete_, 1, static_cast<sqlite3_int64>(key));
    finish(delete_);
    return sqlite3_changes(db_) == 1;
  }
  void compact() override { run("VACUUM"); }

  bool addNamed(std::span<const char> value, Key* key) override { return insert(value, key); }
  bool getNamed(const std::string& name, Bytes* value) override {
    bindText(named_, 1, name);
    return valueOf(named_, value);
  }
  Walked valuesNamed(const std::string& beginning) override {
    const std::string after = beginning + '\x7F';  // names are of ASCII letters and digits
    bindText(namedFrom_, 1, beginning);
    bindText(namedFrom_, 2, after);
    return valuesOf(namedFrom_);
  }

 private:
  // Reports whether there was no record of its name.
  bool insert(std::span<const char> value, Key* key) {
    sqlite3_bind_blob64(insert_, 1, value.data(), value.size(), SQLITE_STATIC);
    const std::string name = hasNames_ ? nameOf(value) : std::string();
    if (hasNames_) bindText(insert_, 2, name);
    const int result = sqlite3_step(insert_);
    sqlite3_reset(insert_);
    if (result != SQLITE_DONE && result != SQLITE_CONSTRAINT) failed(sqlite3_errmsg(db_));
    *key = static_cast<Key>(sqlite3_last_insert_rowid(db_));
    return result == SQLITE_DONE;
  }
  static void bindText(sqlite3_stmt* statement, int place, const std::string& text) {
    sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  // That of the only row, in column 0.
  static bool valueOf(sqlite3_stmt* statement, Bytes* value) {
    const bool found = sqlite3_step(statement) == SQLITE_ROW;
    if (found) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, 0));
      value->assign(bytes, bytes + sqlite3_column_bytes(statement, 0));
    }
    sqlite3_reset(statement);
    return found;
  }
  void run(const std::string& sql) {
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      failed("sqlite: " + sql + ": " + sqlite3_errmsg(db_));
    }
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) failed(sql);
    return statement;
  }
  void finish(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) failed(sqlite3_errmsg(db_));
    sqlite3_reset(statement);
  }
  // Those of all rows, in column 0.
  static Walked valuesOf(sqlite3_stmt* statement) {
    Walked seen;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const void* bytes = sqlite3_column_blob(statement, 0);
      seen.value(bytes, static_cast<size_t>(sqlite3_column_bytes(statement, 0)));
    }
    sqlite3_reset(statement);
    return seen;
  }

  const char* journal_;
  bool hasNames_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* update_ = nullptr;
  sqlite3_stmt* after_ = nullptr;
  sqlite3_stmt* last_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* named_ = nullptr;
  sqlite3_stmt* namedFrom_ = nullptr;
};

}  // namespace

std::unique_ptr<Store> makeSqliteWal(size_t) {
  return std::make_unique<Sqlite>("WAL");
}
std::unique_ptr<Store> makeSqliteNames(size_t) {
  return std::make_unique<Sqlite>("WAL", true);
}
std::unique_ptr<Store> makeSqliteRollback(size_t) {
  return std::make_unique<Sqlite>("TRUNCATE");
}

}  // namespace bench
