// Fuzz target: the input is a sequence of operations on a new database. A model in memory makes the
// same ones, and now and then and at the end the library is asked for everything and must answer
// what the model holds. Then the check finds nothing in the file, and a pack has the same records.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/check.hpp>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/hostile_file.h"

namespace {

using namespace qvdbase::fuzz;
using Payload = std::vector<uint8_t>;

// The input, byte by byte; zeros after its end.
class Script {
 public:
  Script(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool isDone() const { return at_ >= size_; }
  uint8_t next() { return isDone() ? uint8_t{0} : data_[at_++]; }
  size_t below(size_t limit) { return next() % limit; }

  // Mostly short, sometimes some kilobytes.
  Payload payload() {
    const size_t size = next() < 200 ? next() % 64 : size_t{next()} * 40;
    Payload bytes(size);
    uint8_t value = next();
    for (uint8_t& each : bytes) each = value++;
    return bytes;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

struct ModelRecord {
  uint64_t id = 0;
  Payload payload;
};

struct ModelTable {
  uint64_t id = 0;
  std::string name;
  std::vector<ModelRecord> records;
  bool hasData = false;
  Payload data;
};

class Comparison {
 public:
  Comparison(const uint8_t* data, size_t size)
      : script_(data, size), path_(scratchPath("operations.qvd")), wide_(widePath(path_)) {
    writeBytes(path_, nullptr, 0);
    db_ = CreateDBaseW(wide_.data(), "QVdb", 100);
    require(db_ != 0, "a database is created");
  }
  ~Comparison() { CloseDBase(db_); }
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;

  void run() {
    addTable();
    for (int i = 0; i < 400 && !script_.isDone(); ++i) step();
    compareAll(db_, path_, true);
    CloseDBase(db_);
    db_ = 0;
    checkFile();
    comparePack();
  }

 private:
  void step() {
    const uint8_t choice = script_.next();
    ModelTable& table = tables_[script_.below(tables_.size())];
    if (choice < 16) return addTable();
    if (choice < 24) return reopen();
    if (choice < 120 || table.records.empty()) return add(table, choice % 2 == 0);
    if (choice < 170) return modify(table);
    if (choice < 215) return remove(table);
    if (choice < 225) return touch(table);
    setData(table);
  }

  void addTable() {
    const std::string name = "table " + std::to_string(script_.below(40));
    const bool isThere = std::any_of(tables_.begin(), tables_.end(),
                                     [&](const ModelTable& each) { return each.name == name; });
    const uint64_t id = AddTable(db_, name.c_str());
    require((id != 0) == (!isThere && tables_.size() < 31), "a table is added where it can be");
    if (id != 0) tables_.push_back({id, name, {}, false, {}});
  }

  void reopen() {
    compareAll(db_, path_, true);
    require(CloseDBase(db_) != 0, "an open database closes");
    db_ = OpenDBaseW(wide_.data(), 3);
    require(db_ != 0, "it opens again");
  }

  void add(ModelTable& table, bool isAssigned) {
    ModelRecord record = {0, script_.payload()};
    const auto size = static_cast<uint32_t>(record.payload.size());
    const uint32_t reserve = script_.next();
    if (isAssigned) record.id = ++lastID_;
    const int result =
        isAssigned ? AddRecordData_AssignRecordID(db_, table.id, record.payload.data(), size,
                                                  reserve, &record.id)
                   : AddRecordData(db_, table.id, record.payload.data(), size, reserve, &record.id);
    require(result == 1, "a record is added");
    table.records.push_back(std::move(record));
  }

  ModelRecord& any(ModelTable& table) { return table.records[script_.below(table.records.size())]; }

  void modify(ModelTable& table) {
    ModelRecord& record = any(table);
    Payload payload = script_.payload();
    const int result = ModifyRecordData(db_, table.id, payload.data(),
                                        static_cast<uint32_t>(payload.size()), record.id, nullptr);
    require(result == (payload.empty() ? 0 : 1), "a record is changed");
    if (result == 1) record.payload = std::move(payload);
  }

  void remove(ModelTable& table) {
    const size_t index = script_.below(table.records.size());
    require(DeleteOneRecord(db_, table.id, table.records[index].id, nullptr) == 1,
            "a record is deleted");
    table.records.erase(table.records.begin() + static_cast<std::ptrdiff_t>(index));
  }

  void touch(ModelTable& table) {
    require(ModifyOneRecordInfo_LMTime(db_, table.id, any(table).id) == 1, "a record is touched");
  }

  void setData(ModelTable& table) {
    table.data = script_.payload();
    table.hasData = true;
    const uint32_t reserve = script_.next();
    require(SetTableData(db_, table.id, table.data.data(), static_cast<uint32_t>(table.data.size()),
                         reserve) == 1,
            "table data is set");
  }

  // ---- everything, as the library reports it

  void compareAll(int16_t db, const std::filesystem::path& path, bool withData) {
    const std::vector<uint8_t> file = readBytes(path);
    for (const ModelTable& table : tables_) {
      require(FindTableByName(db, table.name.c_str()) == table.id, "a table has its name");
      compareRecords(db, file, table);
      if (withData && table.hasData) compareData(db, table);
    }
  }

  static void compareRecords(int16_t db, const std::vector<uint8_t>& file,
                             const ModelTable& table) {
    std::vector<uint64_t> ids(table.records.size() + 1);
    uint32_t count = 0;
    require(GetRecordUuIDList(db, table.id, ids.data(), &count) == 1, "a table is listed");
    require(count == table.records.size(), "it has as many records as were left");
    for (size_t i = 0; i < count; ++i) {
      const ModelRecord& record = table.records[i];
      require(ids[i] == record.id, "in the order in which they were added");
      oneRecordInfoP1 info = {};
      require(GetOneRecordInfo(db, table.id, record.id, &info, nullptr) == 1, "each is found");
      const auto begin = static_cast<size_t>(info.dataPos);
      const size_t size = record.payload.size();
      require(
          info.dataLength == size && begin <= file.size() && size <= file.size() - begin &&
              std::equal(record.payload.begin(), record.payload.end(), file.begin() + info.dataPos),
          "with its payload");
    }
  }

  static void compareData(int16_t db, const ModelTable& table) {
    uint32_t size = 0;
    require(GetTableDataSize(db, table.id, &size) == 1 && size == table.data.size(),
            "table data has its size");
    Payload data(size);
    if (size == 0) return;
    require(GetTableData(db, table.id, data.data()) == 1 && data == table.data, "and its bytes");
  }

  void checkFile() const {
    const std::vector<uint8_t> file = readBytes(path_);
    const qvdb::CheckReport report = qvdb::check_image(std::as_bytes(std::span(file)));
    require(report.state == qvdb::CheckState::sound, "the check finds nothing");
  }

  // A pack loses the data of tables that have records, and nothing else.
  void comparePack() {
    const std::filesystem::path packed = scratchPath("packed.qvd");
    const std::vector<QVWCHAR> wide = widePath(packed);
    require(PackOneDB2NewW(wide_.data(), wide.data(), 0, nullptr) == 1, "a pack succeeds");
    const int16_t db = OpenDBaseW(wide.data(), 3);
    require(db != 0, "its file opens");
    compareAll(db, packed, false);
    CloseDBase(db);
  }

  Script script_;
  std::filesystem::path path_;
  std::vector<QVWCHAR> wide_;
  int16_t db_ = 0;
  uint64_t lastID_ = 0;
  std::vector<ModelTable> tables_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Comparison(data, size).run();
  return 0;
}
