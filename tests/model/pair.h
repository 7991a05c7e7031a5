// The random sequences of operations, and a database that runs them beside its model: every answer
// is compared, and at the end the whole file, byte for byte with the model's, through the
// independent reader, and by the checker.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>
#include <rapidcheck.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <array>
#include <optional>
#include <ostream>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "QVDbase/position.h"
#include "QVDbase/record_batch.h"
#include "kit/file_checker.h"
#include "kit/file_reader.h"
#include "kit/layers.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "model/model.h"
#include "platform/transfer/mirror.h"

namespace qvdbase::test {

enum class Kind {
  addTable,
  findTable,
  listTables,
  setTableData,
  getTableData,
  addRecord,
  assignRecord,
  addBatch,
  modifyRecord,
  touchRecord,
  deleteRecord,
  recordInfo,
  listRecords,
  setVersion,
  reopen,
};

inline constexpr std::array kKindNames = {
    "addTable",     "findTable",    "listTables",  "setTableData", "getTableData",
    "addRecord",    "assignRecord", "addBatch",    "modifyRecord", "touchRecord",
    "deleteRecord", "recordInfo",   "listRecords", "setVersion",   "reopen"};

// One operation. The choices are numbers that the present state gives a meaning to (the one after
// the last table or record stands for one that is not there), so that any part of a sequence is a
// sequence as well.
struct Operation {
  Kind kind = Kind::reopen;
  unsigned table = 0;
  unsigned record = 0;
  uint32_t size = 0;
  uint32_t reserve = 0;
  int64_t position = 0;  // where the handle stands before
};

inline std::ostream& operator<<(std::ostream& out, const Operation& op) {
  return out << kKindNames[static_cast<size_t>(op.kind)] << "(table " << op.table << ", record "
             << op.record << ", size " << op.size << ", reserve " << op.reserve
             << ", from position " << op.position << ")\n";
}

inline rc::Gen<Kind> anyKind() {
  using rc::gen::just;
  return rc::gen::weightedElement<Kind>({{3, Kind::addTable},
                                         {1, Kind::findTable},
                                         {1, Kind::listTables},
                                         {4, Kind::setTableData},
                                         {2, Kind::getTableData},
                                         {10, Kind::addRecord},
                                         {5, Kind::assignRecord},
                                         {1, Kind::addBatch},
                                         {10, Kind::modifyRecord},
                                         {2, Kind::touchRecord},
                                         {6, Kind::deleteRecord},
                                         {2, Kind::recordInfo},
                                         {2, Kind::listRecords},
                                         {1, Kind::setVersion},
                                         {1, Kind::reopen}});
}

// Mostly a few bytes, now and then more than one chunk of fill.
inline rc::Gen<uint32_t> anySize() {
  return rc::gen::weightedOneOf<uint32_t>({{12, rc::gen::inRange<uint32_t>(0, 40)},
                                           {2, rc::gen::inRange<uint32_t>(40, 400)},
                                           {1, rc::gen::inRange<uint32_t>(32700, 70000)}});
}

inline rc::Gen<Operation> anyOperation() {
  return rc::gen::build<Operation>(
      rc::gen::set(&Operation::kind, anyKind()),
      rc::gen::set(&Operation::table, rc::gen::inRange(0u, 60u)),
      rc::gen::set(&Operation::record, rc::gen::inRange(0u, 60u)),
      rc::gen::set(&Operation::size, anySize()), rc::gen::set(&Operation::reserve, anySize()),
      rc::gen::set(&Operation::position, rc::gen::inRange<int64_t>(0, 10000)));
}

// Sequences of up to 300 operations.
inline rc::Gen<std::vector<Operation>> anySequence() {
  return rc::gen::scale(3, rc::gen::container<std::vector<Operation>>(anyOperation()));
}

inline constexpr uint64_t kNoSuchID = 0xFFFFFFFFFFFFFFF0;

// The names of tables: short ones, some of exactly 32 bytes, some that are cut.
inline std::string tableName(unsigned choice) {
  if (choice == 0) return "";
  if (choice % 5 == 3) return std::string(32, static_cast<char>('a' + choice % 3));
  if (choice % 5 == 4) return std::string(40, static_cast<char>('a' + choice % 3));
  return "table " + std::to_string(choice % 40);
}

// The database under test beside its model. Whoever makes one makes the host's clock show time(),
// to the thread that runs it.
class Pair {
 public:
  Pair() : db_(CreateDBaseW(folder_.wide("model.qvd"), "QVdb", 100)), model_(writtenHeader()) {
    RC_ASSERT(db_ != 0);
  }

