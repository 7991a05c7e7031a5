// LMDB without syncing, with and without a writable map. Keys are appended in order, as its manual
// recommends for loading. With names, a second database of names and keys, changed in the same
// transactions.
#include <lmdb.h>

#include "store.h"

namespace bench {
namespace {

void check(int result) {
  if (result != MDB_SUCCESS) failed(std::string("lmdb: ") + mdb_strerror(result));
}

class Lmdb : public Store {
 public:
  explicit Lmdb(unsigned flags, bool hasNames = false) : flags_(flags), hasNames_(hasNames) {}

  void open(const std::filesystem::path& folder) override { openWith(folder, MDB_NOSYNC); }
  void openDurably(const std::filesystem::path& folder) override { openWith(folder, 0); }
  void inTransaction(const std::function<void()>& body) override {
    MDB_txn* txn = begin(0);
    open_ = txn;
    body();
    open_ = nullptr;
    check(mdb_txn_commit(txn));
  }
  void openWith(const std::filesystem::path& folder, unsigned sync) {
    folder_ = folder;
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, size_t{32} << 30));
    if (hasNames_) check(mdb_env_set_maxdbs(env_, 2));
    check(mdb_env_open(env_, folder.c_str(), sync | flags_, 0644));
    MDB_txn* txn = begin(0);
    check(mdb_dbi_open(txn, hasNames_ ? "records" : nullptr, MDB_CREATE, &dbi_));
    if (hasNames_) check(mdb_dbi_open(txn, "names", MDB_CREATE, &names_));
    check(mdb_txn_commit(txn));
  }
  void close() override { mdb_env_close(env_); }

  Key append(std::span<const char> value) override {
    MDB_txn* txn = begin(0);
    add(txn, value);
    const Key key = next_++;  // while no other thread can have a transaction
    commit(txn);
    return key;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    MDB_txn* txn = begin(0);
    for (Key& key : keys) {
      add(txn, values.of(stamp++));
      key = next_++;
    }
    check(mdb_txn_commit(txn));
  }

  Walked scanKeys() override {
    return walk(
        {}, {MDB_FIRST, MDB_NEXT}, kAll,
        [](Walked& seen, const MDB_val& key, const MDB_val&) { seen.key(keyOf(key.mv_data)); });
  }
  Walked scanValues() override { return values({}, {MDB_FIRST, MDB_NEXT}, kAll); }
  Walked valuesAfter(Key key, size_t count) override {
    KeyBytes bytes(key + 1);
    return values({sizeof bytes.bytes, bytes.bytes}, {MDB_SET_RANGE, MDB_NEXT}, count);
  }
  Walked lastValues(size_t count) override { return values({}, {MDB_LAST, MDB_PREV}, count); }

  bool get(Key key, Bytes* value) override {
    MDB_txn* txn = begin(MDB_RDONLY);
    KeyBytes bytes(key);
    const bool found = read(txn, {sizeof bytes.bytes, bytes.bytes}, value);
    endReading(txn);
    return found;
  }
  bool update(Key key, std::span<const char> value) override {
    MDB_txn* txn = begin(0);
    put(txn, key, value, 0);
    commit(txn);
    return true;
  }
  bool remove(Key key) override {
    MDB_txn* txn = begin(0);
    KeyBytes bytes(key);
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    const bool found = mdb_del(txn, dbi_, &k, nullptr) == MDB_SUCCESS;
    commit(txn);
    return found;
  }
  // Its compacting copy, which then takes the place of the database.
  void compact() override {
    const std::filesystem::path copy = folder_ / "copy";
    std::filesystem::create_directory(copy);
    check(mdb_env_copy2(env_, copy.c_str(), MDB_CP_COMPACT));
    close();
    std::filesystem::rename(copy / "data.mdb", folder_ / "data.mdb");
    open(folder_);
  }

