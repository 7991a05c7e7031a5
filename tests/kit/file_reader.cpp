// What a database file holds, read by the format alone.
#include "kit/file_reader.h"

#include <stdexcept>

namespace qvdbase::test {
namespace {

std::runtime_error unreadable(const std::string& what, int64_t position) {
  return std::runtime_error(what + " at " + std::to_string(position));
}

ReadRecord readRecord(const Bytes& file, const SlotFields& owner, int64_t position) {
  ReadRecord record;
  record.position = position;
  record.fields = decodeRecord(file, position);
  if (record.fields.blockMark != 135 || record.fields.headerSize != 64) {
    throw unreadable("no record block", position);
  }
  if (record.fields.tableID != owner.tableID) throw unreadable("another table's record", position);
  record.id = identifierNumber(record.fields.recordID);
  return record;
}

std::vector<ReadRecord> readChain(const Bytes& file, const SlotFields& owner) {
  std::vector<ReadRecord> records;
  int64_t position = owner.firstRecordPos;
  while (records.size() < owner.recordCount) {
    if (position == 0) throw unreadable("the chain ends early: slot", owner.firstRecordPos);
    records.push_back(readRecord(file, owner, position));
    position = records.back().fields.nextRecordPos;
  }
  if (position != 0) throw unreadable("the last record has a successor", position);
  return records;
}

ReadTable readTable(const Bytes& file, size_t index) {
  ReadTable table;
  table.slot = decodeSlot(file, index);
  table.id = identifierNumber(table.slot.tableID);
  table.name = table.slot.name();
  table.records = readChain(file, table.slot);
  if (table.slot.firstDataPos != 0) table.data = decodeTableData(file, table.slot.firstDataPos);
  return table;
}

}  // namespace

ReadDatabase readDatabase(const Bytes& file) {
  ReadDatabase database;
  database.fileSize = file.size();
  database.header = decodeHeader(file);
  for (int i = 0; i < database.header.tableCount; ++i) {
    database.tables.push_back(readTable(file, static_cast<size_t>(i)));
  }
  return database;
}

ReadDatabase readDatabase(const std::filesystem::path& path) {
  return readDatabase(readFile(path));
}

}  // namespace qvdbase::test