  ~Pair() { CloseDBase(db_); }

  static uint32_t time() { return now_; }

  // Each time that the file is closed, every lookup is made by indexes of the layer, too.
  void askIndexes() { asksIndexes_ = true; }
  int indexesFromFile() const { return indexesFromFile_; }
  int keysFromFile() const { return keysFromFile_; }

  // From now on what the database reads comes from a mirror of its file with this budget, as it
  // does in the C++ layer, whenever it is open exclusively; nothing where the host has no mirrors.
  void useMirror(uint64_t budget) { mirrorBudget_ = budget; }

  void run(const Operation& op) {
    ++now_;
    seed_ = seed_ * 31 + op.size;
    QVFile().QVSeekFile(db_, 1, op.position);
    expectedPosition_ = op.position;
    const bool isMirrored = op.kind != Kind::reopen && mirrorBudget_ &&
                            platform::attachMirror(db_, *mirrorBudget_) && platform::useMirror(db_);
    dispatch(op);
    if (isMirrored) platform::leaveMirror(db_);
    int64_t position = -1;
    RC_ASSERT(QVFile().QVGetFilePos(db_, &position) == 1);
    RC_ASSERT(position == expectedPosition_);
  }

  void compareFile() {
    const Bytes file = readFile(path());
    const testing::AssertionResult same = sameBytes(file, model_.file());
    if (!same) RC_FAIL(std::string(same.message()));
    const std::vector<Finding> findings = checkFile(file);
    if (!findings.empty()) RC_FAIL(describe(findings));
    compareContents(readDatabase(file));
  }

 private:
  std::filesystem::path path() const { return folder_ / "model.qvd"; }

  HeaderFields writtenHeader() const { return decodeHeader(readFile(path())); }

  void dispatch(const Operation& op) {
    switch (op.kind) {
      case Kind::addTable:
        return addTable(tableName(op.table));
      case Kind::findTable:
        return findTable(tableName(op.table));
      case Kind::listTables:
        return listTables();
      case Kind::setTableData:
        return setTableData(tableID(op), pattern(op.size, seed_), op.reserve);
      case Kind::getTableData:
        return getTableData(tableID(op));
      case Kind::addRecord:
        return addRecord(tableID(op), pattern(op.size, seed_), op.reserve);
      case Kind::assignRecord:
        return assignRecord(tableID(op), op.record % 8, pattern(op.size, seed_), op.reserve);
      case Kind::addBatch:
        return addBatch(tableID(op), op.record % 8 + 1, op.size, op.reserve);
      case Kind::modifyRecord:
        return modifyRecord(tableID(op), recordID(op), pattern(op.size, seed_));
      case Kind::touchRecord:
        return touchRecord(tableID(op), recordID(op));
      case Kind::deleteRecord:
        return deleteRecord(tableID(op), recordID(op));
      case Kind::recordInfo:
        return recordInfo(tableID(op), recordID(op));
      case Kind::listRecords:
        return listRecords(tableID(op));
      case Kind::setVersion:
        return setVersion(static_cast<uint16_t>(102 + op.record));
      case Kind::reopen:
        return reopen(op.table % 2 == 0 ? 3 : 4);
    }
  }

  // ---- what an operation works on ----

  uint64_t tableID(const Operation& op) const {
    const size_t choice = op.table % (model_.tables().size() + 1);
    return choice < model_.tables().size() ? model_.tables()[choice].id : kNoSuchID;
  }

