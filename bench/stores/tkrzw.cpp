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
  explicit Tkrzw(size_t records) : buckets_(static_cast<int64_t>(records * 2)) {}

  void open(const std::filesystem::path& folder) override {
    tkrzw::HashDBM::TuningParameters tuning;
    tuning.num_buckets = buckets_;
    check(db_.OpenAdvanced(folder / "data.tkh", true, tkrzw::File::OPEN_DEFAULT, tuning));
  }
  void close() override { check(db_.Close()); }

  Key append(std::span<const char> value) override {
    check(db_.Set(KeyBytes(next_).view(), {value.data(), value.size()}));
    return next_++;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (Key& key : keys) key = append(values.of(stamp++));
  }

  Walked scanKeys() override {
    Walked seen;
    const auto i = db_.MakeIterator();
    std::string key;
    for (i->First(); i->Get(&key, nullptr).IsOK(); i->Next()) seen.key(keyOf(key.data()));
    return seen;
  }
  Walked scanValues() override {
    Walked seen;
    const auto i = db_.MakeIterator();
    std::string value;
    for (i->First(); i->Get(nullptr, &value).IsOK(); i->Next()) {
      seen.value(value.data(), value.size());
    }
    return seen;
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
  void compact() override { check(db_.Rebuild()); }

 private:
  int64_t buckets_;
  tkrzw::HashDBM db_;
  std::string found_;
  Key next_ = 1;
};

}  // namespace

std::unique_ptr<Store> makeTkrzw(size_t expectedRecords) {
  return std::make_unique<Tkrzw>(expectedRecords);
}

}  // namespace bench
