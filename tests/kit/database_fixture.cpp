// The fixture for tests on databases.
#include "kit/database_fixture.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>

#include <fstream>
#include <utility>

namespace qvdbase::test {
namespace fs = std::filesystem;
namespace {

const unsigned char* bytesOrNull(const Bytes& bytes) {
  return bytes.empty() ? nullptr : bytes.data();
}

uint32_t sizeOf(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

bool startsAsDatabase(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  const int first = in.get();
  const int second = in.get();
  return (first == 'Q' || first == 'q') && (second == 'V' || second == 'v');
}

}  // namespace

fs::path DatabaseTest::path(const std::string& name) const {
  return folder / name;
}

int16_t DatabaseTest::create(const std::string& name, int version) {
  databases_.insert(path(name));
  const int16_t db = CreateDBaseW(wide(name), "QVdb", version);
  EXPECT_NE(db, 0) << "cannot create " << name;
  if (db != 0) open_[db] = name;
  return db;
}

int16_t DatabaseTest::open(const std::string& name, int permission) {
  databases_.insert(path(name));
  const int16_t db = OpenDBaseW(wide(name), permission);
  EXPECT_NE(db, 0) << "cannot open " << name << " with permission " << permission;
  if (db != 0) open_[db] = name;
  return db;
}

int16_t DatabaseTest::put(const FileImage& image, const std::string& name, int permission) {
  return put(image.build(), name, permission);
}

int16_t DatabaseTest::put(const Bytes& content, const std::string& name, int permission) {
  writeFile(path(name), content);
  return open(name, permission);
}

void DatabaseTest::close(int16_t db) {
  open_.erase(db);
  EXPECT_NE(CloseDBase(db), 0) << "handle " << db << " does not close";
}

int16_t DatabaseTest::reopen(int16_t db, int permission) {
  const std::string name = open_.at(db);
  close(db);
  return open(name, permission);
}

Bytes DatabaseTest::contents(const std::string& name) const {
  return readFile(path(name));
}

size_t DatabaseTest::fileSize(const std::string& name) const {
  return static_cast<size_t>(fs::file_size(path(name)));
}

HeaderFields DatabaseTest::header(const std::string& name) const {
  return decodeHeader(contents(name));
}

SlotFields DatabaseTest::slot(size_t index, const std::string& name) const {
  return decodeSlot(contents(name), index);
}

RecordFields DatabaseTest::record(int64_t position, const std::string& name) const {
  return decodeRecord(contents(name), position);
}

TableDataFields DatabaseTest::tableData(int64_t position, const std::string& name) const {
  return decodeTableData(contents(name), position);
}

ReadDatabase DatabaseTest::database(const std::string& name) const {
  return readDatabase(contents(name));
}

uint64_t DatabaseTest::addTable(int16_t db, const std::string& name) {
  const uint64_t table = AddTable(db, name.c_str());
  EXPECT_NE(table, 0u) << "cannot add table " << name;
  return table;
}

void DatabaseTest::setTableData(int16_t db, uint64_t table, const Bytes& data, uint32_t reserve) {
  EXPECT_EQ(SetTableData(db, table, bytesOrNull(data), sizeOf(data), reserve), 1);
}

uint64_t DatabaseTest::addRecord(int16_t db, uint64_t table, const Bytes& payload,
                                 uint32_t reserve) {
  uint64_t id = 0;
  EXPECT_EQ(AddRecordData(db, table, bytesOrNull(payload), sizeOf(payload), reserve, &id), 1);
  return id;
}

void DatabaseTest::assignRecord(int16_t db, uint64_t table, uint64_t id, const Bytes& payload,
                                uint32_t reserve) {
  EXPECT_EQ(
      AddRecordData_AssignRecordID(db, table, bytesOrNull(payload), sizeOf(payload), reserve, &id),
      1);
}

oneRecordInfoP1 DatabaseTest::info(int16_t db, uint64_t table, uint64_t record) {
  oneRecordInfoP1 result{};
  EXPECT_EQ(GetOneRecordInfo(db, table, record, &result, nullptr), 1);
  return result;
}

Bytes DatabaseTest::payload(int16_t db, uint64_t table, uint64_t record) {
  const oneRecordInfoP1 where = info(db, table, record);
  Bytes result(where.dataLength);
  if (result.empty()) return result;
  const int64_t before = position(db);
  seek(db, where.dataPos);
  uint32_t count = 0;
  EXPECT_EQ(QVFile().QVReadFile(db, result.data(), where.dataLength, &count), 1);
  seek(db, before);
  return result;
}

std::vector<uint64_t> DatabaseTest::list(int16_t db, uint64_t table) {
  std::vector<uint64_t> ids(size_t{numberOfRecords(db, table)} + 1);
  uint32_t count = 0;
  EXPECT_EQ(GetRecordUuIDList(db, table, ids.data(), &count), 1);
  EXPECT_EQ(count + 1, ids.size());
  ids.resize(count);
  return ids;
}

uint32_t DatabaseTest::numberOfRecords(int16_t db, uint64_t table) {
  uint32_t count = 0;
  EXPECT_EQ(GetNumberOfRecords(db, table, &count), 1);
  return count;
}

int64_t DatabaseTest::position(int16_t db) {
  int64_t result = -1;
  return QVFile().QVGetFilePos(db, &result) == 1 ? result : -1;
}

void DatabaseTest::seek(int16_t db, int64_t position) {
  EXPECT_EQ(QVFile().QVSeekFile(db, 1, position), 1) << "no seek to " << position;
}

void DatabaseTest::expectDamage(const std::string& name, std::set<std::string> codes) {
  damaged_[path(name)] = std::move(codes);
}

void DatabaseTest::allowDamage(const std::string& name) {
  unchecked_.insert(path(name));
}

void DatabaseTest::TearDown() {
  for (const auto& [db, name] : std::exchange(open_, {})) {
    EXPECT_NE(CloseDBase(db), 0) << "handle " << db << " of " << name << " does not close";
    EXPECT_EQ(SearchForGDB2TCache(db), -1) << "handle " << db << " left a cache entry behind";
  }
  for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
    if (entry.is_regular_file() && startsAsDatabase(entry.path())) databases_.insert(entry.path());
  }
  for (const fs::path& each : databases_) {
    if (!unchecked_.contains(each) && fs::is_regular_file(each)) checkOne(each);
  }
}

void DatabaseTest::checkOne(const fs::path& file) {
  const std::vector<Finding> findings = checkFile(file);
  const auto announced = damaged_.find(file);
  if (announced == damaged_.end()) {
    EXPECT_TRUE(findings.empty()) << file.filename().string() << " is unsound:\n"
                                  << describe(findings);
    return;
  }
  EXPECT_FALSE(findings.empty()) << file.filename().string() << " has no damage, though announced";
  if (announced->second.empty()) return;
  const std::vector<std::string> codes(announced->second.begin(), announced->second.end());
  EXPECT_EQ(codesOf(findings), codes) << file.filename().string() << ":\n" << describe(findings);
}

}  // namespace qvdbase::test
