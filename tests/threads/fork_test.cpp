// Children of a process with several threads: they have only the thread that made them, and hang on
// no lock that another one held.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <filesystem>

#include "kit/database_fixture.h"
#include "kit/forked.h"
#include "kit/recorded_calls.h"
#include "kit/sanitized.h"
#include "kit/threads.h"
#include "platform/handles/file_views.h"
#include "platform/handles/open_files.h"

namespace qvdbase::test {
namespace {

constexpr unsigned kSecondsBeforeItHangs = 120;  // a child that lasts longer is ended by a signal
constexpr int kChildren = 40;
// The memory of a sanitizer has locks, one of which a thread may hold that is not in the child.
constexpr bool kAllocatorHasLocks = kIsSanitized || kThreadsAreWatched;

class ForkBesideThreads : public DatabaseTest {
 protected:
  // Adds a record and reads it, in any process.
  static bool works(int16_t db, uint64_t table) {
    uint64_t id = 0;
    oneRecordInfoP1 info = {};
    return AddRecordData(db, table, nullptr, 0, 0, &id) == 1 &&
           GetOneRecordInfo(db, table, id, &info, nullptr) == 1;
  }
};

TEST_F(ForkBesideThreads, LeavesTheChildWithoutHeldLocks) {
  if (kAllocatorHasLocks) GTEST_SKIP() << "a sanitizer has locks of its own";
  const int16_t busy = create("busy.qvd");
  const uint64_t busyTable = addTable(busy, "table");
  const WideText opened(folder.u16("opened.qvd"));
  const WideText childs(folder.u16("childs.qvd"));
  close(create("opened.qvd"));
  BusyThread adder([&] { EXPECT_TRUE(works(busy, busyTable)); });
  BusyThread opener([&] {
    const int16_t db = OpenDBaseW(opened, 4);
    EXPECT_GT(db, 0);
    EXPECT_EQ(CloseDBase(db), 1);
  });
  for (int i = 0; i < kChildren; ++i) {
    EXPECT_EQ(inForkedChild([&] {
                ::alarm(kSecondsBeforeItHangs);
                // What the other threads were at work on can be looked at and closed,
                int32_t count = 0;
                if (GetNumberOfTable(busy, &count) != 1 || count != 1) return 1;
                if (CloseDBase(busy) != 1) return 2;
                // and everything else works.
                const int16_t db = CreateDBaseW(childs, "QVdb", 100);
                if (db <= 0) return 3;
                const uint64_t table = AddTable(db, "table");
                if (!works(db, table)) return 4;
                bool worked = false;
                std::thread([&] { worked = works(db, table); }).join();
                return worked && CloseDBase(db) == 1 ? 0 : 5;
              }),
              0);
  }
}

// Whoever was at it is not in the child, which neither waits for a change nor for a look.
TEST_F(ForkBesideThreads, LeavesTheChildNoLookAndNoChange) {
  if (kThreadsAreWatched) GTEST_SKIP() << "the thread sanitizer has locks of its own";
  const int16_t db = create();
  int16_t view = 0;
  ASSERT_TRUE(platform::openView(db, &view));
  const auto inChild = [&](void (*begin)(int16_t), int16_t file) {
    return inForkedChild([&] {
      ::alarm(kSecondsBeforeItHangs);
      begin(file);
      return 0;
    });
  };
  platform::beginChange(db);
  EXPECT_EQ(inChild(platform::beginViewLook, view), 0);
  platform::endChange(db);
  platform::beginViewLook(view);
  EXPECT_EQ(inChild(platform::beginChange, db), 0);
  platform::endViewLook(view);
  EXPECT_TRUE(platform::closeFile(view));
}

// A description that a child shares is replaced by one with a lock of this process alone. A look
// has its lock on that description, too.
TEST_F(ForkBesideThreads, WaitsForLooksBeforeADescriptionIsReplaced) {
  if (!platform::locksPassToChildren()) GTEST_SKIP() << "no description is ever replaced";
  close(create());
  const int16_t db = open(kDefaultFile, 4);
  int16_t view = 0;
  ASSERT_TRUE(platform::openView(db, &view));
  ASSERT_EQ(inForkedChild([] { return 0; }), 0);
  const auto* entry = platform::findOpenFile(db)->entry;
  int replaced = 0;
  {
    RecordedCalls host;
    host.observe([&](Call call) {
      if (call != Call::replaceDescriptor) return;
      ++replaced;
      EXPECT_NE(entry->viewLooks, 0u);
    });
    close(open(kDefaultFile, 3));
  }
  EXPECT_EQ(replaced, 1);
  EXPECT_EQ(entry->viewLooks, 0u);
  EXPECT_TRUE(platform::closeFile(view));
}

TEST_F(ForkBesideThreads, InAFunctionOfTheCallersLeavesTheChildItsCall) {
  if (kAllocatorHasLocks) GTEST_SKIP() << "a sanitizer has locks of its own";
  const int16_t source = create("source.qvd");
  addRecord(source, addTable(source, "table"), bytesOf("record"));
  const int16_t busy = create("busy.qvd");
  const uint64_t table = addTable(busy, "table");
  BusyThread adder([&] { EXPECT_TRUE(works(busy, table)); });
  static std::filesystem::path childsTarget;
  childsTarget = path("childs.qvd");
  const auto forksAndLooks = [](int, int percent, void*) -> uint16_t {
    if (percent != 1) return 1;
    EXPECT_EQ(inForkedChild([] {
                ::alarm(kSecondsBeforeItHangs);
                const int16_t db = CreateDBaseW(WideText(childsTarget.u16string()), "QVdb", 100);
                return db > 0 && AddTable(db, "table") != 0 && CloseDBase(db) == 1 ? 0 : 1;
              }),
              0);
    return 1;
  };
  EXPECT_EQ(PackOneDB2NewW(wide("source.qvd"), wide("target.qvd"), 0, forksAndLooks), 1);
  EXPECT_EQ(database("target.qvd").tables.at(0).records.size(), 1u);
}

}  // namespace
}  // namespace qvdbase::test
