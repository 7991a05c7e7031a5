// Our library: through its C interface alone, and through the C++ layer with an index.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <optional>
#include <ranges>

#include "store.h"

namespace bench {
namespace {

// Opened exclusively, records appended and changed by identifier.
class Indexed : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    if (isMade_) {
      database_ = qvdb::Database::open(path_, qvdb::Mode::exclusive);
      table_ = database_->table("t");
      return;
    }
    path_ = folder / "data.qvd";
    database_ = qvdb::Database::create(path_);
    table_ = database_->add_table("t");
    isMade_ = true;
  }
  void close() override {
    index_.reset();
    table_.reset();
    database_.reset();
  }

  Key append(std::span<const char> value) override {
    return table_->add(std::as_bytes(value)).value;
  }

  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    qvdb::BulkAppender bulk = table_->appender();
    const qvdb::NewRecord record(std::as_bytes(value));
    for (size_t i = 0; i < count; ++i) {
      const Key key = bulk.add(record).value;
      if (keys != nullptr) keys->push_back(key);
    }
    bulk.finish();
  }

  uint64_t scanKeys() override {
    uint64_t sum = 0;
    for (const qvdb::Record& record : table_->records()) sum += record.id().value;
    return sum;
  }
  uint64_t scanValues() override {
    uint64_t sum = 0;
    Bytes copy;
    for (const qvdb::Record& record : table_->records(qvdb::Load::payloads)) {
      const auto* bytes = reinterpret_cast<const char*>(record.loaded().data());
      copy.assign(bytes, bytes + record.loaded().size());
      sum += copy.size();
    }
    return sum;
  }

  uint64_t lastValues(size_t count) override {
    uint64_t sum = 0;
    for (const qvdb::Record& record :
         table_->records({.order = qvdb::Order::newest_first, .load = qvdb::Load::payloads})) {
      sum += record.loaded().size();
      if (--count == 0) break;
    }
    return sum;
  }

  bool get(Key key, Bytes* value) override {
    needIndex();
    value->resize(kLargestValue);
    const auto size = table_->get(qvdb::Id{key}, std::as_writable_bytes(std::span(*value)));
    if (!size) return false;
    value->resize(std::min<size_t>(*size, kLargestValue));
    return true;
  }
  bool update(Key key, std::span<const char> value) override {
    needIndex();
    return table_->modify(qvdb::Id{key}, std::as_bytes(value));
  }
  bool remove(Key key) override {
    needIndex();
    return table_->remove(qvdb::Id{key});
  }
  bool compact() override {
    const std::filesystem::path folder = path_.parent_path();
    close();
    qvdb::compact(path_);
    open(folder);
    return true;
  }
  void inspect() override {
    if (qvdb::check(path_).state != qvdb::CheckState::sound) failed("qvdbase: not sound");
  }
  void firstRead(Key, Bytes* value) override {
    for (const qvdb::Record& record : table_->records(qvdb::Load::payloads)) {
      const auto* bytes = reinterpret_cast<const char*>(record.loaded().data());
      value->assign(bytes, bytes + record.loaded().size());
      return;
    }
  }

 private:
  static constexpr size_t kLargestValue = 4096;

  void needIndex() {
    if (!index_) index_ = table_->index();
  }

  bool isMade_ = false;
  std::filesystem::path path_;
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
  std::optional<qvdb::RecordIndex> index_;
};

// No index, no batches: what the C interface has. Its searches walk the chain, so it takes no part
// in the workloads by key.
class PlainC : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    const std::u16string path = (folder / "data.qvd").u16string();
    const auto* wide = reinterpret_cast<const QVWCHAR*>(path.c_str());
    db_ = isMade_ ? OpenDBaseW(wide, 3) : CreateDBaseW(wide, "QVdb", 100);
    if (db_ == 0) failed("qvdbase: open");
    table_ = isMade_ ? FindTableByName(db_, "t") : AddTable(db_, "t");
    isMade_ = true;
  }
  void close() override { CloseDBase(db_); }

  Key append(std::span<const char> value) override {
    Key key = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    if (AddRecordData(db_, table_, bytes, static_cast<uint32_t>(value.size()), 0, &key) != 1) {
      failed("qvdbase: append");
    }
    return key;
  }
  void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) override {
    for (size_t i = 0; i < count; ++i) {
      const Key key = append(value);
      if (keys != nullptr) keys->push_back(key);
    }
  }

  uint64_t scanKeys() override {
    uint32_t count = 0;
    GetNumberOfRecords(db_, table_, &count);
    std::vector<Key> keys(count);
    GetRecordUuIDList(db_, table_, keys.data(), &count);
    uint64_t sum = 0;
    for (const Key key : keys) sum += key;
    return sum;
  }
  uint64_t scanValues() override { return 0; }
  bool get(Key key, Bytes*) override {
    oneRecordInfoP1 info;
    return GetOneRecordInfo(db_, table_, key, &info, nullptr) == 1;
  }
  bool update(Key, std::span<const char>) override { return false; }
  bool remove(Key) override { return false; }
  bool compact() override { return false; }
  void firstRead(Key key, Bytes*) override {
    oneRecordInfoP1 info;
    if (GetOneRecordInfo(db_, table_, key, &info, nullptr) != 1) failed("qvdbase: first read");
  }

 private:
  bool isMade_ = false;
  int16_t db_ = 0;
  uint64_t table_ = 0;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseIndex() {
  return std::make_unique<Indexed>();
}
std::unique_ptr<Store> makeQvdbaseC() {
  return std::make_unique<PlainC>();
}

}  // namespace bench
