// Sound databases to be damaged, made by hand by the format; and running the check on bytes.
#pragma once

#include <qvdbase/qvdb/check.hpp>

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/file_image.h"
#include "kit/file_reader.h"

namespace qvdbase::test {

// A database and what the damages need to know of it.
struct BaseFile {
  std::string name;
  Bytes bytes;
  size_t target = 0;  // slot of a table with table data and at least five records
  size_t other = 0;   // slot of another table with at least one record, before or after it
  size_t empty = 0;   // slot of a table without records and without data
  size_t tables = 0;
};

// The present, for files whose times lie shortly before it.
inline constexpr int64_t kNow = 2'000'000;

// 29 tables, so that one slot lies across the border of the first page; links across borders.
inline BaseFile manyTables() {
  FileImage image;
  for (size_t t = 0; t < 29; ++t) image.addTable("table " + std::to_string(t), 0x7700 + t);
  for (size_t i = 0; i < 6; ++i) {
    for (const size_t t : {size_t{5}, size_t{6}, size_t{28}}) {
      image.addRecord(t, 0xA000 + 100 * t + i, pattern(10 + 90 * i, unsigned(t)));
    }
  }
  image.setTableData(5, bytesOf("what table 5 is about"), 40);
  image.setTableData(28, bytesOf("what table 28 is about"));
  return {"ManyTables", image.build(), 5, 28, 7, 29};
}

// Everything that a used file has: reserve, dead blocks of each kind, replaced table data.
inline BaseFile usedFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", 0x1101);
  const size_t blobs = image.addTable("blobs", 0x2202);
  const size_t empty = image.addTable("empty", 0x3303);
  std::vector<int64_t> at;
  for (size_t i = 0; i < 8; ++i) {
    at.push_back(
        image.addRecord(notes, 0xA1 + i, pattern(20 + i, unsigned(i + 1)), {.reserve = 40}));
    image.addRecord(blobs, 0xB1 + i, pattern(300, unsigned(i)));
  }
  image.setTableData(notes, bytesOf("old"));
  // The second record was moved to the end, and the fourth was deleted.
  RecordFields old = image.record(at[1]);
  RecordFields moved = old;
  moved.room = pattern(70, 9);
  moved.dataLength = moved.dataCapacity = 70;
  const int64_t now = image.addDeadRecord(moved);
  image.record(at[0]).nextRecordPos = now;
  image.record(at[2]).prevRecordPos = now;
  image.record(at[2]).nextRecordPos = at[4];
  image.record(at[4]).prevRecordPos = at[2];
  image.slot(notes).recordCount = 7;
  image.slot(notes).lastWrittenRecordPos = at[4];
  image.setTableData(notes, bytesOf("newer"), 30);
  return {"UsedFile", image.build(), notes, blobs, empty, 3};
}

// The payload of a category that lists these records.
inline Bytes category(uint64_t id, const std::vector<uint64_t>& records) {
  Bytes payload;
  payload.be(8, id).fill(64, 0x41).be(4, 1).be(8, 0).be(4, 1).be(8, 0xF1);
  payload.be(4, records.size());
  for (const uint64_t record : records) payload.be(8, record);
  return payload.be(4, 3).text("abc");
}

inline BaseFile categoryFile() {
  FileImage image;
  const size_t info = image.addTable("QVrz_Info", 0x51);
  const size_t categories = image.addTable("QVrz_Category", 0x52);
  const size_t records = image.addTable("QVrz_Record", 0x53);
  const size_t empty = image.addTable("other", 0x54);
  image.addRecord(info, 0xF1, bytesOf("about"));
  for (uint64_t i = 0; i < 9; ++i) image.addRecord(records, 0xE1 + i, pattern(33));
  image.setTableData(records, bytesOf("records"));
  image.addRecord(categories, 0xC1, category(0xC1, {0xE1, 0xE2}));
  image.addRecord(categories, 0xC2, category(0xC2, {}));
  return {"Categories", image.build(), records, categories, empty, 4};
}

// All three, made once.
inline const std::vector<BaseFile>& baseFiles() {
  static const std::vector<BaseFile> files = {manyTables(), usedFile(), categoryFile()};
  return files;
}

// What the check finds in these bytes.
struct Checked {
  qvdb::CheckReport report;
  std::vector<qvdb::Finding> findings;

  std::set<std::string> codes(qvdb::Severity atLeast = qvdb::Severity::information) const {
    std::set<std::string> result;
    for (const qvdb::Finding& each : findings) {
      if (each.severity >= atLeast) result.insert(each.code);
    }
    return result;
  }
  bool has(const std::string& code) const { return codes().contains(code); }
  const qvdb::Finding& first(const std::string& code) const {
    for (const qvdb::Finding& each : findings) {
      if (each.code == code) return each;
    }
    throw std::out_of_range("no finding " + code);
  }
  std::string text() const {
    std::string result;
    for (const qvdb::Finding& each : findings) {
      result += "  " + std::string(to_string(each.severity)) + " " + each.code + " slot " +
                std::to_string(each.slot) + " at " + std::to_string(each.offset) + ": " +
                each.message + "\n";
    }
    return result;
  }
};

inline Checked checkBytes(const Bytes& bytes, qvdb::CheckOptions options = {.now = kNow}) {
  Checked checked;
  checked.report = qvdb::check_image(
      std::as_bytes(std::span(bytes.data(), bytes.size())),
      [&](const qvdb::Finding& finding) { checked.findings.push_back(finding); }, options);
  return checked;
}

inline uint64_t sum(const qvdb::SpaceUse& space) {
  return space.directory + space.records + space.table_data + space.superseded + space.deleted +
         space.unlinked + space.lost + space.orphans + space.unknown;
}

}  // namespace qvdbase::test
