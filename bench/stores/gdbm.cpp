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
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    for (size_t i = 0; i < count; ++i) {
      const Key key = append(value);
      if (keys != nullptr) keys->push_back(key);
    }
  }

  uint64_t scanKeys() override {
    return scan([](datum key) { return keyOf(key.dptr); });
  }
  uint64_t scanValues() override {
    return scan([this](datum key) {
      const datum value = gdbm_fetch(db_, key);
      std::free(value.dptr);
      return static_cast<uint64_t>(value.dsize);
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
  bool compact() override { return gdbm_reorganize(db_) == 0; }

 private:
  void put(Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    if (gdbm_store(db_, datumOf(bytes.bytes), datumOf(value), GDBM_REPLACE) != 0)
      failed("gdbm: store");
  }
  template <typename Row>
  uint64_t scan(Row row) {
    uint64_t sum = 0;
    datum key = gdbm_firstkey(db_);
    while (key.dptr != nullptr) {
      sum += row(key);
      const datum next = gdbm_nextkey(db_, key);
      std::free(key.dptr);
      key = next;
    }
    return sum;
  }

  GDBM_FILE db_ = nullptr;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeGdbm() {
  return std::make_unique<Gdbm>();
}

}  // namespace bench
