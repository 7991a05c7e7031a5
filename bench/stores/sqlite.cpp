// SQLite: one table with an integer key, prepared statements, synchronous off; with a write-ahead
// log and with a rollback journal. Single operations commit by themselves, batches in one go.
#include <sqlite3.h>

#include "store.h"

namespace bench {
namespace {

class Sqlite : public Store {
 public:
  explicit Sqlite(const char* journal) : journal_(journal) {}

  void open(const std::filesystem::path& folder) override {
    if (sqlite3_open((folder / "data.sqlite").c_str(), &db_) != SQLITE_OK) failed("sqlite: open");
    run("PRAGMA journal_mode=" + std::string(journal_));
    run("PRAGMA synchronous=OFF");
    run("PRAGMA locking_mode=EXCLUSIVE");
    run("CREATE TABLE IF NOT EXISTS t (k INTEGER PRIMARY KEY, v BLOB)");
    insert_ = prepare("INSERT INTO t (v) VALUES (?1)");
    select_ = prepare("SELECT v FROM t WHERE k = ?1");
    update_ = prepare("UPDATE t SET v = ?2 WHERE k = ?1");
    last_ = prepare("SELECT v FROM t ORDER BY k DESC LIMIT ?1");
    delete_ = prepare("DELETE FROM t WHERE k = ?1");
  }
  void close() override {
    for (sqlite3_stmt* statement : {insert_, select_, update_, last_, delete_})
      sqlite3_finalize(statement);
    sqlite3_close(db_);
  }

  Key append(std::span<const char> value) override {
    sqlite3_bind_blob64(insert_, 1, value.data(), value.size(), SQLITE_STATIC);
    finish(insert_);
    return static_cast<Key>(sqlite3_last_insert_rowid(db_));
  }
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    run("BEGIN");
    for (size_t i = 0; i < count; ++i) {
      const Key key = append(value);
      if (keys != nullptr) keys->push_back(key);
    }
    run("COMMIT");
  }

  uint64_t scanKeys() override {
    return scan("SELECT k FROM t", [](sqlite3_stmt* row) {
      return static_cast<uint64_t>(sqlite3_column_int64(row, 0));
    });
  }
  uint64_t scanValues() override {
    return scan("SELECT k, v FROM t", [](sqlite3_stmt* row) {
      copy_.assign(
          static_cast<const char*>(sqlite3_column_blob(row, 1)),
          static_cast<const char*>(sqlite3_column_blob(row, 1)) + sqlite3_column_bytes(row, 1));
      return static_cast<uint64_t>(copy_.size());
    });
  }

  uint64_t lastValues(size_t count) override {
    uint64_t sum = 0;
    sqlite3_bind_int64(last_, 1, static_cast<sqlite3_int64>(count));
    while (sqlite3_step(last_) == SQLITE_ROW) {
      sum += static_cast<uint64_t>(sqlite3_column_bytes(last_, 0));
    }
    sqlite3_reset(last_);
    return sum;
  }

  bool get(Key key, Bytes* value) override {
    sqlite3_bind_int64(select_, 1, static_cast<sqlite3_int64>(key));
    const bool found = sqlite3_step(select_) == SQLITE_ROW;
    if (found) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select_, 0));
      value->assign(bytes, bytes + sqlite3_column_bytes(select_, 0));
    }
    sqlite3_reset(select_);
    return found;
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
  bool compact() override {
    run("VACUUM");
    return true;
  }

 private:
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
  template <typename Row>
  uint64_t scan(const char* sql, Row row) {
    sqlite3_stmt* statement = prepare(sql);
    uint64_t sum = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) sum += row(statement);
    sqlite3_finalize(statement);
    return sum;
  }

  static inline Bytes copy_;
  const char* journal_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* update_ = nullptr;
  sqlite3_stmt* last_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

}  // namespace

std::unique_ptr<Store> makeSqliteWal() {
  return std::make_unique<Sqlite>("WAL");
}
std::unique_ptr<Store> makeSqliteRollback() {
  return std::make_unique<Sqlite>("TRUNCATE");
}

}  // namespace bench