  uint64_t recordID(const Operation& op) {
    const Model::Table* table = model_.table(tableID(op));
    if (table == nullptr) return 1;
    const size_t choice = op.record % (table->chain.size() + 1);
    return choice < table->chain.size() ? model_.recordID(table->chain[choice]) : kNoSuchID;
  }

  // The record that the library must find, if any.
  std::optional<int64_t> target(uint64_t table, uint64_t record) {
    Model::Table* owner = model_.table(table);
    return owner == nullptr ? std::nullopt : model_.findRecord(*owner, record);
  }

  // ---- tables ----

  void addTable(const std::string& name) {
    const uint64_t id = AddTable(db_, name.c_str());
    RC_ASSERT((id != 0) == model_.canAddTable(name));
    if (id == 0) return;
    RC_ASSERT(model_.table(id) == nullptr);
    model_.addTable(name, id);
  }

  void findTable(const std::string& name) {
    const Model::Table* expected = name.empty() ? nullptr : model_.findTable(name);
    RC_ASSERT(FindTableByName(db_, name.c_str()) == (expected == nullptr ? 0 : expected->id));
  }

  void listTables() {
    int32_t count = -1;
    RC_ASSERT(GetNumberOfTable(db_, &count) == 1);
    RC_ASSERT(static_cast<size_t>(count) == model_.tables().size());
    for (int i = 0; i <= count; ++i) {
      char name[33] = "untouched";
      const uint64_t id = GetTableNameAndIDByIndex(db_, i, name);
      RC_ASSERT(id == (i < count ? model_.tables()[static_cast<size_t>(i)].id : 0));
      RC_ASSERT(std::string(name) ==
                (i < count ? model_.slotOf(model_.tables()[static_cast<size_t>(i)]).name()
                           : "untouched"));
    }
  }

  // ---- table data ----

  void setTableData(uint64_t table, const Bytes& data, uint32_t reserve) {
    const int result = SetTableData(db_, table, data.data(), size(data), reserve);
    const Model::Table* owner = model_.table(table);
    RC_ASSERT(result == (owner == nullptr ? 0 : 1));
    if (owner != nullptr) model_.setTableData(*owner, data, reserve);
  }

  void getTableData(uint64_t table) {
    const Model::Table* owner = model_.table(table);
    const std::optional<Bytes> expected =
        owner == nullptr ? std::nullopt : model_.tableData(*owner);
    uint32_t length = 0;
    RC_ASSERT(GetTableDataSize(db_, table, &length) == (expected ? 1 : 0));
    RC_ASSERT(length == (expected ? size(*expected) : 0));
    Bytes buffer(size_t{length} + 1);
    const int result = GetTableData(db_, table, buffer.data());
    RC_ASSERT(result == (length > 0 ? 1 : 0));
    if (result == 1) RC_ASSERT(buffer.cut(length) == *expected);
  }

  // ---- records ----

  void addRecord(uint64_t table, const Bytes& data, uint32_t reserve) {
    uint64_t id = 0;
    const int result = AddRecordData(db_, table, data.data(), size(data), reserve, &id);
    Model::Table* owner = model_.table(table);
    RC_ASSERT(result == (owner == nullptr ? 0 : 1));
    if (owner != nullptr) model_.addRecord(*owner, id, data, reserve, now_);
  }

  void assignRecord(uint64_t table, uint64_t id, const Bytes& data, uint32_t reserve) {
    const int result =
        AddRecordData_AssignRecordID(db_, table, data.data(), size(data), reserve, &id);
    Model::Table* owner = model_.table(table);
    RC_ASSERT(result == (owner == nullptr ? 0 : 1));
    if (owner != nullptr) model_.addRecord(*owner, id, data, reserve, now_);
  }

