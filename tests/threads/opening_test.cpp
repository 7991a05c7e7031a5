// Threads that open, create and close the same files in a loop.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <atomic>

#include "kit/database_fixture.h"
#include "kit/open_descriptors.h"
#include "kit/threads.h"

namespace qvdbase::test {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 200;

class ThreadsThatOpen : public DatabaseTest {
 protected:
  const WideText file = WideText(folder.u16(kDefaultFile));
};

TEST_F(ThreadsThatOpen, AndCloseLeaveNothingOpen) {
  close(create());
  const int before = openDescriptors();
  runThreads(kThreads, [&](int i) {
    constexpr int kPermissions[] = {4, 1, 0, 4};
    for (int round = 0; round < kRounds; ++round) {
      const int16_t db = OpenDBaseW(file, kPermissions[i]);
      ASSERT_GT(db, 0);
      int32_t count = -1;
      EXPECT_EQ(GetNumberOfTable(db, &count), 1);
      EXPECT_EQ(count, 0);
      EXPECT_EQ(CloseDBase(db), 1);
    }
  });
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(open(), 1) << "a number was not given back";
}

TEST_F(ThreadsThatOpen, ForThemselvesExcludeEachOther) {
  close(create());
  std::atomic<int> holders = 0;
  std::atomic<int> opened = 0;
  runThreads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      const int16_t db = OpenDBaseW(file, 3);
      if (db == 0) continue;
      EXPECT_EQ(++holders, 1);
      ++opened;
      std::this_thread::yield();
      --holders;
      EXPECT_EQ(CloseDBase(db), 1);
    }
  });
  EXPECT_GT(opened, 0);
  EXPECT_GT(open(), 0);
}

TEST_F(ThreadsThatOpen, NeverGetTheSameNumber) {
  close(create());
  std::atomic<bool> isUsed[64] = {};
  runThreads(kThreads, [&](int i) {
    for (int round = 0; round < kRounds; ++round) {
      const int16_t db = OpenDBaseW(file, i == 0 ? 1 : 4);
      ASSERT_GT(db, 0);
      ASSERT_LE(db, kThreads);
      EXPECT_FALSE(isUsed[db].exchange(true)) << "two threads have number " << db;
      isUsed[db] = false;
      EXPECT_EQ(CloseDBase(db), 1);
    }
  });
}

// Whoever creates over a file that is in use fails and changes nothing, whoever opened it when.
TEST_F(ThreadsThatOpen, KeepAFileFromBeingEmptied) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  addRecord(db, table, bytesOf("record"));
  runThreads(kThreads, [&](int i) {
    for (int round = 0; round < kRounds; ++round) {
      if (i == 0) {
        const int16_t reader = OpenDBaseW(file, 1);
        EXPECT_GT(reader, 0);
        EXPECT_EQ(CloseDBase(reader), 1);
      } else {
        EXPECT_EQ(CreateDBaseW(file, "QVdb", 100), 0);
      }
    }
  });
  EXPECT_EQ(numberOfRecords(db, table), 1u);
}

// Between a creation and an opening that meet, the file is whole for either: a reader never has the
// bytes of a file cut off that it has read in.
TEST_F(ThreadsThatOpen, ReadWhatACreationHasLeft) {
  close(create());
  runThreads(kThreads, [&](int i) {
    for (int round = 0; round < kRounds; ++round) {
      if (i == 0) {
        const int16_t db = CreateDBaseW(file, "QVdb", 100);
        if (db > 0) {
          EXPECT_NE(AddTable(db, "table"), 0u);
          EXPECT_EQ(CloseDBase(db), 1);
        }
        continue;
      }
      const int16_t reader = OpenDBaseW(file, 1);
      if (reader == 0) continue;
      int32_t first = 0;
      int32_t second = 0;
      const bool isRead = GetNumberOfTable(reader, &first) == 1;
      // The number of tables stays what it was read as: the file cannot be emptied any more.
      if (isRead) {
        EXPECT_EQ(GetNumberOfTable(reader, &second), 1);
        EXPECT_EQ(second, first);
        char name[33] = "";
        EXPECT_EQ(GetTableNameAndIDByIndex(reader, 0, name) != 0, first == 1);
      }
      EXPECT_EQ(CloseDBase(reader), 1);
    }
  });
  allowDamage(kDefaultFile);
}

// Closing what another thread works with makes its calls fail, and nothing worse.
TEST_F(ThreadsThatOpen, MayCloseWhatOthersWorkOn) {
  for (int round = 0; round < 40; ++round) {
    const int16_t db = CreateDBaseW(file, "QVdb", 100);
    ASSERT_GT(db, 0);
    const uint64_t table = addTable(db, "table");
    runThreads(3, [&](int i) {
      if (i == 0) {
        EXPECT_EQ(CloseDBase(db), 1);
        return;
      }
      for (int k = 0; k < 20; ++k) {
        uint64_t id = 0;
        if (AddRecordData(db, table, nullptr, 0, 0, &id) != 1) break;
      }
    });
    int32_t count = 0;
    EXPECT_EQ(GetNumberOfTable(db, &count), 0);
  }
}

}  // namespace
}  // namespace qvdbase::test
