// Processes that never rest keep no other one out: how many operations of theirs pass while another
// one waits is counted, not how long that takes.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/replaced_calls.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"
#include "together/board.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;

constexpr std::chrono::seconds kPatience(60);

class Fairness : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    writers_.reserve(2);
  }

  // So that nearly all of the time a change is being made.
  struct SlowWrites : ReplacedCalls {
    SlowWrites() {
      (*this)->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
        platform::hostSystemCalls().pause(20'000);
        return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
      };
    }
  };

  // Processes that change the record again and again, until the end of the test.
  void begin(Mode mode, int count) {
    for (int i = 0; i < count; ++i) {
      writers_.emplace_back([this, mode] {
        const SlowWrites slowly;
        const auto database = qvdb::Database::open(path(), {.mode = mode, .wait = kPatience});
        qvdb::Table table = database.table("t");
        while (!board_->isOver) {
          if (!table.modify(Id{1}, "payload")) return 1;
          ++board_->looks;
        }
        return 0;
      });
    }
    createDatabase().add_table("t").add_with_id(Id{1}, "payload");
    for (ForkedLater& writer : writers_) writer.begin();
    while (board_->looks == 0) platform::hostSystemCalls().pause(1'000);
  }

  void end() {
    board_->isOver = true;
    for (ForkedLater& writer : writers_) EXPECT_EQ(writer.end(), 0);
  }

  void beginAnew() {
    writers_.clear();
    board_->isOver = false;
    board_->looks = 0;
    std::filesystem::remove(path());
  }

  // So that a check takes longer than the writers pause.
  struct SlowReads : ReplacedCalls {
    SlowReads() {
      (*this)->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
        platform::hostSystemCalls().pause(5'000);
        return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
      };
    }
  };

  void expectFoundSound() {
    EXPECT_EQ(qvdb::check(path(), {}, {.wait_milliseconds = 1}).state, qvdb::CheckState::sound);
  }

  void expectFoundSoundBesideWriters() {
    const SlowReads slowly;
    expectFoundSound();
  }

  SharedBoard board_;
  std::vector<ForkedLater> writers_;
};

// About 20 for each look if it had to find the moment between two changes.
TEST_F(Fairness, AReaderWaitsForFewChangesOfAWriterThatNeverRests) {
  constexpr uint32_t kLooks = 30;
  begin(Mode::exclusive, 1);
  const auto database = qvdb::Database::open(path(), {.wait = kPatience});
  const qvdb::Table table = database.table("t");
  const uint32_t before = board_->looks;
  for (uint32_t i = 0; i < kLooks; ++i) EXPECT_EQ(table.count(), 1u);
  EXPECT_LT(board_->looks - before, 8 * kLooks);
  end();
}

TEST_F(Fairness, AWriterWaitsForFewOperationsOfSharedWritersThatNeverRest) {
  constexpr uint32_t kChanges = 30;
  begin(Mode::shared, 2);
  const auto database = qvdb::Database::open(path(), {.mode = Mode::shared, .wait = kPatience});
  qvdb::Table table = database.table("t");
  const uint32_t before = board_->looks;
  for (uint32_t i = 0; i < kChanges; ++i) table.touch(Id{1});
  EXPECT_LT(board_->looks - before, 8 * kChanges);
  end();
}

// They rest for a check, which would not find a moment between two changes.
TEST_F(Fairness, ACheckFindsAFileSoundWhoseWritersNeverRest) {
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    begin(mode, mode == Mode::shared ? 2 : 1);
    expectFoundSoundBesideWriters();
    end();
    beginAnew();
  }
}

// Which waits for the turn of the file.
TEST_F(Fairness, ACheckFindsAFileSoundThatAThreadOfItsProcessChanges) {
  if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    auto database = createDatabase();
    database.add_table("t").add_with_id(Id{1}, "payload");
    database.close();
    const auto changed = openDatabase(mode);
    qvdb::Table table = changed.table("t");
    const SlowReads slowly;
    const BusyThread busy([&] {
      EXPECT_TRUE(table.modify(Id{1}, "payload"));
      platform::hostSystemCalls().pause(1'000);
    });
    expectFoundSound();
    std::filesystem::remove(path());
  }
}

}  // namespace
}  // namespace qvdbase::test
