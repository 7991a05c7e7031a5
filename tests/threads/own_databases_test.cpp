// Threads that work on databases of their own: each gets the results that it would get alone.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvrzdb_sub.h>

#include <cstdlib>
#include <map>
#include <string>

#include "kit/database_fixture.h"
#include "kit/threads.h"

namespace qvdbase::test {
namespace {

using ThreadsOnOwnDatabases = DatabaseTest;

constexpr int kThreads = 4;
constexpr int kRounds = 12;

uint16_t goOn(int, int, void*) {
  return 1;
}

Bytes payloadOf(int thread, int number, size_t length) {
  Bytes bytes = bytesOf(std::to_string(thread) + " " + std::to_string(number) + " ");
  while (bytes.size() < length) bytes.push_back(static_cast<uint8_t>(number));
  return bytes;
}

uint32_t sizeOf(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

// One thread's work on one database, with every function of the C interface.
class Worker {
 public:
  Worker(int thread, const std::filesystem::path& folder) : thread_(thread), folder_(folder) {}

  void run() {
    db_ = CreateDBaseW(at("own"), "QVdb", 100);
    ASSERT_GT(db_, 0);
    EXPECT_EQ(SetDBaseVersion(db_, static_cast<uint16_t>(102 + thread_)), 1);
    table_ = AddTable(db_, "records");
    // A pack gives up the data of a table that has records.
    dataTable_ = AddTable(db_, "data");
    ASSERT_NE(dataTable_, 0u);
    for (int round = 0; round < kRounds && !testing::Test::HasFatalFailure(); ++round) {
      changeRecords(round);
      changeTableData(round);
      readRecords();
      readDirectory();
      reopen(round);
    }
    workOnWholeFiles();
    EXPECT_EQ(CloseDBase(db_), 1);
  }

  const std::map<uint64_t, Bytes>& records() const { return records_; }

 private:
  WideText at(const char* name) const {
    const std::string file = name + std::to_string(thread_) + ".qvd";
    return WideText((folder_ / file).u16string());
  }

  void changeRecords(int round) {
    for (int i = 0; i < 6; ++i) {
      const Bytes data = payloadOf(thread_, round * 10 + i, i == 5 ? 70'000 : 30);
      uint64_t id = 0;
      ASSERT_EQ(AddRecordData(db_, table_, data.data(), sizeOf(data), 40, &id), 1);
      EXPECT_TRUE(records_.emplace(id, data).second) << "an identifier was made twice";
    }
    const uint64_t given = 0xABC000u + static_cast<uint64_t>(round);
    const Bytes data = payloadOf(thread_, round, 20);
    EXPECT_EQ(AddRecordData_AssignRecordID(db_, table_, data.data(), sizeOf(data), 0, &given), 1);
    records_[given] = data;
    // In place, and into a new block.
    modify(records_.begin()->first, payloadOf(thread_, round, 25));
    modify(given, payloadOf(thread_, round, 500));
    EXPECT_EQ(ModifyOneRecordInfo_LMTime(db_, table_, given), 1);
    const uint64_t gone = records_.rbegin()->first;
    EXPECT_EQ(DeleteOneRecord(db_, table_, gone, nullptr), 1);
    records_.erase(gone);
  }

  void modify(uint64_t record, const Bytes& data) {
    EXPECT_EQ(ModifyRecordData(db_, table_, data.data(), sizeOf(data), record, nullptr), 1);
    records_[record] = data;
  }

  void changeTableData(int round) {
    const Bytes data = payloadOf(thread_, round, 10 + static_cast<size_t>(round) * 7);
    EXPECT_EQ(SetTableData(db_, dataTable_, data.data(), sizeOf(data), 0), 1);
    uint32_t size = 0;
    EXPECT_EQ(GetTableDataSize(db_, dataTable_, &size), 1);
    ASSERT_EQ(size, data.size());
    Bytes read(size);
    EXPECT_EQ(GetTableData(db_, dataTable_, read.data()), 1);
    EXPECT_EQ(read, data);
  }

  void readRecords() {
    uint32_t count = 0;
    EXPECT_EQ(GetNumberOfRecords(db_, table_, &count), 1);
    ASSERT_EQ(count, records_.size());
    std::vector<uint64_t> list(count);
    EXPECT_EQ(GetRecordUuIDList(db_, table_, list.data(), &count), 1);
    for (const uint64_t id : list) {
      oneRecordInfoP1 info = {};
      ASSERT_EQ(GetOneRecordInfo(db_, table_, id, &info, nullptr), 1);
      Bytes read(info.dataLength);
      uint32_t actual = 0;
      EXPECT_EQ(QVFile().QVSeekFile(db_, 1, info.dataPos), 1);
      EXPECT_EQ(QVFile().QVReadFile(db_, read.data(), info.dataLength, &actual), 1);
      EXPECT_EQ(read, records_.at(id));
    }
  }

  void readDirectory() {
    int32_t count = 0;
    char name[33] = "";
    uint64_t number = 0;
    EXPECT_EQ(GenerateUuID_Int64(&number), 1);
    EXPECT_EQ(FlushDBase(db_), 1);
    EXPECT_EQ(GetNumberOfTable(db_, &count), 1);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(FindTableByName(db_, "records"), table_);
    EXPECT_EQ(GetTableNameAndIDByIndex(db_, 0, name), table_);
    EXPECT_STREQ(name, "records");
    EXPECT_GE(SearchForGDB2TCache(db_), 0);
  }

  void reopen(int round) {
    EXPECT_EQ(CloseDBase(db_), 1);
    uint16_t version = 0;
    EXPECT_EQ(GetDBaseInfoW(at("own"), nullptr, &version, nullptr), 1);
    EXPECT_EQ(version, 102 + thread_);
    db_ = OpenDBaseW(at("own"), round % 2 == 0 ? 3 : 4);
    ASSERT_GT(db_, 0);
  }

  void workOnWholeFiles() {
    uint16_t src = 0;
    uint16_t dst = 0;
    int status = 0;
    EXPECT_EQ(CloseDBase(db_), 1);
    EXPECT_EQ(PackOneDB2NewW(at("own"), at("packed"), 0, goOn), 1);
    EXPECT_EQ(FixOneDBLinkErrorW(at("packed"), goOn, 0, nullptr, &status), 1);
    db_ = OpenDBaseW(at("packed"), 1);
    EXPECT_EQ(CloseDBase(db_), 1);
    EXPECT_EQ(DupFrameForRzbd3W(at("own"), at("frame"), &status), 0);
    // The source stays open, with the lowest number that was free: it is looked for by what it is.
    db_ = OpenDBaseW(at("own"), 4);
    ASSERT_GT(db_, 0);
    // Without the tables that it is made for it fails, after all records are copied.
    EXPECT_EQ(
        PackOneDB2AllNewUUIDFile(at("renumbered"), db_, 0, goOn, &src, &dst, &status, nullptr), 0);
    EXPECT_EQ(PackOneDB2New_WithHandle(at("own"), at("handle"), 0, goOn, &src, &dst, &status), 0);
    const oneRecordInfoP1 noCategory = {};
    qvrzOneCategoryRecord category = {};
    qvrzOneCategoryRecord* out = &category;
    EXPECT_EQ(InternalReadOneRecord2CategoryStruct(db_, &noCategory, &out), 1);
    uint32_t length = 0;
    unsigned char* encoded = InternalPutOneCategory2Buffer(db_, &category, &length);
    EXPECT_NE(encoded, nullptr);
    std::free(encoded);
  }

  int thread_;
  std::filesystem::path folder_;
  int16_t db_ = 0;
  uint64_t table_ = 0;
  uint64_t dataTable_ = 0;
  std::map<uint64_t, Bytes> records_;
};

TEST_F(ThreadsOnOwnDatabases, GetTheResultsThatEachWouldGetAlone) {
  std::vector<Worker> workers;
  for (int i = 0; i < kThreads; ++i) workers.emplace_back(i, folder.path());
  runThreads(kThreads, [&](int i) { workers[static_cast<size_t>(i)].run(); });
  for (int i = 0; i < kThreads; ++i) {
    const std::string name = std::to_string(i) + ".qvd";
    for (const char* const kind : {"own", "packed"}) {
      EXPECT_TRUE(checkFile(contents(kind + name)).empty());
      const ReadDatabase read = database(kind + name);
      ASSERT_EQ(read.tables.size(), 2u);
      std::map<uint64_t, Bytes> records;
      for (const ReadRecord& each : read.tables[0].records) records[each.id] = each.fields.data();
      EXPECT_EQ(records, workers[static_cast<size_t>(i)].records());
    }
    for (const char* const kind : {"frame", "renumbered", "handle"}) allowDamage(kind + name);
  }
  // The sources that the duplications have left open, with what the directory cache has of them.
  for (int16_t file = 1; file < 100; ++file) CloseDBase(file);
}

}  // namespace
}  // namespace qvdbase::test