  // Many appends at once must leave the file that as many single ones leave.
  void addBatch(uint64_t table, unsigned count, uint32_t firstSize, uint32_t reserve) {
    SavedPosition saved(db_);
    FoundTable found;
    Model::Table* owner = model_.table(table);
    RC_ASSERT(qvdbase::engine::findTable(db_, table, &found) == (owner != nullptr));
    if (owner == nullptr) return static_cast<void>(saved.restore(0));
    RecordBatch batch(db_, found);
    RC_ASSERT(batch.begin());
    for (unsigned i = 0; i < count; ++i) {
      const Bytes data = pattern(firstSize / (i + 1), seed_ + i);
      BatchRecord record = {{}, now_, now_, size(data), reserve};
      std::copy_n(identifier(i).begin(), 10, record.recordID);
      RC_ASSERT(batch.add(record, data.data()));
      model_.addRecord(*owner, i, data, reserve, now_);
    }
    RC_ASSERT(batch.finish());
    RC_ASSERT(batch.taken() == count);
    RC_ASSERT(saved.restore(1) == 1);
  }

  void modifyRecord(uint64_t table, uint64_t record, const Bytes& data) {
    const int result = ModifyRecordData(db_, table, data.data(), size(data), record, nullptr);
    const std::optional<int64_t> position = target(table, record);
    const bool expected = position.has_value() && !data.empty();
    RC_ASSERT(result == (expected ? 1 : 0));
    if (!expected) return;
    // The one operation that leaves the position behind, when it writes in place.
    if (model_.fits(*position, data)) expectedPosition_ = *position + 55 + size(data);
    model_.modifyRecord(*model_.table(table), *position, data, now_);
  }

  void touchRecord(uint64_t table, uint64_t record) {
    const int result = ModifyOneRecordInfo_LMTime(db_, table, record);
    const std::optional<int64_t> position = target(table, record);
    RC_ASSERT(result == (position ? 1 : 0));
    if (position) model_.touchRecord(*position, now_);
  }

  void deleteRecord(uint64_t table, uint64_t record) {
    const int result = DeleteOneRecord(db_, table, record, nullptr);
    const std::optional<int64_t> position = target(table, record);
    RC_ASSERT(result == (position ? 1 : 0));
    if (position) model_.deleteRecord(*model_.table(table), *position);
  }

  void recordInfo(uint64_t table, uint64_t record) {
    oneRecordInfoP1 info = {};
    const int result = GetOneRecordInfo(db_, table, record, &info, nullptr);
    const std::optional<int64_t> position = target(table, record);
    RC_ASSERT(result == (position ? 1 : 0));
    if (!position) return;
    const RecordFields& expected = model_.recordAt(*position);
    RC_ASSERT(info.tableID == table);
    RC_ASSERT(info.recordID == record);
    RC_ASSERT(info.createTime == expected.createTime);
    RC_ASSERT(info.modifyTime == expected.modifyTime);
    RC_ASSERT(info.dataLength == expected.dataLength);
    RC_ASSERT(info.dataCapacity == expected.dataCapacity);
    RC_ASSERT(info.recordPos == *position);
    RC_ASSERT(info.dataPos == *position + 55);
  }

  void listRecords(uint64_t table) {
    const Model::Table* owner = model_.table(table);
    std::vector<uint64_t> expected;
    if (owner != nullptr) {
      for (const int64_t each : owner->chain) expected.push_back(model_.recordID(each));
    }
    uint32_t count = 99;
    RC_ASSERT(GetNumberOfRecords(db_, table, &count) == (owner == nullptr ? 0 : 1));
    RC_ASSERT(count == expected.size());
    std::vector<uint64_t> list(expected.size() + 1);
    RC_ASSERT(GetRecordUuIDList(db_, table, list.data(), &count) == (owner == nullptr ? 0 : 1));
    RC_ASSERT(count == expected.size());
    list.resize(count);
    RC_ASSERT(list == expected);
  }

  // ---- the database ----

  void setVersion(uint16_t version) {
    RC_ASSERT(SetDBaseVersion(db_, version) == 1);
    model_.setVersion(version);
  }

  void reopen(int permission) {
    RC_ASSERT(CloseDBase(db_) != 0);
    if (asksIndexes_) {
      compareIndexes(qvdb::Mode::read_only, false);
      compareIndexes(qvdb::Mode::read_only, true);
      compareIndexes(qvdb::Mode::exclusive, true);  // which writes the file of indexes
    }
    uint16_t version = 0;
    RC_ASSERT(GetDBaseInfoW(folder_.wide("model.qvd"), nullptr, &version, nullptr) == 1);
    RC_ASSERT(version == decodeHeader(model_.file()).version);
    db_ = OpenDBaseW(folder_.wide("model.qvd"), permission);
    RC_ASSERT(db_ != 0);
    expectedPosition_ = 0;
  }