  bool addNamed(std::span<const char> value, Key* key) override {
    MDB_txn* txn = begin(0);
    const int result = enterName(txn, value);
    if (result == MDB_KEYEXIST) {
      mdb_txn_abort(txn);
      return false;
    }
    check(result);
    put(txn, next_, value, MDB_APPEND);
    check(mdb_txn_commit(txn));
    *key = next_++;
    return true;
  }
  bool getNamed(const std::string& name, Bytes* value) override {
    MDB_txn* txn = begin(MDB_RDONLY);
    MDB_val n{name.size(), const_cast<char*>(name.data())};
    MDB_val key;
    const bool found = mdb_get(txn, names_, &n, &key) == MDB_SUCCESS && read(txn, key, value);
    mdb_txn_abort(txn);
    return found;
  }
  Walked valuesNamed(const std::string& beginning) override {
    MDB_txn* txn = begin(MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(txn, names_, &cursor));
    Walked seen;
    MDB_val name{beginning.size(), const_cast<char*>(beginning.data())};
    MDB_val key;
    MDB_cursor_op step = MDB_SET_RANGE;
    for (; mdb_cursor_get(cursor, &name, &key, step) == MDB_SUCCESS; step = MDB_NEXT) {
      if (std::memcmp(name.mv_data, beginning.data(), beginning.size()) != 0) break;
      MDB_val value;
      check(mdb_get(txn, dbi_, &key, &value));
      seen.value(value.mv_data, value.mv_size);
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    return seen;
  }

 private:
  struct Steps {
    MDB_cursor_op first;
    MDB_cursor_op next;
  };
  static constexpr size_t kAll = SIZE_MAX;

  // The transaction that is open, or one for a single operation.
  MDB_txn* begin(unsigned flags) {
    if (open_ != nullptr) return open_;
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, flags, &txn));
    return txn;
  }
  void commit(MDB_txn* txn) {
    if (txn != open_) check(mdb_txn_commit(txn));
  }
  void endReading(MDB_txn* txn) {
    if (txn != open_) mdb_txn_abort(txn);
  }
  // The next record, with its name.
  void add(MDB_txn* txn, std::span<const char> value) {
    if (hasNames_) check(enterName(txn, value));
    put(txn, next_, value, MDB_APPEND);
  }
  int enterName(MDB_txn* txn, std::span<const char> value) {
    const std::string name = nameOf(value);
    KeyBytes bytes(next_);
    MDB_val n{name.size(), const_cast<char*>(name.data())};
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    return mdb_put(txn, names_, &n, &k, MDB_NOOVERWRITE);
  }
  bool read(MDB_txn* txn, MDB_val key, Bytes* value) const {
    MDB_val v;
    if (mdb_get(txn, dbi_, &key, &v) != MDB_SUCCESS) return false;
    const auto* from = static_cast<const char*>(v.mv_data);
    value->assign(from, from + v.mv_size);
    return true;
  }
  void put(MDB_txn* txn, Key key, std::span<const char> value, unsigned flags) {
    KeyBytes bytes(key);
    MDB_val k{sizeof bytes.bytes, bytes.bytes};
    MDB_val v{value.size(), const_cast<char*>(value.data())};
    check(mdb_put(txn, dbi_, &k, &v, flags));
  }
  Walked values(MDB_val from, Steps steps, size_t count) {
    return walk(from, steps, count, [](Walked& seen, const MDB_val&, const MDB_val& value) {
      seen.value(value.mv_data, value.mv_size);
    });
  }
  template <typename Row>
  Walked walk(MDB_val key, Steps steps, size_t count, Row row) {
    MDB_txn* txn = begin(MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(txn, dbi_, &cursor));
    Walked seen;
    MDB_val value;
    MDB_cursor_op step = steps.first;
    for (; count > 0 && mdb_cursor_get(cursor, &key, &value, step) == MDB_SUCCESS; --count) {
      row(seen, key, value);
      step = steps.next;
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    return seen;
  }

  unsigned flags_;
  bool hasNames_;
  std::filesystem::path folder_;
  MDB_env* env_ = nullptr;
  MDB_txn* open_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_dbi names_ = 0;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeLmdb(size_t) {
  return std::make_unique<Lmdb>(0);
}
std::unique_ptr<Store> makeLmdbNames(size_t) {
  return std::make_unique<Lmdb>(0, true);
}
std::unique_ptr<Store> makeLmdbWritemap(size_t) {
  return std::make_unique<Lmdb>(MDB_WRITEMAP);
}

}  // namespace bench
