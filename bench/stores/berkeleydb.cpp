// Berkeley DB: a B-tree in a transactional environment, its log written and not synced. Without the
// log a killed process would lose what its cache held.
#include <db.h>

#include <cstring>

#include "store.h"

namespace bench {
namespace {

void check(int result) {
  if (result != 0) failed(std::string("berkeleydb: ") + db_strerror(result));
}

DBT dbt(const void* bytes, size_t size) {
  DBT result;
  std::memset(&result, 0, sizeof result);
  result.data = const_cast<void*>(bytes);
  result.size = static_cast<u_int32_t>(size);
  return result;
}

class BerkeleyDb : public Store {
 public:
  void open(const std::filesystem::path& folder) override { openWith(folder, false); }
  void openDurably(const std::filesystem::path& folder) override { openWith(folder, true); }
  void openWith(const std::filesystem::path& folder, bool isDurable) {
    check(db_env_create(&env_, 0));
    check(env_->set_cachesize(env_, 0, 256u << 20, 1));
    check(env_->set_flags(env_, DB_TXN_WRITE_NOSYNC, isDurable ? 0 : 1));
    check(env_->log_set_config(env_, DB_LOG_AUTO_REMOVE, 1));
    check(env_->set_lk_max_locks(env_, 100000));
    check(env_->set_lk_max_objects(env_, 100000));
    check(env_->open(env_, folder.c_str(),
                     DB_CREATE | DB_INIT_TXN | DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_LOCK |
                         DB_PRIVATE | DB_RECOVER,
                     0644));
    check(db_create(&db_, env_, 0));
    check(db_->open(db_, nullptr, "data.bdb", nullptr, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT, 0644));
  }
  void close() override {
    db_->close(db_, 0);
    env_->close(env_, 0);
  }

  Key append(std::span<const char> value) override {
    put(nullptr, next_, value);
    return next_++;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (size_t done = 0; done < keys.size();) {
      DB_TXN* txn = nullptr;
      check(env_->txn_begin(env_, nullptr, &txn, 0));
      for (size_t i = 0; i < 1000 && done < keys.size(); ++i) {
        keys[done++] = next_;
        put(txn, next_++, values.of(stamp++));
      }
      check(txn->commit(txn, 0));
      if (++batches_ % 100 == 0) env_->txn_checkpoint(env_, 0, 0, 0);
    }
  }

  Walked scanKeys() override {
    return walk(dbt(nullptr, 0), {DB_FIRST, DB_NEXT}, kAll,
                [](Walked& seen, const DBT& key, const DBT&) { seen.key(keyOf(key.data)); });
  }
  Walked scanValues() override { return values(dbt(nullptr, 0), {DB_FIRST, DB_NEXT}, kAll); }
  Walked valuesAfter(Key key, size_t count) override {
    const KeyBytes bytes(key + 1);
    return values(dbt(bytes.bytes, sizeof bytes.bytes), {DB_SET_RANGE, DB_NEXT}, count);
  }
  Walked lastValues(size_t count) override {
    return values(dbt(nullptr, 0), {DB_LAST, DB_PREV}, count);
  }

  bool get(Key key, Bytes* value) override {
    const KeyBytes bytes(key);
    DBT k = dbt(bytes.bytes, sizeof bytes.bytes);
    DBT v = dbt(nullptr, 0);
    if (db_->get(db_, nullptr, &k, &v, 0) != 0) return false;
    const auto* from = static_cast<const char*>(v.data);
    value->assign(from, from + v.size);
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    put(nullptr, key, value);
    return true;
  }
  bool remove(Key key) override {
    const KeyBytes bytes(key);
    DBT k = dbt(bytes.bytes, sizeof bytes.bytes);
    return db_->del(db_, nullptr, &k, 0) == 0;
  }
  void compact() override {
    check(db_->compact(db_, nullptr, nullptr, nullptr, nullptr, DB_FREE_SPACE, nullptr));
  }

 private:
  struct Steps {
    u_int32_t first;
    u_int32_t next;
  };
  static constexpr size_t kAll = SIZE_MAX;

  void put(DB_TXN* txn, Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    DBT k = dbt(bytes.bytes, sizeof bytes.bytes);
    DBT v = dbt(value.data(), value.size());
    check(db_->put(db_, txn, &k, &v, 0));
  }
  Walked values(DBT from, Steps steps, size_t count) {
    return walk(from, steps, count, [](Walked& seen, const DBT&, const DBT& value) {
      seen.value(value.data, value.size);
    });
  }
  template <typename Row>
  Walked walk(DBT key, Steps steps, size_t count, Row row) {
    DBC* cursor = nullptr;
    check(db_->cursor(db_, nullptr, &cursor, 0));
    Walked seen;
    DBT value = dbt(nullptr, 0);
    u_int32_t step = steps.first;
    for (; count > 0 && cursor->get(cursor, &key, &value, step) == 0; --count) {
      row(seen, key, value);
      step = steps.next;
    }
    cursor->close(cursor);
    return seen;
  }

  DB_ENV* env_ = nullptr;
  DB* db_ = nullptr;
  Key next_ = 1;
  int batches_ = 0;
};

}  // namespace

std::unique_ptr<Store> makeBerkeleyDb(size_t) {
  return std::make_unique<BerkeleyDb>();
}

}  // namespace bench
