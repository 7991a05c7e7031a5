// The databases that operations are tried on, made by hand by the format: small ones, one for each
// shape of file in which an operation takes a way of its own.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kit/file_image.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {

inline constexpr uint64_t kStateTable = 0x1101;

struct BaseState {
  std::string name;
  Bytes bytes;
  bool isSound = true;
  uint64_t table = kStateTable;   // the table that is worked on; 0: there is none
  std::vector<uint64_t> records;  // its records, in order
  uint64_t other = 0;             // another table, 0: there is none
};

namespace states {

// Records 0xA1, 0xA2, ... of 20, 21, ... bytes.
inline std::vector<int64_t> addRecords(FileImage& image, size_t table, size_t count,
                                       uint32_t reserve = 0) {
  std::vector<int64_t> at;
  for (size_t i = 0; i < count; ++i) {
    const Bytes payload = pattern(20 + i, static_cast<unsigned>(i + 1));
    at.push_back(image.addRecord(table, 0xA1 + i, payload, {.reserve = reserve}));
  }
  return at;
}

inline std::vector<uint64_t> ids(size_t count) {
  std::vector<uint64_t> result;
  for (size_t i = 0; i < count; ++i) result.push_back(0xA1 + i);
  return result;
}

inline BaseState withoutTables() {
  return {"without tables", FileImage().build(), true, 0, {}, 0};
}

// `count` records in the first of two tables.
inline BaseState withRecords(const std::string& name, size_t count, uint32_t reserve) {
  FileImage image;
  const size_t notes = image.addTable("notes", kStateTable);
  image.addTable("other", 0x2202);
  addRecords(image, notes, count, reserve);
  return {name, image.build(), true, kStateTable, ids(count), 0x2202};
}

// 29 tables: the slot of the last lies across the border of the first page (4,054 to 4,197).
inline BaseState slotAcrossPages() {
  FileImage image;
  for (size_t t = 0; t < 28; ++t) image.addTable("table " + std::to_string(t), 0x7700 + t);
  const size_t last = image.addTable("notes", kStateTable);
  addRecords(image, last, 3);
  image.setTableData(last, bytesOf("data"), 30);
  return {"slot across pages", image.build(), true, kStateTable, ids(3), 0x7705};
}

// 28 tables: the next one added gets that slot.
inline BaseState nextSlotAcrossPages() {
  FileImage image;
  image.addTable("notes", kStateTable);
  for (size_t t = 1; t < 28; ++t) image.addTable("table " + std::to_string(t), 0x7700 + t);
  addRecords(image, 0, 1);
  return {"next slot across pages", image.build(), true, kStateTable, ids(1), 0x7705};
}

// The second of three records begins `before` bytes before the third page, so that one of its
// fields lies across the border.
inline BaseState fieldAcrossPages(const std::string& name, int64_t before) {
  FileImage image;
  const size_t notes = image.addTable("notes", kStateTable);
  const size_t other = image.addTable("other", 0x2202);
  image.addRecord(notes, 0xA1, pattern(20, 1));
  const int64_t space = 8192 - before - image.end() - 56;
  image.addRecord(other, 0xB1, pattern(static_cast<size_t>(space), 7));
  EXPECT_EQ(image.addRecord(notes, 0xA2, pattern(21, 2)), 8192 - before);
  image.addRecord(notes, 0xA3, pattern(22, 3));
  return {name, image.build(), true, kStateTable, ids(3), 0x2202};
}

// The file ends shortly before a page does: whatever is appended lies across the border.
inline BaseState endBeforePage() {
  FileImage image;
  const size_t notes = image.addTable("notes", kStateTable);
  const size_t other = image.addTable("other", 0x2202);
  addRecords(image, notes, 2);
  const int64_t space = 8192 - 40 - image.end() - 56;
  image.addRecord(other, 0xB1, pattern(static_cast<size_t>(space), 7));
  EXPECT_EQ(image.end(), 8192 - 40);
  return {"end before a page", image.build(), true, kStateTable, ids(2), 0x2202};
}

inline BaseState tableDataWithReserve() {
  FileImage image;
  const size_t notes = image.addTable("notes", kStateTable);
  image.addTable("other", 0x2202);
  image.setTableData(notes, bytesOf("what the table is about"), 60);
  addRecords(image, notes, 2, 30);
  return {"table data with reserve", image.build(), true, kStateTable, ids(2), 0x2202};
}

// Relocated and deleted records, replaced table data.
inline BaseState used() {
  return {"used", usedFile().bytes, true, 0x1101, {0xA1, 0xA2, 0xA3, 0xA5, 0xA6, 0xA7, 0xA8},
          0x2202};
}

inline FileImage fiveRecords(std::vector<int64_t>* at) {
  FileImage image;
  const size_t notes = image.addTable("notes", kStateTable);
  image.addTable("other", 0x2202);
  *at = addRecords(image, notes, 5);
  return image;
}

inline BaseState damagedForward() {
  std::vector<int64_t> at;
  FileImage image = fiveRecords(&at);
  image.record(at[2]).nextRecordPos = 0;
  return {"a forward link cleared", image.build(), false, kStateTable, ids(5), 0x2202};
}

inline BaseState damagedBackward() {
  std::vector<int64_t> at;
  FileImage image = fiveRecords(&at);
  image.record(at[3]).prevRecordPos = at[0];
  return {"a back link astray", image.build(), false, kStateTable, ids(5), 0x2202};
}

inline BaseState damagedCount() {
  std::vector<int64_t> at;
  FileImage image = fiveRecords(&at);
  image.slot(0).recordCount = 9;
  image.slot(0).recordWriteCount = 9;
  return {"a count too large", image.build(), false, kStateTable, ids(5), 0x2202};
}

// What an append that was cut off leaves, with the length of a whole block in its header.
inline BaseState tornAppend() {
  std::vector<int64_t> at;
  FileImage image = fiveRecords(&at);
  RecordFields torn;
  torn.tableID = identifier(kStateTable);
  torn.recordID = identifier(0xAF);
  torn.createTime = torn.modifyTime = 1000;
  torn.prevRecordPos = at[4];
  torn.room = pattern(200);
  torn.dataLength = torn.dataCapacity = 200;
  image.addRaw(torn.encode().cut(100));
  return {"a torn append at the end", image.build(), false, kStateTable, ids(5), 0x2202};
}

}  // namespace states

inline std::vector<BaseState> baseStates() {
  using namespace states;
  return {withoutTables(),
          withRecords("an empty table", 0, 0),
          withRecords("one record", 1, 0),
          withRecords("two records", 2, 0),
          withRecords("records with reserve", 4, 400),
          slotAcrossPages(),
          nextSlotAcrossPages(),
          fieldAcrossPages("forward link across pages", 43),
          fieldAcrossPages("back link across pages", 35),
          fieldAcrossPages("modify time across pages", 29),
          endBeforePage(),
          tableDataWithReserve(),
          used(),
          damagedForward(),
          damagedBackward(),
          damagedCount(),
          tornAppend()};
}

}  // namespace qvdbase::test
