// Threads that work with a database while one compacts it or backs it up.
#include <algorithm>
#include <functional>
#include <string>
#include <thread>

#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Reason;

constexpr uint64_t kRecords = 50;
constexpr size_t kSize = 9000;  // a payload that is not written in one page

class ThreadsOnAWholeFile : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    database = createDatabase();
    table = database.add_table("t");
    for (uint64_t i = 1; i <= kRecords; ++i) table.add_with_id(Id{i}, std::string(kSize, 'a'));
    table.remove(table.add(std::string(kSize, 'd')));
  }

  // Each payload repeats one letter; every other one would be half of a change.
  static void expectWhole(const qvdb::Table& read) {
    EXPECT_EQ(read.info().record_count, kRecords);
    for (uint64_t i = 1; i <= kRecords; ++i) {
      const auto payload = read.get(Id{i});
      ASSERT_TRUE(payload.has_value()) << i;
      ASSERT_EQ(payload->size(), kSize);
      EXPECT_EQ(std::count(payload->begin(), payload->end(), payload->front()),
                static_cast<ptrdiff_t>(kSize));
    }
  }

  void change(char letter) { EXPECT_TRUE(table.modify(Id{1}, std::string(kSize, letter))); }

  static void inAnotherThread(const std::function<void()>& work) { std::thread(work).join(); }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(ThreadsOnAWholeFile, WaitForItsCompactionAndContinueWithTheNewFile) {
  {
    char letter = 'a';
    const BusyThread writer([&] { change(letter = letter == 'z' ? 'a' : char(letter + 1)); });
    const BusyThread reader([&] { expectWhole(table); });
    for (int round = 0; round < 5; ++round) EXPECT_EQ(database.compact().records, kRecords);
  }
  change('x');
  database.close();
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
  const auto read = openDatabase(qvdb::Mode::read_only);
  expectWhole(read.table("t"));
  EXPECT_EQ(bytes(read.table("t").get(Id{1}).value()), bytesOf(std::string(kSize, 'x')));
}

TEST_F(ThreadsOnAWholeFile, MayReadWhileTheProgressOfItsCompactionIsShown) {
  int calls = 0;
  const auto report = database.compact([&](int) {
    inAnotherThread([&] { expectWhole(table); });
    ++calls;
    return true;
  });
  EXPECT_GT(calls, 0);
  EXPECT_EQ(report.records, kRecords);
  expectWhole(table);
}

TEST_F(ThreadsOnAWholeFile, EndItsCompactionByAChangeMeanwhile) {
  const size_t before = fileSize();
  bool isChanged = false;
  expectError(Reason::in_use, [&] {
    database.compact([&](int) {
      if (!isChanged) inAnotherThread([&] { change('x'); });
      isChanged = true;
      return true;
    });
  });
  EXPECT_TRUE(isChanged);
  EXPECT_EQ(fileSize(), before);  // the old file, with what is dead in it
  EXPECT_EQ(bytes(table.get(Id{1}).value()), bytesOf(std::string(kSize, 'x')));
  EXPECT_EQ(database.compact().records, kRecords);
}

TEST_F(ThreadsOnAWholeFile, ChangeItWhileOneBacksItUp) {
  for (const auto mode : {qvdb::Mode::exclusive, qvdb::Mode::shared}) {
    database.close();
    database = openDatabase(mode);
    table = database.table("t");
    char letter = 'a';
    const BusyThread writer([&] { change(letter = letter == 'z' ? 'a' : char(letter + 1)); });
    for (int round = 0; round < 5; ++round) {
      EXPECT_EQ(database.backup(path("copy.qvd"), {.overwrite = true}).errors, 0u);
      EXPECT_EQ(qvdb::check(path("copy.qvd")).errors, 0u);
      const auto copy = openDatabase(qvdb::Mode::read_only, "copy.qvd");
      expectWhole(copy.table("t"));
    }
  }
}

}  // namespace
}  // namespace qvdbase::test
