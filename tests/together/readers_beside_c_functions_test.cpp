// Readers beside a writer that uses the C functions, which takes no part in the turns: what a
// reader meets is counted, and every operation that is repeated comes to the right end.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <atomic>
#include <random>
#include <string>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"
#include "together/board.h"
#include "together/payloads.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;

constexpr uint64_t kStaying = 30;

// Adds, changes by moving, and deletes; payloads are never written over.
int writeByCFunctions(const std::filesystem::path& path, uint64_t seed, int rounds) {
  std::mt19937_64 random(seed);
  const std::u16string wide = qvdb::Database::native_path(path);
  const int16_t db = OpenDBaseW(reinterpret_cast<const QVWCHAR*>(wide.c_str()), 3);
  const uint64_t table = FindTableByName(db, "t");
  if (db == 0 || table == 0) return 1;
  uint32_t extra = 200;
  for (int i = 0; i < rounds; ++i) {
    uint64_t added[2] = {};
    for (uint64_t& id : added) {
      if (AddRecordData(db, table, reinterpret_cast<const unsigned char*>("x"), 1, 0, &id) != 1)
        return 2;
    }
    const uint64_t id = random() % kStaying + 1;
    const std::string payload = payloadOf(id, static_cast<uint32_t>(i), ++extra);
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    if (ModifyRecordData(db, table, bytes, static_cast<uint32_t>(payload.size()), id, nullptr) != 1)
      return 3;
    for (const uint64_t gone : added) {
      if (DeleteOneRecord(db, table, gone, nullptr) != 1) return 4;
    }
  }
  return CloseDBase(db) != 0 ? 0 : 5;
}

struct Met {
  uint64_t asked = 0;
  uint64_t failed = 0;  // and was right when it was repeated
};

// Repeats what fails, for as long as the writer can need to end its call.
template <typename Reading>
void repeat(Met* met, Reading reading) {
  ++met->asked;
  for (int i = 0;; ++i) {
    try {
      if (reading()) return;
    } catch (const qvdb::Error&) {
      if (i == 200) throw;
    }
    if (i == 200) throw std::runtime_error("no right answer");
    ++met->failed;
  }
}

int readBeside(const std::filesystem::path& path, uint64_t seed, const Board& board) {
  std::mt19937_64 random(seed);
  const qvdb::Database database = qvdb::Database::open(path);
  const qvdb::Table table = database.table("t");
  Met met;
  do {
    const Id id{random() % kStaying + 1};
    repeat(&met, [&] {
      const auto payload = table.get(id);
      return payload && isOnePayload(*payload, id.value);
    });
    repeat(&met, [&] {
      uint64_t staying = 0;
      for (const qvdb::Record& record : table.records()) staying += record.id().value <= kStaying;
      return staying == kStaying;
    });
  } while (!board.isOver);
  reportCount("readings beside the C functions", met.asked);
  reportCount("readings beside the C functions that were repeated", met.failed);
  return 0;
}

TEST_F(LayerTest, ReadersBesideTheCFunctionsGetTheRightAnswerWhenTheyAskAgain) {
  const uint64_t seed = randomSeed();
  const SharedBoard board;
  std::vector<ForkedLater> processes;
  for (uint64_t i = 0; i < 2; ++i) {
    processes.emplace_back([&, i] { return readBeside(path(), seed + i, *board); });
  }
  processes.emplace_back([&] {
    const AtEnd end{*board};
    return writeByCFunctions(path(), seed, testEverything() ? 5'000 : 1'000);
  });
  {
    qvdb::Database database = createDatabase();
    qvdb::Table table = database.add_table("t");
    for (uint64_t id = 1; id <= kStaying; ++id) table.add_with_id(Id{id}, payloadOf(id, 0, 100));
  }
  for (ForkedLater& process : processes) process.begin();
  for (ForkedLater& process : processes) EXPECT_EQ(process.end(), 0);
}

}  // namespace
}  // namespace qvdbase::test
