// How an operation on a whole file ends when its progress function ends it: by returning 0, by
// throwing, or because its thread is cancelled. Throwing is returning 0; in each case nothing stays
// open that the operation opened, and the file layer works as before.
#include <pthread.h>

#include <cstdlib>
#include <stdexcept>

#include "QVDbase/position.h"
#include "kit/layers.h"
#include "kit/maintenance_fixture.h"
#include "kit/reaching_writes.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

enum class Way { returns, throwsError, throwsNumber, cancelled };

// What the operation's caller is left with.
struct Left {
  int result = 4711;
  int status = 4711;
  uint16_t from = 47;
  uint16_t to = 11;
  size_t calls = 0;
  bool wasCancelled = false;
  Bytes source;
  Bytes target;

  bool operator==(const Left&) const = default;
};

struct Operation {
  std::string name;
  bool wantsHandle = false;
  void (*run)(const QVWCHAR* source, const QVWCHAR* target, int16_t db, Left& left);
};
void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

const Operation kOperations[] = {
    {"PackOneDB2NewW", false,
     [](const QVWCHAR* source, const QVWCHAR* target, int16_t, Left& left) {
       left.result = PackOneDB2NewW(source, target, 0, ProgressLog::function);
     }},
    {"PackOneDB2New_WithHandle", false,
     [](const QVWCHAR* source, const QVWCHAR* target, int16_t, Left& left) {
       left.result = PackOneDB2New_WithHandle(source, target, 0, ProgressLog::function, &left.from,
                                              &left.to, &left.status);
     }},
    {"PackOneDB2AllNewUUIDFile", true,
     [](const QVWCHAR*, const QVWCHAR* target, int16_t db, Left& left) {
       left.result = PackOneDB2AllNewUUIDFile(target, db, 0, ProgressLog::function, &left.from,
                                              &left.to, &left.status, nullptr);
     }},
    {"FixOneDBLinkErrorW", false,
     [](const QVWCHAR* source, const QVWCHAR*, int16_t, Left& left) {
       left.result = FixOneDBLinkErrorW(source, ProgressLog::function, 0, nullptr, &left.status);
     }},
};

class Ending : public MaintenanceTest, public testing::WithParamInterface<Operation> {
 protected:
  Ending() {
    allowDamage(kSource);
    allowDamage(kTarget);
    const size_t records = image.addTable("QVrz_Record", 0x101);
    const size_t categories = image.addTable("QVrz_Category", 0x202);
    for (uint64_t i = 0; i < 3; ++i) {
      at.push_back(image.addRecord(records, 0xE1 + i, pattern(5)));
    }
    image.addRecord(categories, 0xC1, category(0xC1, {0xE1, 0xE2}));
    image.record(at[2]).prevRecordPos = 0;  // for the repair
    // Only a database without tables gets beyond the header there.
    if (GetParam().name == "PackOneDB2New_WithHandle") image = FileImage();
  }

  // Lets the call of this index end the operation, on fresh files; -1: none.
  Left run(int stop, Way way) {
    putSource(image);
    removeTarget();
    host.setTime(5000);
    host.setMicroseconds(6000);
    std::srand(1);
    ProgressLog log;
    if (way == Way::returns) log.stopAt = stop;
    log.during = [&](size_t index) {
      if (static_cast<int>(index) != stop) return;
      if (way == Way::throwsError) throw std::runtime_error("no");
      if (way == Way::throwsNumber) throw 5;
      if (way != Way::cancelled) return;
      pthread_cancel(pthread_self());
      pthread_testcancel();
    };
    db_ = GetParam().wantsHandle ? OpenDBaseW(wide(kSource), 1) : int16_t{0};
    if (db_ != 0) seek(db_, 77);
    Left left;
    way == Way::cancelled ? callInThread(left) : call(left);
    left.calls = log.entries.size();
    expectNothingLeft(way);
    left.source = contents(kSource);
    if (targetExists()) left.target = contents(kTarget);
    return left;
  }

  FileImage image;
  std::vector<int64_t> at;
  RecordedCalls host;

 private:
  void call(Left& left) { GetParam().run(wide(kSource), wide(kTarget), db_, left); }

  void callInThread(Left& left) {
    left_ = &left;
    pthread_t thread;
    const auto start = [](void* self) -> void* {
      auto& test = *static_cast<Ending*>(self);
      test.call(*test.left_);
      return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, start, this), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    left.wasCancelled = result == PTHREAD_CANCELED;
  }

  void expectNothingLeft(Way way) {
    if (db_ != 0) {
      EXPECT_EQ(position(db_), way == Way::cancelled ? position(db_) : 77);
      EXPECT_EQ(CloseDBase(db_), 1);
    }
    EXPECT_EQ(host.openDescriptors(), 0u);
    EXPECT_EQ(host.heldBlocks(), 0u);
    expectWritesReachTheFile();
  }

  int16_t db_ = 0;
  Left* left_ = nullptr;
};

TEST_P(Ending, IsTheSameForAFunctionThatReturnsZeroAndForOneThatThrows) {
  const size_t calls = run(-1, Way::returns).calls;
  ASSERT_GE(calls, 2u);
  for (size_t stop = 0; stop < calls; ++stop) {
    SCOPED_TRACE(stop);
    const Left left = run(static_cast<int>(stop), Way::returns);
    EXPECT_EQ(left.calls, stop + 1);
    EXPECT_EQ(run(static_cast<int>(stop), Way::throwsError), left);
    EXPECT_EQ(run(static_cast<int>(stop), Way::throwsNumber), left);
  }
}

TEST_P(Ending, LetsTheCancellationOfItsThreadPassAndClosesItsFiles) {
  const size_t calls = run(-1, Way::returns).calls;
  for (size_t stop = 0; stop < calls; ++stop) {
    SCOPED_TRACE(stop);
    const Left left = run(static_cast<int>(stop), Way::cancelled);
    EXPECT_TRUE(left.wasCancelled);
    EXPECT_EQ(left.result, 4711);
    EXPECT_EQ(left.calls, stop + 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Of, Ending, testing::ValuesIn(kOperations),
                         [](const auto& each) { return each.param.name; });

using SavedCall = DatabaseTest;

TEST_F(SavedCall, CountsAThrowAsZeroAndRestoresThePosition) {
  const int16_t db = create();
  ProgressLog log;
  log.during = [&](size_t) {
    seek(db, 1);
    throw std::runtime_error("no");
  };
  expectPositionKept(
      db, [&] { EXPECT_EQ(SavedCallBack(db, ProgressLog::function, 1, 2, nullptr), 0); });
  EXPECT_EQ(SavedCallBack(0, ProgressLog::function, 1, 2, nullptr), 0);
}

}  // namespace
}  // namespace qvdbase::test
