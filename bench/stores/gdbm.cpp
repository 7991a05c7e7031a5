// GDBM, without syncing, in its default way of updating.
#include <gdbm.h>

#include <cstdlib>

#include "store.h"

namespace bench {
namespace {

datum datumOf(std::span<const char> bytes) {
  return {const_cast<char*>(bytes.data()), static_cast<int>(bytes.size())};
}

class Gdbm : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    db_ = gdbm_open((folder / "data.gdbm").c_str(), 0, GDBM_WRCREAT, 0644, nullptr);
    if (db_ == nullptr) failed("gdbm: open");
  }
  void close() override { gdbm_close(db_); }

  Key append(std::span<const char> value) override {
    put(next_, value);
    return next_++;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (Key& key : keys) key = append(values.of(stamp++));
  }

  Walked scanKeys() override {
    return scan([](Walked& seen, datum key) { seen.key(keyOf(key.dptr)); });
  }
  Walked scanValues() override {
    return scan([this](Walked& seen, datum key) {
      const datum value = gdbm_fetch(db_, key);
      seen.value(value.dptr, static_cast<size_t>(value.dsize));
      std::free(value.dptr);
    });
  }

  bool get(Key key, Bytes* value) override {
    const KeyBytes bytes(key);
    const datum found = gdbm_fetch(db_, datumOf(bytes.bytes));
    if (found.dptr == nullptr) return false;
    value->assign(found.dptr, found.dptr + found.dsize);
    std::free(found.dptr);
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    put(key, value);
    return true;
  }
  bool remove(Key key) override {
    const KeyBytes bytes(key);
    return gdbm_delete(db_, datumOf(bytes.bytes)) == 0;
  }
  void compact() override {
    if (gdbm_reorganize(db_) != 0) failed("gdbm: reorganize");
  }

 private:
  void put(Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    if (gdbm_store(db_, datumOf(bytes.bytes), datumOf(value), GDBM_REPLACE) != 0)
      failed("gdbm: store");
  }
  template <typename Row>
  Walked scan(Row row) {
    Walked seen;
    datum key = gdbm_firstkey(db_);
    while (key.dptr != nullptr) {
      row(seen, key);
      const datum next = gdbm_nextkey(db_, key);
      std::free(key.dptr);
      key = next;
    }
    return seen;
  }

  GDBM_FILE db_ = nullptr;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeGdbm(size_t) {
  return std::make_unique<Gdbm>();
}

}  // namespace bench
