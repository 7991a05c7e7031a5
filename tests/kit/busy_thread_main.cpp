// Runs the tests of a program in a process whose second thread works on a database of its own all
// the time. The database has a high number, so that tests find the lower ones free.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <memory>
#include <vector>

#include "kit/other_thread.h"
#include "kit/temp_folder.h"
#include "kit/threads.h"

namespace qvdbase::test {
namespace {

constexpr size_t kNumber = 100;

class AnotherThread : public testing::Environment {
 public:
  void SetUp() override {
    folder_ = std::make_unique<TempFolder>();
    const QVWCHAR* path = folder_->wide("other.qvd");
    std::vector<int16_t> numbers = {CreateDBaseW(path, "QVdb", 100)};
    while (numbers.size() < kNumber) numbers.push_back(OpenDBaseW(path, 4));
    db_ = numbers.back();
    ASSERT_EQ(db_, kNumber);
    numbers.pop_back();
    for (const int16_t each : numbers) ASSERT_EQ(CloseDBase(each), 1);
    table_ = AddTable(db_, "table");
    ASSERT_NE(table_, 0u);
    thread_ = std::make_unique<BusyThread>([this] { step(); });
  }

  void TearDown() override {
    thread_.reset();
    EXPECT_EQ(CloseDBase(db_), 1);
    folder_.reset();
  }

 private:
  // The table keeps one record: what is looked for stays near.
  void step() {
    const std::shared_lock real(realHost());
    uint64_t id = 0;
    uint32_t count = 0;
    oneRecordInfoP1 info = {};
    EXPECT_EQ(AddRecordData(db_, table_, nullptr, 0, 100, &id), 1);
    EXPECT_EQ(GetOneRecordInfo(db_, table_, id, &info, nullptr), 1);
    EXPECT_EQ(GetNumberOfRecords(db_, table_, &count), 1);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(DeleteOneRecord(db_, table_, id, nullptr), 1);
  }

  std::unique_ptr<TempFolder> folder_;
  std::unique_ptr<BusyThread> thread_;
  int16_t db_ = 0;
  uint64_t table_ = 0;
};

}  // namespace
}  // namespace qvdbase::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::AddGlobalTestEnvironment(new qvdbase::test::AnotherThread);  // gtest owns it
  return RUN_ALL_TESTS();
}
