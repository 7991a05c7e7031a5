// Tokyo Cabinet's hash database.
#include <tchdb.h>

#include <cstdlib>

#include "store.h"

namespace bench {
namespace {

class TokyoCabinet : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    db_ = tchdbnew();
    tchdbtune(db_, 2'000'003, -1, -1, HDBTLARGE);
    tchdbsetxmsiz(db_, int64_t{64} << 20);
    if (!tchdbopen(db_, (folder / "data.tch").c_str(), HDBOWRITER | HDBOCREAT))
      failed("tokyocabinet: open");
  }
  void close() override { tchdbdel(db_); }

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
    uint64_t sum = 0;
    int size = 0;
    tchdbiterinit(db_);
    while (void* key = tchdbiternext(db_, &size)) {
      sum += keyOf(key);
      std::free(key);
    }
    return sum;
  }
  uint64_t scanValues() override {
    uint64_t sum = 0;
    TCXSTR* key = tcxstrnew();
    TCXSTR* value = tcxstrnew();
    tchdbiterinit(db_);
    while (tchdbiternext3(db_, key, value)) sum += static_cast<uint64_t>(tcxstrsize(value));
    tcxstrdel(key);
    tcxstrdel(value);
    return sum;
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
  bool compact() override { return tchdboptimize(db_, -1, -1, -1, UINT8_MAX); }

 private:
  void put(Key key, std::span<const char> value) {
    const KeyBytes bytes(key);
    if (!tchdbput(db_, bytes.bytes, sizeof bytes.bytes, value.data(),
                  static_cast<int>(value.size()))) {
      failed("tokyocabinet: put");
    }
  }

  TCHDB* db_ = nullptr;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeTokyoCabinet() {
  return std::make_unique<TokyoCabinet>();
}

}  // namespace bench
