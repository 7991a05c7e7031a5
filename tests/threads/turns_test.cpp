// Who waits for whom: calls on one database take turns, calls on different ones do not wait, and a
// caller's function keeps no other thread waiting.
#include "platform/handles/turns.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <semaphore>
#include <thread>

#include "kit/database_fixture.h"
#include "kit/replaced_calls.h"
#include "kit/threads.h"
#include "platform/handles/open_files.h"

namespace qvdbase::test {
namespace {

// What the functions without a context of their own have to know.
struct Meeting {
  std::binary_semaphore arrived{0};
  std::binary_semaphore mayGoOn{0};
  std::atomic<bool> hasWaited = false;
  static inline Meeting* now = nullptr;

  Meeting() { now = this; }
  ~Meeting() { now = nullptr; }

  // The first time.
  static void waitHere() {
    if (now->hasWaited.exchange(true)) return;
    now->arrived.release();
    now->mayGoOn.acquire();
  }
};

uint16_t waitsAtFirst(int first, int second, void*) {
  EXPECT_TRUE(first == 0 || second == 0) << "no percent and no user data";
  Meeting::waitHere();
  return 1;
}

uint16_t goOn(int, int, void*) {
  return 1;
}

class Turns : public DatabaseTest {
 protected:
  // Much longer than a call takes that waits for nothing.
  static constexpr std::chrono::milliseconds kTimeForACall{20};

  const QVWCHAR* source = wide("source.qvd");
  const QVWCHAR* target = wide("target.qvd");
};

// The call on one database is in the middle of a write while the one on the other is made.
TEST_F(Turns, OfDifferentDatabasesDoNotWaitForEachOther) {
  const int16_t one = create("one.qvd");
  const int16_t other = create("other.qvd");
  Meeting meeting;
  static thread_local bool waits = false;
  ReplacedCalls calls;
  calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
    if (std::exchange(waits, false)) Meeting::waitHere();
    return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
  };
  std::thread slow([one] {
    waits = true;
    EXPECT_NE(AddTable(one, "slow"), 0u);
  });
  meeting.arrived.acquire();
  EXPECT_NE(AddTable(other, "quick"), 0u);
  const int16_t opened = OpenDBaseW(wide("third.qvd"), 3);
  EXPECT_EQ(opened, 0);
  close(create("third.qvd"));
  meeting.mayGoOn.release();
  slow.join();
}

// The second call begins while the first is in the middle of a write, and is made after it.
TEST_F(Turns, OfOneDatabaseAreTakenOneAfterTheOther) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  Meeting meeting;
  static thread_local bool waits = false;
  static std::atomic<int> inside = 0;
  static std::atomic<int> most = 0;
  ReplacedCalls calls;
  calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
    const int now = ++inside;
    if (now > most) most = now;
    if (std::exchange(waits, false)) Meeting::waitHere();
    --inside;
    return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
  };
  const auto add = [&](bool slowly) {
    waits = slowly;
    uint64_t id = 0;
    EXPECT_EQ(AddRecordData(db, table, nullptr, 0, 0, &id), 1);
  };
  std::thread slow(add, true);
  meeting.arrived.acquire();
  std::thread next(add, false);
  std::this_thread::sleep_for(kTimeForACall);
  meeting.mayGoOn.release();
  slow.join();
  next.join();
  EXPECT_EQ(most, 1);
  EXPECT_EQ(numberOfRecords(db, table), 2u);
}

struct WholeFileCall {
  const char* name;
  int (*run)(const QVWCHAR* source, const QVWCHAR* target, QVProgressFunction function);
};

const WholeFileCall kWholeFileCalls[] = {
    {"PackOneDB2NewW",
     [](const QVWCHAR* source, const QVWCHAR* target, QVProgressFunction function) {
       return PackOneDB2NewW(source, target, 0, function);
     }},
    {"PackOneDB2New_WithHandle",
     [](const QVWCHAR* source, const QVWCHAR* target, QVProgressFunction function) {
       uint16_t src = 0;
       uint16_t dst = 0;
       int status = 0;
       return PackOneDB2New_WithHandle(source, target, 0, function, &src, &dst, &status);
     }},
    {"PackOneDB2AllNewUUIDFile",
     [](const QVWCHAR* source, const QVWCHAR* target, QVProgressFunction function) {
       uint16_t src = 0;
       uint16_t dst = 0;
       int status = 0;
       struct Source {
         ~Source() { CloseDBase(db); }
         const int16_t db;
       } const opened{OpenDBaseW(source, 4)};
       return PackOneDB2AllNewUUIDFile(target, opened.db, 0, function, &src, &dst, &status,
                                       nullptr);
     }},
    {"FixOneDBLinkErrorW",
     [](const QVWCHAR* source, const QVWCHAR*, QVProgressFunction function) {
       int result = 0;
       return FixOneDBLinkErrorW(source, function, 0, nullptr, &result);
     }},
};

// While the function of one thread runs, another works on the very database.
TEST_F(Turns, AreGivenUpWhileAFunctionOfTheCallersRuns) {
  for (const WholeFileCall& each : kWholeFileCalls) {
    SCOPED_TRACE(each.name);
    const int16_t db = create("source.qvd");
    const uint64_t table = addTable(db, "table");
    Meeting meeting;
    std::thread whole([&] { each.run(source, target, waitsAtFirst); });
    meeting.arrived.acquire();
    addRecord(db, table, bytesOf("while the other thread waits"));
    EXPECT_EQ(numberOfRecords(db, table), 1u);
    meeting.mayGoOn.release();
    whole.join();
    close(db);
    allowDamage("target.qvd");
  }
}

