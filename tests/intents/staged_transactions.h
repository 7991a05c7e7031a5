// Transactions for tests: what the C functions make of a file, as the changes that a transaction
// would have gathered, and what a database holds, for comparing.
#pragma once

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "intents/recovery.h"
#include "intents/staged_changes.h"
#include "kit/bytes.h"
#include "kit/file_reader.h"

namespace qvdbase::test {

class BytesReader : public intents::Reader {
 public:
  explicit BytesReader(const Bytes& bytes) : bytes_(bytes) {}
  int64_t size() const override { return static_cast<int64_t>(bytes_.size()); }
  bool read(int64_t position, void* buffer, size_t count) const override {
    std::copy_n(bytes_.begin() + position, count, static_cast<uint8_t*>(buffer));
    return true;
  }

 private:
  const Bytes& bytes_;
};

// What a database holds, table by table, without positions. Throws where a chain is broken.
inline std::vector<std::string> tablesOf(const Bytes& file) {
  std::vector<std::string> tables;
  for (const ReadTable& table : readDatabase(file).tables) {
    std::string text;
    const auto addNumber = [&](uint64_t number) { text += std::to_string(number) += ' '; };
    addNumber(table.id);
    text += table.name + ' ';
    addNumber(table.slot.recordCount);
    addNumber(table.slot.recordWriteCount);
    addNumber(table.slot.dataWriteCount);
    for (const ReadRecord& record : table.records) {
      text += "\n  ";
      addNumber(record.id);
      addNumber(static_cast<uint64_t>(record.fields.createTime));
      addNumber(static_cast<uint64_t>(record.fields.modifyTime));
      text += record.fields.data().str();
    }
    text += '\n';
    if (table.data) text += "  data " + table.data->data().str() + '\n';
    tables.push_back(std::move(text));
  }
  return tables;
}

// The same as one text.
inline std::string contentsOf(const Bytes& file) {
  std::string text;
  for (const std::string& table : tablesOf(file)) text += table;
  return text;
}

// The positions of the links in all record blocks before `end`.
inline std::vector<size_t> linksBefore(const Bytes& file, size_t end) {
  std::vector<size_t> links;
  for (size_t at = 4630; at < end;) {
    if (file[at] == 135) {
      links.push_back(at + 31);
      links.push_back(at + 39);
      at += 56 + file.beAt(at + 51, 4);
    } else {
      at += 22 + file.beAt(at + 17, 4);
    }
  }
  return links;
}

// The changes that lead from one file to another, which has the same blocks and more after them.
// The first `spilled` bytes of these are in the file already.
inline intents::StagedChanges changesBetween(const Bytes& before, const Bytes& after,
                                             size_t spilled = 0) {
  intents::StagedChanges changes;
  changes.base = static_cast<int64_t>(before.size() - spilled);
  changes.spilled = static_cast<int64_t>(spilled);
  changes.blocks.assign(after.begin() + static_cast<std::ptrdiff_t>(before.size()), after.end());
  Bytes explained = before;
  const auto add = [&](size_t at, size_t size) {
    const Bytes old = before.at(at, size);
    const Bytes now = after.at(at, size);
    if (old == now) return;
    changes.patches.push_back({static_cast<int64_t>(at), old, now});
    explained = explained.with(at, now);
  };
  for (const size_t link : linksBefore(before, before.size())) add(link, 8);
  for (size_t slot = 0; slot < 31; ++slot) add(22 + 144 * slot, 144);
  add(16, 2);
  EXPECT_EQ(explained, after.cut(before.size())) << "changed in place";
  return changes;
}

// Random operations on an open database, none of which changes a record of before in place.
class RandomOperations {
 public:
  explicit RandomOperations(uint64_t seed) : random_(seed) {}

  size_t below(size_t count) { return static_cast<size_t>(random_() % count); }

  Bytes payload(size_t least, size_t more) {
    Bytes bytes;
    const size_t size = least + below(more);
    for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>('a' + below(26)));
    return bytes;
  }

  // `now` is what the file holds.
  void oneOperation(int16_t db, const Bytes& now, bool canAddTables = true) {
    const ReadDatabase database = readDatabase(now);
    const ReadTable& table = database.tables[below(database.tables.size())];
    const size_t kind = below(100);
    if (kind < 4 && canAddTables && database.tables.size() < 31) {
      EXPECT_NE(AddTable(db, ("new " + std::to_string(database.tables.size())).c_str()), 0u);
    } else if (kind < 12) {
      const size_t capacity = table.data ? table.data->dataCapacity : 0;
      const Bytes data = payload(capacity + 1, 40);
      EXPECT_EQ(SetTableData(db, table.id, data.data(), static_cast<uint32_t>(data.size()), 0), 1);
    } else if (kind < 45 || table.records.empty()) {
      const Bytes data = below(10) == 0 ? payload(500, 400) : payload(0, 60);
      uint64_t id = 0;
      EXPECT_EQ(
          AddRecordData(db, table.id, data.data(), static_cast<uint32_t>(data.size()), 0, &id), 1);
    } else {
      const size_t last = table.records.size() - 1;
      const size_t choices[] = {0, last, last - (last > 0), below(last + 1)};
      const ReadRecord& record = table.records[choices[below(4)]];
      if (kind < 72) {
        EXPECT_EQ(DeleteOneRecord(db, table.id, record.id, nullptr), 1);
      } else {
        const Bytes data = payload(record.fields.dataCapacity + 1, 80);
        EXPECT_EQ(ModifyRecordData(db, table.id, data.data(), static_cast<uint32_t>(data.size()),
                                   record.id, nullptr),
                  1);
      }
    }
  }

 private:
  std::mt19937_64 random_;
};

}  // namespace qvdbase::test
