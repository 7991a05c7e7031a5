// Threads that share a database, through one handle and through several.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>

#include "kit/database_fixture.h"
#include "kit/threads.h"

namespace qvdbase::test {
namespace {

constexpr int kThreads = 4;
constexpr int kRecords = 100;  // of each thread

uint32_t sizeOf(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

class ThreadsOnOneDatabase : public DatabaseTest {
 protected:
  // Adds, changes and deletes records of this thread's own, and looks at them.
  void work(int thread, int16_t db, uint64_t table, std::set<std::string>* left) {
    for (int i = 0; i < kRecords; ++i) {
      const std::string text = std::to_string(thread) + "/" + std::to_string(i);
      const Bytes first = bytesOf(text);
      const Bytes longer = bytesOf(text + " made longer, so that it moves");
      uint64_t id = 0;
      ASSERT_EQ(AddRecordData(db, table, first.data(), sizeOf(first), 0, &id), 1);
      oneRecordInfoP1 info = {};
      ASSERT_EQ(GetOneRecordInfo(db, table, id, &info, nullptr), 1);
      EXPECT_EQ(info.dataLength, first.size());
      ASSERT_EQ(ModifyRecordData(db, table, longer.data(), sizeOf(longer), id, nullptr), 1);
      EXPECT_EQ(ModifyOneRecordInfo_LMTime(db, table, id), 1);
      if (i % 3 == 0) {
        ASSERT_EQ(DeleteOneRecord(db, table, id, nullptr), 1);
        EXPECT_EQ(GetOneRecordInfo(db, table, id, &info, nullptr), 0);
      } else {
        left->insert(text + " made longer, so that it moves");
      }
    }
  }

  void expectRecords(const std::vector<std::set<std::string>>& ofThreads) {
    std::multiset<std::string> expected;
    for (const auto& each : ofThreads) expected.insert(each.begin(), each.end());
    std::multiset<std::string> found;
    std::set<uint64_t> identifiers;
    const ReadDatabase read = database();
    for (const ReadRecord& each : read.tables.at(0).records) {
      const Bytes data = each.fields.data();
      found.emplace(data.begin(), data.end());
      EXPECT_TRUE(identifiers.insert(each.id).second);
    }
    EXPECT_EQ(found, expected);
  }
};

TEST_F(ThreadsOnOneDatabase, LoseNothingThroughOneHandle) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  std::vector<std::set<std::string>> left(kThreads);
  runThreads(kThreads, [&](int i) { work(i, db, table, &left[static_cast<size_t>(i)]); });
  expectRecords(left);
}

TEST_F(ThreadsOnOneDatabase, LoseNothingThroughHandlesOfTheirOwn) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  std::vector<int16_t> handles;
  for (int i = 0; i < kThreads; ++i) handles.push_back(open(kDefaultFile, i % 2 == 0 ? 4 : 0));
  std::vector<std::set<std::string>> left(kThreads);
  runThreads(kThreads, [&](int i) {
    work(i, handles[static_cast<size_t>(i)], table, &left[static_cast<size_t>(i)]);
  });
  expectRecords(left);
}

TEST_F(ThreadsOnOneDatabase, AddTablesThroughOneHandle) {
  const int16_t db = create();
  std::atomic<int> added = 0;
  runThreads(kThreads, [&](int i) {
    for (int k = 0; k < 10; ++k) {
      const std::string name = std::to_string(i) + " " + std::to_string(k);
      const uint64_t table = AddTable(db, name.c_str());
      if (table == 0) continue;
      ++added;
      EXPECT_EQ(FindTableByName(db, name.c_str()), table);
      const Bytes data = bytesOf("data of " + name);
      EXPECT_EQ(SetTableData(db, table, data.data(), sizeOf(data), 0), 1);
    }
  });
  EXPECT_EQ(added, 31);
  const ReadDatabase read = database();
  ASSERT_EQ(read.tables.size(), 31u);
  for (const ReadTable& each : read.tables) {
    ASSERT_TRUE(each.data.has_value());
    EXPECT_EQ(each.data->data(), bytesOf("data of " + each.name));
  }
}

// Each call sees the table between two others: what a reader lists is how the table began.
TEST_F(ThreadsOnOneDatabase, ReadBesideAppenders) {
  constexpr uint32_t kAll = 2 * kRecords;
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  const int16_t readers[] = {open(kDefaultFile, 1), open(kDefaultFile, 1)};
  std::vector<std::vector<uint64_t>> seen(2);
  runThreads(4, [&](int i) {
    if (i < 2) {
      for (int k = 0; k < kRecords; ++k) {
        const Bytes data(static_cast<size_t>(k) * 20);
        uint64_t id = 0;
        ASSERT_EQ(AddRecordData(db, table, data.data(), sizeOf(data), 0, &id), 1);
      }
      return;
    }
    const int16_t reader = readers[i - 2];
    std::vector<uint64_t>& list = seen[static_cast<size_t>(i - 2)];
    for (uint32_t count = 0; count < kAll;) {
      const std::vector<uint64_t> before = list;
      list.assign(kAll, 0);
      ASSERT_EQ(GetRecordUuIDList(reader, table, list.data(), &count), 1);
      list.resize(count);
      ASSERT_GE(list.size(), before.size());
      EXPECT_TRUE(std::equal(before.begin(), before.end(), list.begin()));
      if (count == 0) continue;
      oneRecordInfoP1 info = {};
      ASSERT_EQ(GetOneRecordInfo(reader, table, list.back(), &info, nullptr), 1);
    }
  });
  std::vector<uint64_t> inFile;
  const ReadDatabase read = database();
  for (const ReadRecord& each : read.tables.at(0).records) inFile.push_back(each.id);
  EXPECT_EQ(seen[0], inFile);
  EXPECT_EQ(seen[1], inFile);
}

// A position belongs to its handle: one of each thread's own stays where that thread sets it.
TEST_F(ThreadsOnOneDatabase, KeepThePositionsOfTheirHandles) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  for (int i = 0; i < 20; ++i) addRecord(db, table, bytesOf("record"));
  std::vector<int16_t> handles;
  for (int i = 0; i < kThreads; ++i) handles.push_back(open(kDefaultFile, 1));
  runThreads(kThreads, [&](int i) {
    const int16_t own = handles[static_cast<size_t>(i)];
    for (int64_t position = i; position < 2000; position += kThreads) {
      int64_t found = 0;
      uint32_t count = 0;
      EXPECT_EQ(QVFile().QVSeekFile(own, 1, position), 1);
      EXPECT_EQ(GetNumberOfRecords(own, table, &count), 1);
      EXPECT_EQ(QVFile().QVGetFilePos(own, &found), 1);
      EXPECT_EQ(found, position);
    }
  });
}

}  // namespace
}  // namespace qvdbase::test
