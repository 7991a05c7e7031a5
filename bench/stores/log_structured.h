// LevelDB and RocksDB, whose interfaces are alike: the log written and not synced, no compression.
#pragma once

#include "store.h"

namespace bench {

// Api names the types of the one or the other, and compacts by its compactAll.
template <typename Api>
class LogStructuredStore : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    typename Api::Options options;
    options.create_if_missing = true;
    options.compression = Api::kNoCompression;
    options.write_buffer_size = size_t{64} << 20;
    typename Api::Database* db = nullptr;
    check(Api::Database::Open(options, folder / Api::kName, &db));
    db_.reset(db);
  }
  void close() override { db_.reset(); }

  Key append(std::span<const char> value) override {
    check(db_->Put({}, slice(KeyBytes(next_)), slice(value)));
    return next_++;
  }
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    while (count > 0) {
      typename Api::WriteBatch batch;
      for (size_t i = 0; i < 1000 && count > 0; ++i, --count) {
        if (keys != nullptr) keys->push_back(next_);
        batch.Put(slice(KeyBytes(next_++)), slice(value));
      }
      check(db_->Write({}, &batch));
    }
  }

  uint64_t scanKeys() override {
    return scan([](auto& i) { return keyOf(i.key().data()); });
  }
  uint64_t scanValues() override {
    Bytes copy;
    return scan([&](auto& i) {
      copy.assign(i.value().data(), i.value().data() + i.value().size());
      return static_cast<uint64_t>(copy.size());
    });
  }

  bool get(Key key, Bytes* value) override {
    if (!db_->Get({}, slice(KeyBytes(key)), &found_).ok()) return false;
    value->assign(found_.begin(), found_.end());
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    return db_->Put({}, slice(KeyBytes(key)), slice(value)).ok();
  }
  bool remove(Key key) override { return db_->Delete({}, slice(KeyBytes(key))).ok(); }
  bool compact() override {
    Api::compactAll(*db_);
    return true;
  }

 private:
  using Slice = typename Api::Slice;

  static Slice slice(std::span<const char> bytes) { return {bytes.data(), bytes.size()}; }
  static Slice slice(const KeyBytes& key) { return {key.bytes, sizeof key.bytes}; }

  static void check(const typename Api::Status& status) {
    if (!status.ok()) failed(Api::kName + (": " + status.ToString()));
  }

  template <typename Row>
  uint64_t scan(Row row) {
    const std::unique_ptr<typename Api::Iterator> i(db_->NewIterator({}));
    uint64_t sum = 0;
    for (i->SeekToFirst(); i->Valid(); i->Next()) sum += row(*i);
    return sum;
  }

  std::unique_ptr<typename Api::Database> db_;
  std::string found_;
  Key next_ = 1;
};

}  // namespace bench
