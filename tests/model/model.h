// What a database must hold after a sequence of operations: the model that random tests compare the
// library with. It keeps the whole file as it must be, byte for byte, built without the library.
//
// Each member function stands for one operation of the C interface, takes what the library cannot
// be told beforehand (the identifiers it made) and says what the library must answer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kit/file_image.h"

namespace qvdbase::test {

class Model {
 public:
  struct Table {
    size_t slot = 0;
    uint64_t id = 0;
    std::vector<int64_t> chain;  // the positions of its records, in order
  };

  // A new database with this header.
  explicit Model(const HeaderFields& header) { image_.header() = header; }

  const std::vector<Table>& tables() const { return tables_; }
  Bytes file() const { return image_.build(); }
  int64_t fileSize() const { return image_.end(); }
  SlotFields& slotOf(const Table& table) { return image_.slot(table.slot); }
  RecordFields& recordAt(int64_t position) { return image_.record(position); }
  uint64_t recordID(int64_t position) { return identifierNumber(recordAt(position).recordID); }

  uint32_t recordSize(int64_t position) { return recordAt(position).dataLength; }

  void setVersion(uint16_t version) { image_.header().version = version; }

  // ---- tables ----

  bool canAddTable(const std::string& name) {
    if (name.empty() || tables_.size() >= 31) return false;
    return findTable(name) == nullptr;
  }

  void addTable(const std::string& name, uint64_t id) {
    tables_.push_back({image_.addTable(name, id), id, {}});
    image_.slot(tables_.back().slot).tableVersion = 100;
  }

  // The first whose stored name equals the whole of the given one.
  const Table* findTable(const std::string& name) {
    for (const Table& each : tables_) {
      if (slotOf(each).name() == name) return &each;
    }
    return nullptr;
  }

  // Null when there is none.
  Table* table(uint64_t id) {
    const auto found =
        std::find_if(tables_.begin(), tables_.end(), [id](const Table& t) { return t.id == id; });
    return found == tables_.end() ? nullptr : &*found;
  }

  // ---- table data ----

  void setTableData(const Table& table, const Bytes& data, uint32_t reserve) {
    const int64_t position = slotOf(table).firstDataPos;
    if (position == 0 || image_.tableData(position).dataCapacity < data.size()) {
      image_.setTableData(table.slot, data, reserve);
      return;
    }
    // In place: the data, an end mark behind them, and the rest of the room as it was.
    TableDataFields& block = image_.tableData(position);
    Bytes roomAndMark = block.room;
    roomAndMark.push_back(block.blockEndMark);
    Bytes written = data;
    written.push_back('i');
    block.room = roomAndMark.with(0, written).cut(block.room.size());
    block.dataLength = static_cast<uint32_t>(data.size());
  }

  // None while the table has no data.
  std::optional<Bytes> tableData(const Table& table) {
    const int64_t position = slotOf(table).firstDataPos;
    if (position == 0) return std::nullopt;
    return image_.tableData(position).data();
  }

  // ---- records ----

  void addRecord(Table& table, uint64_t id, const Bytes& data, uint32_t reserve, uint32_t now) {
    table.chain.push_back(image_.addRecord(
        table.slot, id, data, {.reserve = reserve, .createTime = now, .modifyTime = now}));
  }

  // The position of the first record of that identifier.
  std::optional<int64_t> findRecord(const Table& table, uint64_t id) {
    for (const int64_t position : table.chain) {
      if (recordID(position) == id) return position;
    }
    return std::nullopt;
  }

  // Whether the payload is written over the old one; otherwise the record moves.
  bool fits(int64_t position, const Bytes& data) {
    return data.size() <= recordAt(position).dataCapacity;
  }

  void modifyRecord(Table& table, int64_t position, const Bytes& data, uint32_t now) {
    RecordFields& old = recordAt(position);
    if (fits(position, data)) {
      old.modifyTime = now;
      old.room = old.room.with(0, data);
      old.dataLength = static_cast<uint32_t>(data.size());
      return;
    }
    RecordFields moved = old;
    moved.modifyTime = now;
    moved.room = data;
    moved.dataLength = moved.dataCapacity = static_cast<uint32_t>(data.size());
    const int64_t place = image_.addDeadRecord(moved);
    (moved.prevRecordPos != 0 ? recordAt(moved.prevRecordPos).nextRecordPos
                              : slotOf(table).firstRecordPos) = place;
    (moved.nextRecordPos != 0 ? recordAt(moved.nextRecordPos).prevRecordPos
                              : slotOf(table).lastRecordPos) = place;
    *std::find(table.chain.begin(), table.chain.end(), position) = place;
  }

  void touchRecord(int64_t position, uint32_t now) { recordAt(position).modifyTime = now; }

  void deleteRecord(Table& table, int64_t position) {
    SlotFields& slot = slotOf(table);
    const RecordFields& gone = recordAt(position);
    const int64_t prev = gone.prevRecordPos;
    const int64_t next = gone.nextRecordPos;
    (prev != 0 ? recordAt(prev).nextRecordPos : slot.firstRecordPos) = next;
    (next != 0 ? recordAt(next).prevRecordPos : slot.lastRecordPos) = prev;
    slot.lastWrittenRecordPos = next != 0 ? next : prev;
    --slot.recordCount;
    table.chain.erase(std::find(table.chain.begin(), table.chain.end(), position));
  }

 private:
  FileImage image_;
  std::vector<Table> tables_;
};

}  // namespace qvdbase::test
