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
  void open(const std::filesystem::path& folder) override {
    check(db_env_create(&env_, 0));
    check(env_->set_cachesize(env_, 0, 256u << 20, 1));
    check(env_->set_flags(env_, DB_TXN_WRITE_NOSYNC, 1));
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
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    while (count > 0) {
      DB_TXN* txn = nullptr;
      check(env_->txn_begin(env_, nullptr, &txn, 0));
      for (size_t i = 0; i < 1000 && count > 0; ++i, --count) {
        if (keys != nullptr) keys->push_back(next_);
        put(txn, next_++, value);
      }
      check(txn->commit(txn, 0));
      if (++batches_ % 100 == 0) env_->txn_checkpoint(env_, 0, 0, 0);
    }
  }

  uint64_t scanKeys() override {
    return scan([](const DBT& key, const DBT&) { return keyOf(key.data); });
  }
  uint64_t scanValues() override {
    Bytes copy;
    return scan([&](const DBT&, const DBT& value) {
      const auto* bytes = static_cast<const char*>(value.data);
      copy.assign(bytes, bytes + value.size);
      return static_cast<uint64_t>(copy.size());
    });
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
  bool compact() override {
    return db_->compact(db_, nullptr, nullptr, nullptr, nullptr, DB_FREE_SPACE, nullptr) == 0;
  }

 private:
  void put(DB_TXN* txn, Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    DBT k = dbt(bytes.bytes, sizeof bytes.bytes);
    DBT v = dbt(value.data(), value.size());
    check(db_->put(db_, txn, &k, &v, 0));
  }
  template <typename Row>
  uint64_t scan(Row row) {
    DBC* cursor = nullptr;
    check(db_->cursor(db_, nullptr, &cursor, 0));
    uint64_t sum = 0;
    DBT key = dbt(nullptr, 0);
    DBT value = dbt(nullptr, 0);
    while (cursor->get(cursor, &key, &value, DB_NEXT) == 0) sum += row(key, value);
    cursor->close(cursor);
    return sum;
  }

  DB_ENV* env_ = nullptr;
  DB* db_ = nullptr;
  Key next_ = 1;
  int batches_ = 0;
};

}  // namespace

std::unique_ptr<Store> makeBerkeleyDb() {
  return std::make_unique<BerkeleyDb>();
}

}  // namespace bench
