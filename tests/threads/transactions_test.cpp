// Transactions of several threads on one database: they take turns, and so do plain operations.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "intents/recovery.h"
#include "intents/staged_transactions.h"
#include "objects/layer_fixture.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

class ThreadsWithTransactions : public LayerTest {
 protected:
  static int numberIn(const qvdb::Table& table, qvdb::Id id) {
    const auto payload = table.get(id);
    return std::stoi(std::string(reinterpret_cast<const char*>(payload->data()), payload->size()));
  }
};

TEST_F(ThreadsWithTransactions, TakeTurns) {
  constexpr int kThreads = 4;
  constexpr int kEach = 40;
  qvdb::Database database = createDatabase();
  qvdb::Table counter = database.add_table("counter");
  qvdb::Table log = database.add_table("log");
  const qvdb::Id id = counter.add("0", 20);
  const qvdb::RecordIndex index = log.index();
  std::atomic<int> committed = 0;
  std::atomic<int> plain = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEach; ++i) {
        if (i % 4 == 3) {
          log.add("plain");
          ++plain;
          continue;
        }
        auto t = database.begin();
        const int before = numberIn(counter, id);
        const uint32_t logged = log.count();
        EXPECT_TRUE(counter.modify(id, std::to_string(before + 1)));
        log.add("in a transaction");
        std::this_thread::yield();
        EXPECT_EQ(log.count(), logged + 1) << "an operation of another thread came between";
        if ((i + thread) % 5 == 0) {
          t.rollback();
          continue;
        }
        t.commit();
        ++committed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(numberIn(counter, id), committed.load());
  EXPECT_EQ(log.count(), static_cast<uint32_t>(committed.load() + plain.load()));
}

TEST_F(ThreadsWithTransactions, AreTakenBackByAnyThread) {
  qvdb::Database database = createDatabase();
  qvdb::Table table = database.add_table("t");
  auto t = database.begin();
  table.add("a");
  std::thread([&] {
    EXPECT_TRUE(t.is_active());
    // Committing is refused: the thread that has begun it may be in the middle of something.
    const auto error = errorOf([&] { t.commit(); });
    EXPECT_EQ(error->reason(), qvdb::Reason::bad_argument);
    t.rollback();
    EXPECT_EQ(table.count(), 0u);
  }).join();
  EXPECT_FALSE(t.is_active());
  expectError(qvdb::Reason::bad_argument, [&] { t.commit(); });
}

TEST_F(ThreadsWithTransactions, WaitNoLongerWhenTheDatabaseIsClosed) {
  qvdb::Database database = createDatabase();
  qvdb::Table table = database.add_table("t");
  auto t = database.begin();
  table.add("a");
  std::atomic<bool> hasBegun = false;
  std::thread waiting([&] {
    hasBegun = true;
    try {
      table.count();
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::not_open);
    }
  });
  while (!hasBegun) std::this_thread::yield();
  database.close();
  waiting.join();
}

// Readers go on beside one, and see what is committed, also before it is in place.
class ThreadsWithReaders : public ThreadsWithTransactions,
                           public testing::WithParamInterface<qvdb::Durability> {};

TEST_P(ThreadsWithReaders, LetThemSeeTheStateBeforeAndAfter) {
  createDatabase().add_table("first");
  qvdb::Database database =
      qvdb::Database::open(path(), {.mode = qvdb::Mode::exclusive, .durability = GetParam()});
  qvdb::Table first = database.table("first");
  const qvdb::Id id = first.add("0", 20);
  std::atomic<bool> isOver = false;
  std::atomic<int> latest = 0;
  std::thread reading([&, reader = database.reader()] {
    const qvdb::Table seen = reader.table("first");
    int last = 0;
    while (!isOver) {
      const int atLeast = latest;
      const int now = numberIn(seen, id);
      EXPECT_GE(now, last);
      EXPECT_GE(now, atLeast);
      last = now;
    }
  });
  for (int i = 1; i <= 200; ++i) {
    database.transaction([&](qvdb::Transaction&) {
      EXPECT_TRUE(first.modify(id, "-1"));
      EXPECT_TRUE(first.modify(id, std::to_string(i)));
    });
    latest = i;
  }
  isOver = true;
  reading.join();
}

INSTANTIATE_TEST_SUITE_P(With, ThreadsWithReaders,
                         testing::Values(qvdb::Durability::process, qvdb::Durability::power,
                                         qvdb::Durability::interval(std::chrono::milliseconds(1))),
                         [](const auto& way) {
                           if (way.param == qvdb::Durability::power) return "Power";
                           return way.param == qvdb::Durability::process ? "Process" : "Interval";
                         });

// Keeps what the file holds when the device is last waited for: that survives a power failure.
class WatchedDevice {
 public:
  WatchedDevice() {
    platform::SystemCalls calls = platform::systemCalls();
    host_ = calls;
    calls.syncData = keep;
    watching_ = calls;
    platform::replaceSystemCalls(&watching_);
  }
  ~WatchedDevice() { platform::replaceSystemCalls(nullptr); }
  WatchedDevice(const WatchedDevice&) = delete;
  WatchedDevice& operator=(const WatchedDevice&) = delete;

  static Bytes onDevice() {
    const std::lock_guard lock(mutex_);
    return onDevice_;
  }

 private:
  static int keep(int descriptor) {
    Bytes now;
    now.resize(static_cast<size_t>(host_.lengthOf(descriptor)));
    const ptrdiff_t got = host_.readAt(descriptor, now.data(), now.size(), 0);
    if (got != static_cast<ptrdiff_t>(now.size())) return -1;
    const int result = host_.syncData(descriptor);
    const std::lock_guard lock(mutex_);
    onDevice_ = now;
    return result;
  }

  static inline platform::SystemCalls host_;
  static inline platform::SystemCalls watching_;
  static inline std::mutex mutex_;
  static inline Bytes onDevice_;
};

TEST_F(ThreadsWithTransactions, FindOnTheDeviceWhatTheyHaveCommitted) {
  constexpr int kThreads = 4;
  constexpr int kEach = 15;
  createDatabase().add_table("t");
  const WatchedDevice device;
  qvdb::Database database = qvdb::Database::open(
      path(), {.mode = qvdb::Mode::exclusive, .durability = qvdb::Durability::power});
  qvdb::Table table = database.table("t");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEach; ++i) {
        const std::string text = "of " + std::to_string(thread) + ", " + std::to_string(i) + ".";
        if (i % 3 == 0) {
          table.add(text);
        } else {
          database.transaction([&](qvdb::Transaction&) {
            table.add(text);
            table.add("with it");
          });
        }
        Bytes file = WatchedDevice::onDevice();
        const intents::RecoveryPlan plan = intents::plan(BytesReader(file));
        EXPECT_TRUE(plan.contradicted.empty());
        for (const intents::PlannedWrite& write : plan.writes) {
          file = file.with(static_cast<size_t>(write.position),
                           Bytes(write.bytes.begin(), write.bytes.end()));
        }
        EXPECT_NE(contentsOf(file).find(bytesOf(text).str()), std::string::npos) << text;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace qvdbase::test
