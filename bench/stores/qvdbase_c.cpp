// Our library through its C interface alone: no index and no batches. Its searches walk the chain,
// so it takes no part in most workloads by key.
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include "store.h"

namespace bench {
namespace {

class QvdbaseC : public Store {
 public:
  void open(const std::filesystem::path& folder) override {
    const std::filesystem::path path = folder / "data.qvd";
    const bool isThere = std::filesystem::exists(path);
    const std::u16string text = path.u16string();
    const auto* wide = reinterpret_cast<const QVWCHAR*>(text.c_str());
    db_ = isThere ? OpenDBaseW(wide, 3) : CreateDBaseW(wide, "QVdb", 100);
    if (db_ == 0) failed("qvdbase-c: open");
    table_ = isThere ? FindTableByName(db_, "t") : AddTable(db_, "t");
  }
  void close() override { CloseDBase(db_); }

  Key append(std::span<const char> value) override {
    Key key = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    if (AddRecordData(db_, table_, bytes, static_cast<uint32_t>(value.size()), 0, &key) != 1) {
      failed("qvdbase-c: append");
    }
    return key;
  }
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override {
    for (Key& key : keys) key = append(values.of(stamp++));
  }

  Walked scanKeys() override {
    uint32_t count = 0;
    GetNumberOfRecords(db_, table_, &count);
    std::vector<Key> keys(count);
    GetRecordUuIDList(db_, table_, keys.data(), &count);
    Walked seen;
    for (uint32_t i = 0; i < count; ++i) seen.key(keys[i]);
    return seen;
  }
  Walked scanValues() override { return {}; }

  bool get(Key key, Bytes* value) override {
    oneRecordInfoP1 info;
    if (GetOneRecordInfo(db_, table_, key, &info, nullptr) != 1) return false;
    value->resize(info.dataLength);
    uint32_t read = 0;
    return QVFile().QVSeekFile(db_, 1, info.dataPos) == 1 &&
           QVFile().QVReadFile(db_, value->data(), info.dataLength, &read) == 1;
  }
  bool update(Key, std::span<const char>) override { return false; }
  bool remove(Key) override { return false; }

 private:
  int16_t db_ = 0;
  uint64_t table_ = 0;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseC(size_t) {
  return std::make_unique<QvdbaseC>();
}

}  // namespace bench
