// Who keeps an operation waiting is named in its error, where the host reports it.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <string>

#include "kit/forked.h"
#include "kit/replaced_calls.h"
#include "objects/layer_fixture.h"
#include "platform/handles/lock_bytes.h"
#include "together/board.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;

class NamedHolders : public LayerTest {
 protected:
  static void waitFor(const std::atomic<uint32_t>& number) {
    while (number == 0) platform::hostSystemCalls().pause(1'000);
  }
  // Where others see who it is, and until the test has ended.
  static void hold(Board& board) {
    board.deleted = static_cast<uint64_t>(::getpid());
    ++board.looks;
    while (!board.isOver) platform::hostSystemCalls().pause(1'000);
  }

  // Another process does `work` until the operation has failed.
  template <typename Work, typename Refused>
  void expectNamed(Mode mode, const std::string& before, const std::string& after, Work work,
                   Refused refused) {
    ForkedLater other([&] {
      work();
      return 0;
    });
    other.begin();
    waitFor(board_->looks);
    {
      const AtEnd end{*board_};
      static uint64_t paused;
      paused = 0;
      ReplacedCalls counted;
      counted->pause = [](uint64_t microseconds) {
        paused += microseconds;
        platform::hostSystemCalls().pause(microseconds);
      };
      const std::string why = expectError(qvdb::Reason::in_use, [&] {
        const auto database =
            qvdb::Database::open(path(), {.mode = mode, .wait = std::chrono::milliseconds(20)});
        qvdb::Table table = database.table("t");
        refused(table);
      });
      const std::string named = before + " (" + std::to_string(board_->deleted);
      EXPECT_NE(why.find(named), std::string::npos) << why;
      EXPECT_NE(why.find(") " + after), std::string::npos) << why;
      EXPECT_LT(paused, 1'000'000u) << "microseconds";
    }
    EXPECT_EQ(other.end(), 0);
  }

  SharedBoard board_;
};

// And not one that only has it open.
TEST_F(NamedHolders, AWriterThatSharesTheFileIsNamedToOthers) {
  ForkedLater idle([&] {
    const auto database = openDatabase(Mode::shared);
    while (!board_->isOver) platform::hostSystemCalls().pause(1'000);
    return 0;
  });
  createDatabase().add_table("t").add_with_id(Id{1}, "payload");
  idle.begin();
  expectNamed(
      Mode::shared, "another writer that shares it", "is in the middle of an operation",
      [&] {
        const auto database = openDatabase(Mode::shared);
        auto appender = database.table("t").appender();
        appender.add("one");
        hold(*board_);
      },
      [](qvdb::Table& table) { table.add("two"); });
  EXPECT_EQ(idle.end(), 0);
}

TEST_F(NamedHolders, AReaderIsNamedToAWriter) {
  createDatabase().add_table("t").add_with_id(Id{1}, "payload");
  expectNamed(
      Mode::exclusive, "a reader in another process", "does not finish",
      [&] {
        const auto database = openDatabase(Mode::read_only);
        const qvdb::Table table = database.table("t");
        static Board* board = &*board_;
        ReplacedCalls calls;
        calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
          hold(*board);
          return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
        };
        table.count();
      },
      [](qvdb::Table& table) { table.modify(Id{1}, "changed"); });
}

// Already when it opens the file, and as soon as it has waited as long as it was to.
TEST_F(NamedHolders, AWriterThatChangesTheFileIsNamedToAReader) {
  createDatabase().add_table("t").add_with_id(Id{1}, "payload");
  // Announced before the change begins.
  const int16_t watching = DatabaseTest::open(kDefaultFile, 1);
  ASSERT_TRUE(platform::announceReader(watching));
  expectNamed(
      Mode::read_only, "another process", "is in the middle of a change of it",
      [&] {
        const auto database = openDatabase(Mode::exclusive);
        qvdb::Table table = database.table("t");
        static Board* board = &*board_;
        ReplacedCalls calls;
        calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
          hold(*board);
          return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
        };
        table.modify(Id{1}, "changed");
      },
      [](qvdb::Table& table) { table.count(); });
}

}  // namespace
}  // namespace qvdbase::test
