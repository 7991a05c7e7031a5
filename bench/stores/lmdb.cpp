// LMDB without syncing, with and without a writable map. Keys are appended in order, as its manual
// recommends for loading.
#include <lmdb.h>

#include "store.h"

namespace bench {
namespace {

void check(int result) {
  if (result != MDB_SUCCESS) failed(std::string("lmdb: ") + mdb_strerror(result));
}

class Lmdb : public Store {
 public:
  explicit Lmdb(unsigned flags) : flags_(flags) {}

  void open(const std::filesystem::path& folder) override {
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, size_t{32} << 30));
    check(mdb_env_open(env_, folder.c_str(), MDB_NOSYNC | flags_, 0644));
    MDB_txn* txn = begin(0);
    check(mdb_dbi_open(txn, nullptr, MDB_CREATE, &dbi_));
    check(mdb_txn_commit(txn));
  }
  void close() override { mdb_env_close(env_); }

  Key append(std::span<const char> value) override {
    MDB_txn* txn = begin(0);
    put(txn, next_, value, MDB_APPEND);
    check(mdb_txn_commit(txn));
    return next_++;
  }
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    MDB_txn* txn = begin(0);
    for (size_t i = 0; i < count; ++i) {
      if (keys != nullptr) keys->push_back(next_);
      put(txn, next_++, value, MDB_APPEND);
    }
    check(mdb_txn_commit(txn));
  }

  uint64_t scanKeys() override {
    return scan([](const MDB_val& key, const MDB_val&) { return keyOf(key.mv_data); });
  }
  uint64_t scanValues() override {
    Bytes copy;
    return scan([&](const MDB_val&, const MDB_val& value) {
      const auto* bytes = static_cast<const char*>(value.mv_data);
      copy.assign(bytes, bytes + value.mv_size);
      return static_cast<uint64_t>(copy.size());
    });
  }

  bool get(Key key, Bytes* value) override {
    MDB_txn* txn = begin(MDB_RDONLY);
    KeyBytes bytes(key);
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    MDB_val v;
    const bool found = mdb_get(txn, dbi_, &k, &v) == MDB_SUCCESS;
    if (found) {
      const auto* from = static_cast<const char*>(v.mv_data);
      value->assign(from, from + v.mv_size);
    }
    mdb_txn_abort(txn);
    return found;
  }
  bool update(Key key, std::span<const char> value) override {
    MDB_txn* txn = begin(0);
    put(txn, key, value, 0);
    check(mdb_txn_commit(txn));
    return true;
  }
  bool remove(Key key) override {
    MDB_txn* txn = begin(0);
    KeyBytes bytes(key);
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    const bool found = mdb_del(txn, dbi_, &k, nullptr) == MDB_SUCCESS;
    check(mdb_txn_commit(txn));
    return found;
  }
  bool compact() override { return false; }

 private:
  MDB_txn* begin(unsigned flags) {
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, flags, &txn));
    return txn;
  }
  void put(MDB_txn* txn, Key key, std::span<const char> value, unsigned flags) {
    KeyBytes bytes(key);
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    MDB_val v{value.size(), const_cast<char*>(value.data())};
    check(mdb_put(txn, dbi_, &k, &v, flags));
  }
  template <typename Row>
  uint64_t scan(Row row) {
    MDB_txn* txn = begin(MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(txn, dbi_, &cursor));
    uint64_t sum = 0;
    MDB_val key;
    MDB_val value;
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == MDB_SUCCESS) sum += row(key, value);
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    return sum;
  }

  unsigned flags_;
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeLmdb() {
  return std::make_unique<Lmdb>(0);
}
std::unique_ptr<Store> makeLmdbWritemap() {
  return std::make_unique<Lmdb>(MDB_WRITEMAP);
}

}  // namespace bench