TEST_F(Turns, AreGivenUpByAThreadThatIsCancelledInItsFunction) {
  for (const WholeFileCall& each : kWholeFileCalls) {
    SCOPED_TRACE(each.name);
    const int16_t db = create("source.qvd");
    addTable(db, "table");
    static const WholeFileCall* call = nullptr;
    static std::array<const QVWCHAR*, 2> paths = {};
    call = &each;
    paths = {source, target};
    const auto run = [](void*) -> void* {
      call->run(paths[0], paths[1], [](int, int, void*) -> uint16_t {
        pthread_cancel(pthread_self());
        pthread_testcancel();
        return 1;
      });
      return nullptr;
    };
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(&thread, nullptr, run, nullptr), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    std::thread([&] { EXPECT_NE(AddTable(db, "another"), 0u); }).join();
    close(db);
    allowDamage("target.qvd");
  }
}

// Each packs its database into the other's: both files are wanted by both, in another order.
TEST_F(Turns, OfTwoFilesAreNeverWaitedForInACircle) {
  const WideText files[] = {WideText(folder.u16("one.qvd")), WideText(folder.u16("two.qvd"))};
  for (const WideText& file : files) {
    const int16_t db = CreateDBaseW(file, "QVdb", 100);
    addRecord(db, addTable(db, "table"), bytesOf("record"));
    close(db);
  }
  std::atomic<int> packed = 0;
  runThreads(4, [&](int i) {
    for (int round = 0; round < 60; ++round) {
      // Either the target is in use, or it was emptied and gets the source's records, or the source
      // was emptied by the other.
      packed += PackOneDB2NewW(files[i % 2], files[1 - i % 2], 0, round % 2 == 0 ? goOn : nullptr);
    }
  });
  RecordProperty("packed", packed);
  allowDamage("one.qvd");
  allowDamage("two.qvd");
}

// A turn that is wanted in addition is got although its owner wants the other one.
TEST_F(Turns, AreExchangedByThreadsThatWantEachOthers) {
  const int16_t numbers[] = {create("one.qvd"), create("two.qvd")};
  std::atomic<int> both = 0;
  runThreads(2, [&](int i) {
    for (int round = 0; round < 2000; ++round) {
      const platform::Turn first(numbers[i]);
      const platform::Turn second(numbers[1 - i]);
      EXPECT_EQ(++both, 1) << "two threads have the same turns";
      --both;
    }
  });
}

TEST_F(Turns, OfANumberThatIsNotInUseKeepItFree) {
  const int16_t next = create();
  close(next);
  std::optional<platform::Turn> turn(std::in_place, next);
  EXPECT_EQ(AddTable(next, "table"), 0u);
  std::atomic<bool> isOpen = false;
  std::thread opener([&] {
    const int16_t db = OpenDBaseW(WideText(folder.u16(kDefaultFile)), 3);
    isOpen = true;
    EXPECT_EQ(db, next);
    EXPECT_EQ(CloseDBase(db), 1);
  });
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(platform::findOpenFile(next), nullptr);
    std::this_thread::yield();
  }
  EXPECT_FALSE(isOpen);
  turn.reset();
  opener.join();
  EXPECT_TRUE(isOpen);
}

// The counts are those of the call that ended last, whichever thread made it.
// As where a database is opened again within an operation.
TEST_F(Turns, OfANumberThatHasBecomeAnotherFilesAreTakenAnew) {
  close(create("one.qvd"));
  close(create("other.qvd"));
  const int16_t number = open("one.qvd");
  const auto isTurnOfAnotherThread = [number] {
    bool isOurs = false;
    std::thread([&] {
      isOurs = platform::isTurnOfAnother(*platform::findOpenFile(number)->turn);
    }).join();
    return isOurs;
  };
  const platform::Turn turn(number);
  {
    const platform::Turn again(number);
    EXPECT_TRUE(isTurnOfAnotherThread());
  }
  EXPECT_TRUE(isTurnOfAnotherThread());
  EXPECT_EQ(CloseDBase(number), 1);
  ASSERT_EQ(open("other.qvd"), number);
  EXPECT_FALSE(isTurnOfAnotherThread());
  const platform::Turn others(number);
  EXPECT_TRUE(isTurnOfAnotherThread());
}

TEST_F(Turns, EndWithTheCountsOfTheirCall) {
  const int16_t db = create();
  EXPECT_EQ(SetDBaseVersion(db, 102), 1);
  EXPECT_EQ(gbl_realWriten, 2u);
  std::thread([db] {
    EXPECT_EQ(gbl_realWriten, 2u);
    EXPECT_NE(AddTable(db, "table"), 0u);
  }).join();
  const uint32_t ofAnother = gbl_realWriten;
  int32_t count = 0;
  EXPECT_EQ(GetNumberOfTable(db, &count), 1);
  EXPECT_EQ(gbl_realWriten, ofAnother);
  gbl_realWriten = 99;
  EXPECT_EQ(GetNumberOfTable(db, &count), 1);
  EXPECT_EQ(gbl_realWriten, 99u);
}

}  // namespace
}  // namespace qvdbase::test
