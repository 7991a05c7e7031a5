// A process that ends while another of its threads is at work in the library.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "kit/temp_folder.h"
#include "kit/threads.h"

namespace qvdbase::test {
namespace {

// An object of the application, which outlives those of the library: when it is destroyed, a thread
// carries out some more operations.
struct LastObject {
  std::unique_ptr<TempFolder> folder;
  std::atomic<int> operations = 0;
  std::unique_ptr<BusyThread> thread;

  ~LastObject() {
    if (thread == nullptr) return;
    const int before = operations;
    while (operations < before + 100) std::this_thread::yield();
    thread.reset();
  }
};
LastObject lastObject;

// Works on a database, whose tables are in the directory cache, until it is destroyed.
void beginWork() {
  lastObject.folder = std::make_unique<TempFolder>();
  const int16_t db = CreateDBaseW(lastObject.folder->wide("other.qvd"), "QVdb", 100);
  const uint64_t table = AddTable(db, "table");
  lastObject.thread = std::make_unique<BusyThread>([=] {
    uint64_t id = 0;
    if (AddRecordData(db, table, nullptr, 0, 0, &id) != 1) std::_Exit(3);
    if (DeleteOneRecord(db, table, id, nullptr) != 1) std::_Exit(4);
    ++lastObject.operations;
  });
}

TEST(EndOfAProcessDeathTest, LeavesOtherThreadsToTheirWork) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own
  EXPECT_EXIT(
      {
        beginWork();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qvdbase::test
