// Threads that share a database with a cache: walks that show payloads where they lie in memory,
// lookups and changes through one Database, and Readers, which read from the file.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>

#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kRecords = 2000;
constexpr int kRounds = 150;

bool isOfOneLetter(std::span<const std::byte> payload) {
  return std::all_of(payload.begin(), payload.end(),
                     [&](std::byte each) { return each == payload.front(); });
}

class ThreadsWithACache : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    database = createDatabase();
    table = database.add_table("t");
    for (uint64_t i = 1; i <= kRecords; ++i) table.add_with_id(qvdb::Id{i}, std::string(100, 'a'));
  }

  static void expectWhole(const qvdb::Table& walked) {
    uint64_t count = 0;
    for (const qvdb::Record& record : walked.records(qvdb::Load::payloads)) {
      EXPECT_TRUE(isOfOneLetter(record.loaded()));
      ++count;
    }
    EXPECT_GE(count, kRecords);
  }

  // One of three works for each round: changes in place and moves, walks, lookups.
  void work(int thread, int round, const qvdb::Table& read) {
    const qvdb::Id id{static_cast<uint64_t>(thread * 7919 + round * 131) % kRecords + 1};
    const auto letter = static_cast<char>('a' + round % 26);
    switch ((thread + round) % 3) {
      case 0:
        table.modify(id, std::string(100, letter));
        if (round % 8 == 0) table.modify(id, std::string(100 + size_t(round), letter));
        if (round % 4 == 0) table.add(std::string(100, letter));
        break;
      case 1:
        if (round % 10 == 1) expectWhole(read);
        break;
      default: {
        const auto payload = read.get(id);
        ASSERT_TRUE(payload);
        EXPECT_TRUE(isOfOneLetter(*payload));
        EXPECT_FALSE(read.contains(qvdb::Id{kRecords * 10}));
      }
    }
  }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(ThreadsWithACache, ReadAndChangeOneDatabase) {
  const qvdb::Cache cache = database.cache();
  const qvdb::RecordIndex index = table.index();
  runThreads(4, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) work(thread, round, table);
  });
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

TEST_F(ThreadsWithACache, ReadThroughReadersToo) {
  const qvdb::Cache cache = database.cache(size_t{256} << 10);
  runThreads(4, [&](int thread) {
    const qvdb::Reader reader = database.reader();
    const qvdb::Table read = reader.table("t");
    const qvdb::RecordIndex index = read.index();
    for (int round = 0; round < kRounds; ++round) work(thread, round, read);
  });
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

TEST_F(ThreadsWithACache, BeginAndEndItWhileOthersRead) {
  const qvdb::RecordIndex index = table.index();
  const BusyThread busy([&] { const qvdb::Cache cache = database.cache(size_t{1} << 20); });
  runThreads(3, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) work(thread, round, table);
  });
}

// The cache follows to the new opening in the turn of that.
TEST_F(ThreadsWithACache, ReadOnWhileOneOpensItAgain) {
  const qvdb::Cache cache = database.cache(size_t{1} << 20);
  const BusyThread busy([&] { database.reopen(); });
  runThreads(3, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      try {
        EXPECT_TRUE(isOfOneLetter(table.get(qvdb::Id{1}).value()));
        table.modify(qvdb::Id{1}, std::string(100, 'b'));
      } catch (const qvdb::Error& error) {
        EXPECT_TRUE(error.reason() == qvdb::Reason::not_open ||
                    error.reason() == qvdb::Reason::changed_meanwhile)
            << error.what();
      }
    }
  });
}

}  // namespace
}  // namespace qvdbase::test
