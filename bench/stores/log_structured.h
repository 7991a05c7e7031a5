// LevelDB and RocksDB, whose interfaces are alike: the log written and not synced, no compression.
#pragma once

#include <atomic>

#include "store.h"

namespace bench {

// Api names the types of the one or the other, and compacts by its compactAll.
template <typename Api>
class LogStructuredStore : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    write_ = {};
    openFile(folder);
  }
  void openDurably(const std::filesystem::path& folder) override {
    write_.sync = true;
    openFile(folder);
  }
  void openFile(const std::filesystem::path& folder) {
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
    const Key key = next_++;
    check(db_->Put(write_, slice(KeyBytes(key)), slice(value)));
    return key;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (size_t done = 0; done < keys.size();) {
      typename Api::WriteBatch batch;
      for (size_t i = 0; i < 1000 && done < keys.size(); ++i) {
        keys[done++] = next_;
        batch.Put(slice(KeyBytes(next_++)), slice(values.of(stamp++)));
      }
      check(db_->Write(write_, &batch));
    }
  }

  Walked scanKeys() override {
    const auto i = iterator();
    Walked seen;
    for (i->SeekToFirst(); i->Valid(); i->Next()) seen.key(keyOf(i->key().data()));
    return seen;
  }
  Walked scanValues() override {
    const auto i = iterator();
    Walked seen;
    for (i->SeekToFirst(); i->Valid(); i->Next()) seen.value(i->value().data(), i->value().size());
    return seen;
  }
  Walked valuesAfter(Key key, size_t count) override {
    const auto i = iterator();
    Walked seen;
    i->Seek(slice(KeyBytes(key + 1)));
    for (; i->Valid() && count > 0; i->Next(), --count) {
      seen.value(i->value().data(), i->value().size());
    }
    return seen;
  }
  Walked lastValues(size_t count) override {
    const auto i = iterator();
    Walked seen;
    for (i->SeekToLast(); i->Valid() && count > 0; i->Prev(), --count) {
      seen.value(i->value().data(), i->value().size());
    }
    return seen;
  }

  bool get(Key key, Bytes* value) override {
    if (!db_->Get({}, slice(KeyBytes(key)), &found_).ok()) return false;
    value->assign(found_.begin(), found_.end());
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    return db_->Put(write_, slice(KeyBytes(key)), slice(value)).ok();
  }
  bool remove(Key key) override { return db_->Delete(write_, slice(KeyBytes(key))).ok(); }
  void compact() override { Api::compactAll(*db_); }

 private:
  using Slice = typename Api::Slice;

  static Slice slice(std::span<const char> bytes) { return {bytes.data(), bytes.size()}; }
  static Slice slice(const KeyBytes& key) { return {key.bytes, sizeof key.bytes}; }

  static void check(const typename Api::Status& status) {
    if (!status.ok()) failed(Api::kName + (": " + status.ToString()));
  }

  std::unique_ptr<typename Api::Iterator> iterator() {
    return std::unique_ptr<typename Api::Iterator>(db_->NewIterator({}));
  }

  std::unique_ptr<typename Api::Database> db_;
  typename Api::WriteOptions write_;
  std::string found_;
  std::atomic<Key> next_ = 1;
};

}  // namespace bench
