// tkrzw's hash database: the fastest of the hash stores here.
#include <tkrzw_dbm_hash.h>

#include "store.h"

namespace bench {
namespace {

void check(const tkrzw::Status& status) {
  if (!status.IsOK()) failed("tkrzw: " + tkrzw::ToString(status));
}

class Tkrzw : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    tkrzw::HashDBM::TuningParameters tuning;
    tuning.num_buckets = 2'000'003;
    check(db_.OpenAdvanced(folder / "data.tkh", true, tkrzw::File::OPEN_DEFAULT, tuning));
  }
  void close() override { check(db_.Close()); }

  Key append(std::span<const char> value) override {
    check(db_.Set(KeyBytes(next_).view(), {value.data(), value.size()}));
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
    const auto i = db_.MakeIterator();
    std::string key;
    for (i->First(); i->Get(&key, nullptr).IsOK(); i->Next()) sum += keyOf(key.data());
    return sum;
  }
  uint64_t scanValues() override {
    uint64_t sum = 0;
    const auto i = db_.MakeIterator();
    std::string key;
    std::string value;
    for (i->First(); i->Get(&key, &value).IsOK(); i->Next()) sum += value.size();
    return sum;
  }

  bool get(Key key, Bytes* value) override {
    if (!db_.Get(KeyBytes(key).view(), &found_).IsOK()) return false;
    value->assign(found_.begin(), found_.end());
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    return db_.Set(KeyBytes(key).view(), {value.data(), value.size()}).IsOK();
  }
  bool remove(Key key) override { return db_.Remove(KeyBytes(key).view()).IsOK(); }
  bool compact() override { return db_.Rebuild().IsOK(); }

 private:
  tkrzw::HashDBM db_;
  std::string found_;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeTkrzw() {
  return std::make_unique<Tkrzw>();
}

}  // namespace bench
