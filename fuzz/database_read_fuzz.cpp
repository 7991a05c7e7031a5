// Fuzz target: opens the input as a database for reading, and reads everything in it, through the C
// functions and through the C++ layer.
//
// Every call answers, puts the file position back and asks for no more than the file warrants; the
// file stays as it is, byte for byte.
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/hostile_file.h"

namespace {

using namespace qvdbase::fuzz;

// Lists longer than this are not asked for: the caller provides the memory.
constexpr uint32_t kLongestList = 100'000;
constexpr int64_t kPosition = 77;

void requireAnswer(int16_t db, int result) {
  require(result == 0 || result == 1, "the answer is 0 or 1");
  int64_t position = -1;
  QVFile file;
  require(file.QVGetFilePos(db, &position) == 1 && position == kPosition, "the position is kept");
}

void readTableData(int16_t db, uint64_t table) {
  uint32_t size = 0;
  const int answer = GetTableDataSize(db, table, &size);
  requireAnswer(db, answer);
  if (answer == 0 || size > kLongestList) return;
  const std::unique_ptr<uint8_t[]> buffer(new uint8_t[size]);  // to the byte
  requireAnswer(db, GetTableData(db, table, buffer.get()));
}

void readRecords(int16_t db, uint64_t table) {
  uint32_t count = 0;
  requireAnswer(db, GetNumberOfRecords(db, table, &count));
  if (count > kLongestList) return;
  const std::unique_ptr<uint64_t[]> list(new uint64_t[std::max(count, 1u)]);
  uint32_t stored = 0;
  requireAnswer(db, GetRecordUuIDList(db, table, list.get(), &stored));
  require(stored <= count, "no more records are listed than counted");
  for (uint32_t i = 0; i < std::min(stored, 40u); ++i) {
    oneRecordInfoP1 info = {};
    const int found = GetOneRecordInfo(db, table, list[i], &info, nullptr);
    requireAnswer(db, found);
    require(found == 0 || info.recordID == list[i], "the record asked for is reported");
  }
}

void readWithTheCFunctions(int16_t db, const std::vector<TableNumbers>& tables) {
  QVFile().QVSeekFile(db, 1, kPosition);
  int32_t count = 0;
  requireAnswer(db, GetNumberOfTable(db, &count));
  for (int i = -1; i < 4; ++i) {
    char name[33];
    if (GetTableNameAndIDByIndex(db, i, name) != 0) FindTableByName(db, name);
    requireAnswer(db, 0);
  }
  for (const TableNumbers& each : tables) {
    readTableData(db, each.table);
    readRecords(db, each.table);
    oneRecordInfoP1 info = {};
    requireAnswer(db, GetOneRecordInfo(db, each.table, each.record, &info, nullptr));
    requireAnswer(db, GetOneRecordInfo(db, each.table, 0x99, &info, nullptr));
  }
}

void readTable(const qvdb::Table& table) {
  try {
    table.data();
  } catch (const qvdb::Error&) {
  }
  try {
    int count = 0;
    for (const qvdb::Record& record : table.records()) {
      if (++count > 1000) break;
      if (record.size() <= kLongestList) record.payload();
    }
  } catch (const qvdb::Error&) {
  }
  try {
    int count = 0;
    for (const qvdb::Record& record : table.records(
             {.order = qvdb::Order::newest_first, .load = qvdb::first_bytes(kLongestList)})) {
      if (++count > 1000) break;
      require(record.loaded().size() <= kLongestList, "no more is loaded than was asked for");
    }
  } catch (const qvdb::Error&) {
  }
  try {
    if (const auto last = table.last()) {
      int count = 0;
      for (const qvdb::Record& record :
           table.records({.from = last->info().position, .load = qvdb::Load::payloads})) {
        if (++count > 1000) break;
        require(record.is_loaded() || record.size() > 1024 * 1024, "what fits is loaded");
      }
    }
  } catch (const qvdb::Error&) {
  }
  try {
    table.index();
  } catch (const qvdb::Error&) {
  }
}

void readWithTheClasses(const std::filesystem::path& path) {
  try {
    qvdb::Database::inspect(path);
  } catch (const qvdb::Error&) {
  }
  try {
    const qvdb::Database database = qvdb::Database::open(path);
    const std::vector<qvdb::Table> tables = database.tables();
    for (size_t i = 0; i < std::min<size_t>(tables.size(), 4); ++i) readTable(tables[i]);
  } catch (const qvdb::Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::filesystem::path path = scratchPath("read.qvd");
  writeBytes(path, data, size);
  const std::vector<QVWCHAR> wide = widePath(path);
  {
    const WorkLimits limits(size);
    unsigned char signature[5];
    unsigned char id[10];
    uint16_t version = 0;
    GetDBaseInfoW(wide.data(), signature, &version, id);
    const int16_t db = OpenDBaseW(wide.data(), 1);
    require(db != 0, "any file opens");
    readWithTheCFunctions(db, firstTables(data, size, 4));
    require(CloseDBase(db) != 0, "an open database closes");
    readWithTheClasses(path);
  }
  const std::vector<uint8_t> after = readBytes(path);
  require(after.size() == size && std::equal(after.begin(), after.end(), data),
          "reading changes nothing");
  return 0;
}
