// Tokyo Cabinet's hash database.
#include <tchdb.h>

#include <cstdlib>

#include "store.h"

namespace bench {
namespace {

class TokyoCabinet : public Store {
 public:
  explicit TokyoCabinet(size_t records) : buckets_(static_cast<int64_t>(records * 2)) {}

  void open(const std::filesystem::path& folder) override {
    db_ = tchdbnew();
    tchdbtune(db_, buckets_, -1, -1, HDBTLARGE);
    tchdbsetxmsiz(db_, int64_t{64} << 20);
    if (!tchdbopen(db_, (folder / "data.tch").c_str(), HDBOWRITER | HDBOCREAT))
      failed("tokyocabinet: open");
  }
  void close() override { tchdbdel(db_); }

  Key append(std::span<const char> value) override {
    put(next_, value);
    return next_++;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (Key& key : keys) key = append(values.of(stamp++));
  }

  Walked scanKeys() override {
    Walked seen;
    int size = 0;
    tchdbiterinit(db_);
    while (void* key = tchdbiternext(db_, &size)) {
      seen.key(keyOf(key));
      std::free(key);
    }
    return seen;
  }
  Walked scanValues() override {
    Walked seen;
    TCXSTR* key = tcxstrnew();
    TCXSTR* value = tcxstrnew();
    tchdbiterinit(db_);
    while (tchdbiternext3(db_, key, value)) {
      seen.value(tcxstrptr(value), static_cast<size_t>(tcxstrsize(value)));
    }
    tcxstrdel(key);
    tcxstrdel(value);
    return seen;
  }

  bool get(Key key, Bytes* value) override {
    const KeyBytes bytes(key);
    int size = 0;
    void* found = tchdbget(db_, bytes.bytes, sizeof bytes.bytes, &size);
    if (found == nullptr) return false;
    value->assign(static_cast<char*>(found), static_cast<char*>(found) + size);
    std::free(found);
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    put(key, value);
    return true;
  }
  bool remove(Key key) override {
    const KeyBytes bytes(key);
    return tchdbout(db_, bytes.bytes, sizeof bytes.bytes);
  }
  void compact() override {
    if (!tchdboptimize(db_, -1, -1, -1, UINT8_MAX)) failed("tokyocabinet: optimize");
  }

 private:
  void put(Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    if (!tchdbput(db_, bytes.bytes, sizeof bytes.bytes, value.data(),
                  static_cast<int>(value.size()))) {
      failed("tokyocabinet: put");
    }
  }

  int64_t buckets_;
  TCHDB* db_ = nullptr;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeTokyoCabinet(size_t expectedRecords) {
  return std::make_unique<TokyoCabinet>(expectedRecords);
}

}  // namespace bench