  // Every lookup, through the layer, by identifiers and by keys: the sizes of the payloads.
  void compareIndexes(qvdb::Mode mode, bool isKept) {
    const auto sizeOf = [](std::span<const std::byte> bytes) {
      return static_cast<uint32_t>(bytes.size());
    };
    qvdb::Database database = qvdb::Database::open(path(), mode);
    for (const qvdb::Table& table : database.tables()) {
      Model::Table& expected = *model_.table(table.id().value);
      const qvdb::RecordIndex index = table.index({.kept = isKept});
      const qvdb::KeyIndex<uint32_t> sizes(table, sizeOf,
                                           {.ordered = true, .kept_as = isKept ? "size" : ""});
      indexesFromFile_ += index.is_from_file() ? 1 : 0;
      keysFromFile_ += sizes.is_from_file() ? 1 : 0;
      // Of records with one identifier and one key a range may deliver one only.
      std::set<std::pair<uint32_t, uint64_t>> keys;
      for (const int64_t position : expected.chain) {
        asked_.insert(model_.recordID(position));
        keys.emplace(model_.recordSize(position), model_.recordID(position));
      }
      for (const uint64_t id : asked_) {
        const auto found = table.find(qvdb::Id{id});
        const auto wanted = model_.findRecord(expected, id);
        RC_ASSERT(found.has_value() == wanted.has_value());
        if (found) RC_ASSERT(found->info().position == *wanted);
      }
      std::set<std::pair<uint32_t, uint64_t>> inOrder;
      for (const auto& [size, record] : sizes.records()) {
        RC_ASSERT(record.info().size == size);
        inOrder.emplace(size, record.id().value);
      }
      RC_ASSERT(inOrder == keys);
      for (const uint32_t size : {0u, 1u, 7u, 20u}) {
        const auto first = keys.lower_bound({size, 0});
        RC_ASSERT(sizes.contains(size) == (first != keys.end() && first->first == size));
      }
    }
  }

  // ---- the end ----

  void compareContents(const ReadDatabase& read) {
    RC_ASSERT(read.tables.size() == model_.tables().size());
    for (size_t i = 0; i < read.tables.size(); ++i) {
      const Model::Table& expected = model_.tables()[i];
      RC_ASSERT(read.tables[i].id == expected.id);
      RC_ASSERT(read.tables[i].records.size() == expected.chain.size());
      for (size_t k = 0; k < expected.chain.size(); ++k) {
        const ReadRecord& record = read.tables[i].records[k];
        RC_ASSERT(record.position == expected.chain[k]);
        RC_ASSERT(record.id == model_.recordID(record.position));
        RC_ASSERT(record.fields.data() == model_.recordAt(record.position).data());
      }
      const auto& data = read.tables[i].data;
      RC_ASSERT(data.has_value() == model_.tableData(expected).has_value());
      if (data) RC_ASSERT(data->data() == *model_.tableData(expected));
    }
  }

  static uint32_t size(const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); }

  TempFolder folder_;
  int16_t db_;
  std::optional<uint64_t> mirrorBudget_;
  bool asksIndexes_ = false;
  std::set<uint64_t> asked_ = {1, kNoSuchID};
  int indexesFromFile_ = 0;
  int keysFromFile_ = 0;
  Model model_;
  static inline thread_local uint32_t now_ = 1000;
  unsigned seed_ = 1;
  int64_t expectedPosition_ = 0;
};

// The host's clock shows the time of the pair that each thread runs, for as long as this exists.
class PairsClock {
 public:
  PairsClock() {
    calls_->time = [] { return static_cast<time_t>(Pair::time()); };
  }

 private:
  ReplacedCalls calls_;
};

}  // namespace qvdbase::test
