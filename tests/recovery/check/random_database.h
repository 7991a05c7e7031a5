// A database made by random calls of the library, with a record of what became of every block.
#pragma once

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/file_fields.h"
#include "kit/random_seed.h"
#include "kit/temp_folder.h"
#include "kit/test_extent.h"

namespace qvdbase::test {

class RandomDatabase {
 public:
  struct Record {
    uint64_t id = 0;
    Bytes payload;
  };
  struct Table {
    uint64_t id = 0;
    std::string name;
    std::vector<Record> records;  // in chain order
    Bytes data;
    bool hasData = false;
  };
  enum class Fate { superseded, deleted };

  RandomDatabase(TempFolder& folder, const std::string& name, uint64_t seed)
      : path_(folder / name), random_(seed) {
    db_ = CreateDBaseW(folder.wide(name), "QVdb", 100);
    EXPECT_NE(db_, 0);
    addTable();
  }
  ~RandomDatabase() { close(); }
  RandomDatabase(const RandomDatabase&) = delete;
  RandomDatabase& operator=(const RandomDatabase&) = delete;

  void run(int operations) {
    for (int i = 0; i < operations; ++i) step();
  }

  // The three tables that a pack with new identifiers looks into. A category names any records but
  // the last one, which such a pack would not find.
  void addCategories() {
    const uint64_t info = AddTable(db_, "QVrz_Info");
    const uint64_t categories = AddTable(db_, "QVrz_Category");
    const uint64_t records = AddTable(db_, "QVrz_Record");
    std::vector<uint64_t> named;
    for (uint32_t i = below(6); i > 0; --i) named.push_back(addTo(records, payload()));
    addTo(records, payload());
    addTo(info, payload());
    for (uint32_t i = below(4); i > 0; --i) {
      std::shuffle(named.begin(), named.end(), random_);
      Bytes category;
      category.be(8, random_()).fill(64, 0x41).be(4, 1).be(8, 0).be(4, 1).be(8, random_());
      const size_t count = named.empty() ? 0 : below(static_cast<uint32_t>(named.size()));
      category.be(4, count);
      for (size_t n = 0; n < count; ++n) category.be(8, named[n]);
      const Bytes extra = payload();
      addTo(categories, category.be(4, extra.size()).add(extra));
    }
  }

  void close() {
    if (db_ != 0) CloseDBase(db_);
    db_ = 0;
  }

  const std::filesystem::path& path() const { return path_; }
  const std::vector<Table>& tables() const { return tables_; }
  // Every block that is no longer in use, by its position.
  const std::map<int64_t, Fate>& dead() const { return dead_; }

 private:
  uint32_t below(uint32_t limit) {
    return std::uniform_int_distribution<uint32_t>(0, limit - 1)(random_);
  }

  Bytes payload() { return pattern(below(4) == 0 ? below(2000) : below(60), below(1000)); }

  void step() {
    const uint32_t choice = below(100);
    Table& table = tables_[below(static_cast<uint32_t>(tables_.size()))];
    if (choice < 4) return addTable();
    if (choice < 45 || table.records.empty()) return add(&table);
    if (choice < 65) return modify(&table);
    if (choice < 85) return remove(&table);
    if (choice < 90) return touch(table);
    setData(&table);
  }

  void addTable() {
    if (tables_.size() == 31) return;
    const std::string name = "table " + std::to_string(tables_.size());
    const uint64_t id = AddTable(db_, name.c_str());
    EXPECT_NE(id, 0u);
    tables_.push_back({id, name, {}, {}, false});
  }

  void add(Table* table) {
    Record record = {0, payload()};
    const auto size = static_cast<uint32_t>(record.payload.size());
    const uint32_t reserve = below(2) == 0 ? 0 : below(200);
    if (below(3) == 0) {
      record.id = (uint64_t{random_()} << 32 | random_()) | 1;
      EXPECT_EQ(AddRecordData_AssignRecordID(db_, table->id, record.payload.data(), size, reserve,
                                             &record.id),
                1);
    } else {
      EXPECT_EQ(AddRecordData(db_, table->id, record.payload.data(), size, reserve, &record.id), 1);
    }
    table->records.push_back(std::move(record));
  }

  uint64_t addTo(uint64_t table, const Bytes& payload) {
    uint64_t id = 0;
    EXPECT_EQ(AddRecordData(db_, table, payload.data(), static_cast<uint32_t>(payload.size()),
                            below(50), &id),
              1);
    return id;
  }

  Record& any(Table* table) {
    return table->records[below(static_cast<uint32_t>(table->records.size()))];
  }

  int64_t positionOf(const Table& table, const Record& record) {
    oneRecordInfoP1 info = {};
    EXPECT_EQ(GetOneRecordInfo(db_, table.id, record.id, &info, nullptr), 1);
    return info.recordPos;
  }

  void modify(Table* table) {
    Record& record = any(table);
    Bytes next = payload();
    if (next.empty()) return;
    const int64_t before = positionOf(*table, record);
    EXPECT_EQ(ModifyRecordData(db_, table->id, next.data(), static_cast<uint32_t>(next.size()),
                               record.id, nullptr),
              1);
    record.payload = std::move(next);
    if (positionOf(*table, record) != before) dead_[before] = Fate::superseded;
  }

  void remove(Table* table) {
    const size_t i = below(static_cast<uint32_t>(table->records.size()));
    const int64_t before = positionOf(*table, table->records[i]);
    EXPECT_EQ(DeleteOneRecord(db_, table->id, table->records[i].id, nullptr), 1);
    table->records.erase(table->records.begin() + static_cast<std::ptrdiff_t>(i));
    dead_[before] = Fate::deleted;
  }

  void touch(Table& table) {
    EXPECT_EQ(ModifyOneRecordInfo_LMTime(db_, table.id, any(&table).id), 1);
  }

  void setData(Table* table) {
    const int64_t before = dataPosition(*table);
    table->data = payload();
    table->hasData = true;
    EXPECT_EQ(SetTableData(db_, table->id, table->data.data(),
                           static_cast<uint32_t>(table->data.size()), below(100)),
              1);
    if (before != 0 && dataPosition(*table) != before) dead_[before] = Fate::superseded;
  }

  int64_t dataPosition(const Table& table) {
    const auto slot = static_cast<size_t>(&table - tables_.data());
    Bytes bytes(8);
    std::ifstream in(path_, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(slotOffset(slot) + 112));
    in.read(reinterpret_cast<char*>(bytes.data()), 8);
    return static_cast<int64_t>(bytes.leAt(0, 8));
  }

  std::filesystem::path path_;
  std::mt19937 random_;
  int16_t db_ = 0;
  std::vector<Table> tables_;
  std::map<int64_t, Fate> dead_;
};

// The first seed of the random tests of this process; the others follow it.
inline uint64_t firstSeed() {
  static const uint64_t seed = randomSeed();
  return seed;
}

// How many seeds, or places, a family tries.
inline uint64_t seeds(uint64_t sample, uint64_t all) {
  return testEverything() ? all : sample;
}

}  // namespace qvdbase::test
