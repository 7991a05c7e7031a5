// Threads that share a database of the C++ layer: its tables, records, indexes, walks and batches.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <latch>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include "kit/forked.h"
#include "kit/replaced_calls.h"
#include "kit/sanitized.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/handles/turns.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;
using qvdb::Order;
using qvdb::Reason;
using qvdb::Record;

constexpr int kThreads = 4;
constexpr int kRounds = 100;
constexpr uint64_t kLasting = 200;  // records 1 to this are there all the time
constexpr size_t kLarge = 9000;     // a payload that is not written in one page

class ThreadsOnDatabase : public LayerTest {
 protected:
  void fill() {
    database = createDatabase();
    table = database.add_table("t");
    for (uint64_t i = 1; i <= kLasting; ++i) table.add_with_id(Id{i}, std::string(20, 'x'));
  }

  static Id idOf(int thread, int round) {
    return Id{1000 + static_cast<uint64_t>(thread) * kRounds + static_cast<uint64_t>(round)};
  }

  void expectSound() {
    database.close();
    EXPECT_EQ(qvdb::check(path()).errors, 0u);
  }

  // Each lasting record once, whatever others do.
  static void expectLasting(const std::vector<uint64_t>& ids) {
    std::map<uint64_t, int> times;
    for (const uint64_t id : ids) ++times[id];
    for (const auto& [id, count] : times) EXPECT_EQ(count, 1) << "record " << id;
    for (uint64_t id = 1; id <= kLasting; ++id) EXPECT_EQ(times.count(id), 1u) << "record " << id;
  }

  // Each version of a payload repeats a letter of its own.
  static void expectOneLetter(const qvdb::Table& read, Id id) {
    const auto payload = read.get(id);
    ASSERT_TRUE(payload.has_value());
    ASSERT_FALSE(payload->empty());
    const std::byte first = payload->front();
    EXPECT_TRUE(std::all_of(payload->begin(), payload->end(),
                            [first](std::byte each) { return each == first; }));
  }

  static std::vector<uint64_t> walk(const qvdb::Table& walked, Order order) {
    std::vector<uint64_t> ids;
    auto records = walked.records({.order = order, .load = qvdb::Load::payloads});
    for (const Record& record : records) ids.push_back(record.id().value);
    return ids;
  }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(ThreadsOnDatabase, AddChangeAndDeleteRecords) {
  fill();
  std::vector<std::set<uint64_t>> left(kThreads);
  runThreads(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const std::string text = std::to_string(thread) + "/" + std::to_string(round);
      const Id id = table.add(text);
      EXPECT_TRUE(table.modify(id, text + " made longer, so that it moves"));
      EXPECT_TRUE(table.touch(id));
      const auto found = table.find(id);
      ASSERT_TRUE(found.has_value());
      EXPECT_EQ(found->payload().size(), text.size() + 30);
      if (round % 3 == 0) {
        EXPECT_TRUE(table.remove(*found));
        EXPECT_FALSE(table.contains(id));
      } else {
        left[static_cast<size_t>(thread)].insert(id.value);
      }
    }
  });
  std::set<uint64_t> expected;
  for (const auto& each : left) expected.insert(each.begin(), each.end());
  for (uint64_t id = 1; id <= kLasting; ++id) expected.insert(id);
  const std::vector<uint64_t> found = idsOf(table);
  EXPECT_EQ(std::set<uint64_t>(found.begin(), found.end()), expected);
  EXPECT_EQ(found.size(), expected.size());
  expectSound();
}

TEST_F(ThreadsOnDatabase, AddTablesAndSetTheirData) {
  database = createDatabase();
  runThreads(kThreads, [&](int thread) {
    for (int i = 0; i < 5; ++i) {
      const std::string name = std::to_string(thread) + "/" + std::to_string(i);
      qvdb::Table added = database.add_table(name);
      added.set_data(name);
      added.add(name);
      EXPECT_EQ(database.table(name).data_size(), name.size());
    }
  });
  EXPECT_EQ(database.tables().size(), kThreads * 5u);
  for (const qvdb::Table& each : database.tables()) {
    EXPECT_EQ(bytes(*each.data()), bytesOf(each.name()));
    EXPECT_EQ(each.count(), 1u);
  }
  expectSound();
}

TEST_F(ThreadsOnDatabase, WalkWhileOthersChangeTheTable) {
  fill();
  std::atomic<int> writers = 2;
  runThreads(4, [&](int thread) {
    if (thread >= 2) {
      do expectLasting(walk(table, thread == 2 ? Order::oldest_first : Order::newest_first));
      while (writers != 0);
      return;
    }
    for (int round = 0; round < kRounds; ++round) {
      const Id id = idOf(thread, round);
      table.add_with_id(id, std::string(10, 'a'));
      const Id lasting{1 + static_cast<uint64_t>(round * 2 + thread) % kLasting};
      EXPECT_TRUE(table.modify(lasting, std::string(static_cast<size_t>(21 + round), 'y')));
      if (round % 2 == 0) {
        EXPECT_TRUE(table.remove(id));
      }
    }
    --writers;
  });
  expectSound();
}

// More changes than are kept for the walks, around the record that was delivered last.
TEST_F(ThreadsOnDatabase, WalkFindsItsPlaceAfterManyChangesByAnother) {
  for (const Order order : {Order::oldest_first, Order::newest_first}) {
    fill();
    std::vector<uint64_t> ids;
    auto records = table.records({.order = order});
    for (const Record& record : records) {
      ids.push_back(record.id().value);
      if (ids.size() != kLasting / 2) continue;
      std::thread([&] {
        const uint64_t here = record.id().value;
        const uint64_t before = order == Order::oldest_first ? here - 1 : here + 1;
        const uint64_t next = order == Order::oldest_first ? here + 1 : here - 1;
        table.modify(Id{before}, std::string(100, 'm'));  // moves
        table.remove(Id{here});
        table.modify(Id{next}, std::string(100, 'm'));
        for (int i = 0; i < kRounds; ++i) table.add_with_id(idOf(0, i), "new");
        for (int i = 0; i < kRounds; ++i) table.remove(idOf(0, i));
      }).join();
    }
    expectLasting(ids);
    EXPECT_EQ(ids.size(), kLasting);
    database.close();
    std::filesystem::remove(path());
  }
}

// A payload is its key, and padding after a semicolon.
std::string keyOf(std::string_view text) {
  return std::string(text.substr(0, text.find(';')));
}

// Lasting keys are found all the time, once each, while others move their records and add and
// remove records with keys of their own.
TEST_F(ThreadsOnDatabase, ShareAnIndexOfKeys) {
  database = createDatabase();
  table = database.add_table("t");
  std::vector<Id> ids;
  for (int i = 0; i < 50; ++i) ids.push_back(table.add("lasting " + std::to_string(i % 10) + ";"));
  const qvdb::KeyIndex<std::string> index(table, keyOf, {.ordered = true});
  runThreads(kThreads, [&](int thread) {
    const qvdb::KeyIndex<std::string> own = index;
    for (int round = 0; round < kRounds; ++round) {
      const auto number = static_cast<size_t>(thread * kRounds + round);
      const std::string key = "passing " + std::to_string(number);
      const Id added = table.add(key + ";");
      EXPECT_EQ(own.find(key)->id(), added);
      const size_t moved = number % ids.size();
      EXPECT_TRUE(table.modify(ids[moved], "lasting " + std::to_string(moved % 10) + ";" +
                                               std::string(static_cast<size_t>(round), 'x')));
      EXPECT_TRUE(own.contains("lasting " + std::to_string(round % 10)));
      std::multiset<std::string> found;
      auto lasting = own.prefix("lasting");
      for (const auto& [name, record] : lasting) found.insert(name);
      EXPECT_EQ(found.size(), 50u);
      EXPECT_EQ(found.count("lasting 3"), 5u);
      EXPECT_TRUE(table.remove(added));
      EXPECT_FALSE(own.contains(key));
      if (round % 25 == 0) {
        const qvdb::KeyIndex<std::string> another(table, keyOf);
        EXPECT_TRUE(another.contains("lasting 7"));
      }
    }
  });
  EXPECT_EQ(table.count(), 50u);
  expectSound();
}

// All threads try to add the same keys.
TEST_F(ThreadsOnDatabase, AddEachKeyOfAUniqueIndexOnce) {
  database = createDatabase();
  table = database.add_table("t");
  const qvdb::KeyIndex<std::string> index(table, keyOf, {.unique = true});
  std::atomic<int> added = 0;
  runThreads(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      try {
        const Id id = table.add("key " + std::to_string(round) + ";" + std::to_string(thread));
        ++added;
        EXPECT_TRUE(table.modify(id, "key " + std::to_string(round) + ";" + std::string(50, 'x')));
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), Reason::key_exists) << error.what();
      }
    }
  });
  EXPECT_EQ(added, kRounds);
  EXPECT_EQ(table.count(), static_cast<uint32_t>(kRounds));
  EXPECT_EQ(index.size(), static_cast<size_t>(kRounds));
  expectSound();
}

TEST_F(ThreadsOnDatabase, CallTheLibraryInAFunctionOfKeys) {
  fill();
  const qvdb::KeyIndex<std::string> index(
      table,
      [this](std::string_view text) {
        if (text.starts_with("wait")) {
          std::thread([this] { EXPECT_TRUE(table.touch(Id{1})); }).join();
          EXPECT_TRUE(table.contains(Id{2}));
        }
        return text.starts_with("x") ? std::nullopt : std::optional(keyOf(text));
      },
      {.unique = true});
  runThreads(kThreads, [&](int thread) {
    const std::string key = "wait " + std::to_string(thread);
    const Id id = table.add(key);
    EXPECT_EQ(index.find(key)->id(), id);
    EXPECT_TRUE(table.modify(id, key + ";" + std::string(50, 'x')));
    EXPECT_TRUE(index.contains(key));
  });
  expectSound();
}

TEST_F(ThreadsOnDatabase, ShareAnIndex) {
  fill();
  const qvdb::RecordIndex index = table.index();
  runThreads(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const Id id = idOf(thread, round);
      table.add_with_id(id, "a");
      EXPECT_GE(index.size(), kLasting);
      EXPECT_GT(index.bytes(), 0u);
      EXPECT_TRUE(table.contains(id));
      if (round % 2 == 0) {
        EXPECT_TRUE(table.remove(id));
      }
      EXPECT_EQ(table.contains(id), round % 2 != 0);
    }
  });
  EXPECT_EQ(index.size(), kLasting + kThreads * kRounds / 2);
  expectSound();
}

TEST_F(ThreadsOnDatabase, FindItClosedWhenOneClosesIt) {
  fill();
  std::latch reading(kThreads - 1);
  runThreads(kThreads, [&](int thread) {
    if (thread == 0) {
      reading.wait();
      database.close();
      return;
    }
    bool isFirst = true;
    expectError(Reason::not_open, [&] {
      for (;;) {
        expectLasting(walk(table, Order::oldest_first));
        if (isFirst) reading.count_down();
        isFirst = false;
      }
    });
  });
}

TEST_F(ThreadsOnDatabase, ReadOnWhileOneOpensItAgain) {
  fill();
  std::atomic<bool> isOver = false;
  runThreads(3, [&](int thread) {
    if (thread == 0) {
      for (int i = 0; i < 20; ++i) database.reopen();
      isOver = true;
      return;
    }
    while (!isOver) {
      try {
        expectLasting(walk(table, Order::newest_first));
      } catch (const qvdb::Error& error) {
        EXPECT_TRUE(error.reason() == Reason::not_open ||
                    error.reason() == Reason::changed_meanwhile)
            << error.what();
      }
    }
  });
  expectLasting(idsOf(table));
}

// A reader asks whether the database that it is a view of still is the one that was opened.
TEST_F(ThreadsOnDatabase, ReadThroughReadersWhileOneOpensItAgain) {
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    fill();
    database.close();
    database = openDatabase(mode);
    std::atomic<bool> isOver = false;
    const std::array readers = {database.reader(), database.reader()};
    runThreads(3, [&](int thread) {
      if (thread == 0) {
        for (int i = 0; i < 20; ++i) database.reopen();
        isOver = true;
        return;
      }
      const qvdb::Table read = readers[static_cast<size_t>(thread - 1)].table("t");
      do {
        expectLasting(walk(read, Order::oldest_first));
        EXPECT_EQ(read.count(), kLasting);
      } while (!isOver);
    });
    expectSound();
    std::filesystem::remove(path());
  }
}

// Once the handle of the new opening is seen, all that belongs to it is.
TEST_F(ThreadsOnDatabase, WriteWhileOneOpensItAgain) {
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    fill();
    database.close();
    database = openDatabase(mode);
    table = database.table("t");
    std::atomic<bool> isOver = false;
    std::atomic<uint32_t> added = 0;
    runThreads(3, [&](int thread) {
      if (thread == 0) {
        for (int i = 0; i < 20; ++i) database.reopen();
        isOver = true;
        return;
      }
      while (!isOver) {
        try {
          table.add("y");
          ++added;
        } catch (const qvdb::Error& error) {
          EXPECT_EQ(error.reason(), Reason::not_open) << error.what();
        }
      }
    });
    EXPECT_EQ(table.count(), kLasting + added);
    expectSound();
    std::filesystem::remove(path());
  }
}

TEST_F(ThreadsOnDatabase, AddRecordsUnlessABatchIsOpen) {
  fill();
  std::atomic<uint32_t> added = 0;
  runThreads(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      try {
        if (thread % 2 == 0) {
          table.add("one");
          ++added;
        } else {
          auto bulk = table.appender();
          bulk.add("first");
          bulk.add("second");
          added += bulk.finish();
        }
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), Reason::appender_open) << error.what();
      }
    }
  });
  EXPECT_EQ(table.count(), kLasting + added);
  expectSound();
}

// The batch can only come to its end while the other waits for it.
TEST_F(ThreadsOnDatabase, WaitForABatchOfAnotherOpener) {
  fill();
  database.close();
  database = openDatabase(Mode::shared);
  qvdb::Database other = openDatabase(Mode::shared);
  auto bulk = other.table("t").appender();
  bulk.add("of the batch");
  std::latch waiting(1);
  std::thread adding([&] {
    auto own = database.table("t");
    waiting.count_down();
    EXPECT_NO_THROW(own.add("after it"));
  });
  waiting.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // much longer than adding takes
  EXPECT_EQ(bulk.finish(), 1u);
  adding.join();
  EXPECT_EQ(database.table("t").count(), kLasting + 2);
  other.close();
  expectSound();
}

TEST_F(ThreadsOnDatabase, CallTheLibraryInAPredicate) {
  fill();
  auto other = database.add_table("erased");
  const uint32_t erased = qvdb::erase_if(table, [&](const Record& record) {
    std::thread([&] { other.add(std::to_string(record.id().value)); }).join();
    return record.id().value % 2 == 0;
  });
  EXPECT_EQ(erased, kLasting / 2);
  EXPECT_EQ(other.count(), kLasting);
}

TEST_F(ThreadsOnDatabase, ReadBesideOneAnotherAndAWriter) {
  fill();
  std::atomic<bool> isOver = false;
  runThreads(kThreads, [&](int thread) {
    if (thread == 0) {
      for (int round = 0; round < kRounds; ++round) {
        const Id id = idOf(0, round);
        table.add_with_id(id, std::string(10, 'a'));
        const Id lasting{1 + static_cast<uint64_t>(round) % kLasting};
        const char letter = static_cast<char>('a' + round % 26);
        EXPECT_TRUE(table.modify(lasting, std::string(static_cast<size_t>(round + 20), letter)));
        if (round % 2 == 0) {
          EXPECT_TRUE(table.remove(id));
        }
      }
      isOver = true;
      return;
    }
    const qvdb::Reader reader = database.reader();
    const qvdb::Table read = reader.table("t");
    do {
      expectLasting(walk(read, thread == 1 ? Order::newest_first : Order::oldest_first));
      for (uint64_t id = 1; id <= kLasting; id += 7) expectOneLetter(read, Id{id});
    } while (!isOver);
  });
  expectSound();
}

TEST_F(ThreadsOnDatabase, ReadBesideAnotherOpenerThatWrites) {
  fill();
  database.close();
  qvdb::Database writing = openDatabase(Mode::shared);
  database = openDatabase(Mode::read_only);
  std::atomic<bool> isOver = false;
  runThreads(3, [&](int thread) {
    if (thread == 0) {
      qvdb::Table changed = writing.table("t");
      for (uint64_t id = 1; id <= kLasting; ++id) {
        for (const char letter : {'y', 'z'}) {
          EXPECT_TRUE(changed.modify(Id{id}, std::string(kLarge, letter)));
        }
      }
      isOver = true;
      return;
    }
    const qvdb::Reader reader = database.reader();
    const qvdb::Table read = reader.table("t");
    do {
      EXPECT_EQ(read.count(), kLasting);
      expectLasting(idsOf(read));
      for (uint64_t id = 1; id <= kLasting; id += 7) expectOneLetter(read, Id{id});
    } while (!isOver);
  });
  writing.close();
  expectSound();
}

// A reader that waited for the turn of the database would never come to its end.
TEST_F(ThreadsOnDatabase, ReadWhileTheDatabaseHasItsTurn) {
  fill();
  for (const Mode mode : {Mode::exclusive, Mode::read_only, Mode::shared}) {
    database.close();
    database = openDatabase(mode);
    const qvdb::Reader reader = database.reader();
    const platform::Turn turn(database.handle());
    std::thread([&] { expectLasting(idsOf(reader.table("t"))); }).join();
  }
}

TEST_F(ThreadsOnDatabase, ReadOnAfterTheDatabaseWasClosed) {
  fill();
  qvdb::Reader reader = database.reader();
  qvdb::Table read = reader.table("t");
  const std::string why = expectError(Reason::read_only, [&] { read.add("y"); });
  EXPECT_NE(why.find("a Reader only reads"), std::string::npos) << why;
  expectError(Reason::read_only, [&] { read.remove(Id{1}); });
  table.add_with_id(Id{1000}, "y");
  EXPECT_EQ(read.count(), kLasting + 1);
  database.close();
  expectError(Reason::not_open, [&] { database.reader(); });
  database = openDatabase();  // the lock is gone, the descriptor is not
  database.table("t").remove(Id{1000});
  EXPECT_EQ(idsOf(read).size(), kLasting);
  EXPECT_FALSE(read.contains(Id{1000}));
  reader = qvdb::Reader();
  expectError(Reason::not_open, [&] { read.count(); });
  expectError(Reason::not_open, [&] { reader.tables(); });
}

// What is copied is the file as it is between two calls. Where the copy is compared with it, a
// change meanwhile is reported as such.
TEST_F(ThreadsOnDatabase, CopyAFileThatAnotherThreadChanges) {
  fill();
  database.close();
  database = openDatabase(Mode::shared);
  table = database.table("t");
  const auto unlessChanged = [](const auto& copy) {
    try {
      copy();
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::in_use) << error.what();
    }
  };
  const std::filesystem::path target = path("target.qvd");
  {
    const BusyThread writer([&] { EXPECT_TRUE(table.modify(Id{1}, std::string(20, 'y'))); });
    for (int round = 0; round < 3; ++round) {
      unlessChanged([&] { qvdb::compact(path(), target, {}, {.dry_run = true}); });
      unlessChanged([&] { qvdb::compact(path(), target, {}, {.overwrite = true}); });
      unlessChanged([&] { qvdb::pack(path(), target, {}, {.overwrite = true}); });
      expectError(Reason::table_missing, [&] { qvdb::renumber(path(), path("no.qvd")); });
      expectError(Reason::in_use, [&] { qvdb::mend(path()); });
      expectError(Reason::in_use, [&] { qvdb::repair(path()); });
    }
  }
  expectSound();
}

// One begins when the check has opened the file, and is between two writes until the check has seen
// something that is not sound: then it asks who else has the file. A check that has seen a sound
// one waits for the writer's turn instead, so that the writer does not wait for ever.
TEST_F(ThreadsOnDatabase, AreNotTakenForDamageByACheck) {
  fill();
  static std::atomic<bool> isBetween;
  static std::atomic<bool> wasSeen;
  static std::latch isOpened(1);
  isBetween = wasSeen = false;
  ReplacedCalls calls;
  calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
    if (!isOpened.try_wait()) {
      isOpened.count_down();
      while (!isBetween) std::this_thread::yield();
    }
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  calls->findLock = [](int descriptor, struct flock* lock) {
    if (isBetween) wasSeen = true;
    return platform::hostSystemCalls().findLock(descriptor, lock);
  };
  calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
    const ssize_t done = platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
    isBetween = true;
    for (int pauses = 0; pauses < 1000 && !wasSeen; ++pauses) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done;
  };
  std::thread thread([&] {
    isOpened.wait();
    table.add("a record that is not linked yet");
  });
  EXPECT_EQ(qvdb::check(path(), {}, {.wait_milliseconds = 1}).state, qvdb::CheckState::sound);
  wasSeen = true;
  thread.join();
}

using ForkedDatabase = ThreadsOnDatabase;

TEST_F(ForkedDatabase, IsOnlyReadInTheChild) {
  fill();
  auto bulk = database.add_table("batch").appender();
  EXPECT_EQ(inForkedChild([&] {
              const auto record = table.find(Id{1});
              expectLasting(idsOf(table));
              expectError(Reason::opened_elsewhere, [&] { table.modify(*record, "y"); });
              expectError(Reason::opened_elsewhere, [&] { table.remove(Id{1}); });
              expectError(Reason::opened_elsewhere, [&] { table.touch(Id{1}); });
              expectError(Reason::opened_elsewhere, [&] { table.set_data("y"); });
              expectError(Reason::opened_elsewhere, [&] { database.add_table("u"); });
              expectError(Reason::opened_elsewhere, [&] { database.set_version(101); });
              expectError(Reason::opened_elsewhere, [&] { bulk.add("y"); });
              expectError(Reason::opened_elsewhere, [&] { bulk.finish(); });
              const std::string why =
                  expectError(Reason::opened_elsewhere, [&] { table.add("y"); });
              expectError(Reason::in_use, [&] { database.reopen(); });  // the parent has it
              EXPECT_NE(why.find("child"), std::string::npos) << why;
              return HasFailure() ? 1 : 0;
            }),
            0);
  bulk.add("of the parent");
  EXPECT_EQ(bulk.finish(), 1u);
  table.add("of the parent");
  EXPECT_EQ(table.count(), kLasting + 1);
  expectSound();
}

// Each payload is one letter, so that a mixture is seen.
TEST_F(ForkedDatabase, IsReadInTheChildWhileTheParentChangesIt) {
  constexpr size_t kSize = 200'000;
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    fill();
    table.add_with_id(Id{1000}, std::string(kSize, 'a'));
    database.close();
    database = openDatabase(mode);
    table = database.table("t");
    const qvdb::Reader reader = database.reader();
    const pid_t child = ::fork();
    if (child == 0) {
      beTheChild([&] {
        const qvdb::Table viewed = reader.table("t");
        for (int round = 0; round < kRounds; ++round) {
          const qvdb::Table& read = round % 2 == 0 ? table : viewed;
          const std::vector<std::byte> payload = read.get(Id{1000}).value();
          const bool isWhole = payload == std::vector<std::byte>(kSize, payload.at(0));
          EXPECT_TRUE(isWhole);
          expectLasting(walk(read, Order::oldest_first));
          qvdb::check_ends(database, table.id());
        }
        return HasFailure() ? 1 : 0;
      });
    }
    int status = 0;
    for (int round = 0; ::waitpid(child, &status, WNOHANG) == 0; ++round) {
      table.modify(Id{1000}, std::string(kSize, static_cast<char>('a' + round % 26)));
      table.add_with_id(Id{2000}, "passing");
      table.remove(Id{2000});
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // or readers hardly get a look
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    expectSound();
    std::filesystem::remove(path());
  }
}

// What the child opens itself is in one entry with what it has got from its parent. The parent
// begins when that is open: a change that had begun before could take longer than a reader waits
// for it.
TEST_F(ForkedDatabase, IsOpenedByTheChildForLocksOfItsOwn) {
  constexpr size_t kSize = 4'000'000;
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    fill();
    table.add_with_id(Id{1000}, std::string(kSize, 'a'));
    database.close();
    database = openDatabase(mode);
    table = database.table("t");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      beTheChild([&] {
        const qvdb::Database own = openDatabase(Mode::read_only);
        if (::write(ready[1], "r", 1) != 1) return 2;
        const qvdb::Table opened = own.table("t");
        const qvdb::Reader reader = own.reader();
        const qvdb::Table viewed = reader.table("t");
        for (int round = 0; round < 30; ++round) {
          const qvdb::Table& read = round % 3 == 0 ? opened : round % 3 == 1 ? viewed : table;
          const std::vector<std::byte> payload = read.get(Id{1000}).value();
          EXPECT_EQ(payload.size(), kSize);
          const bool isWhole = std::memcmp(&payload[0], &payload[1], kSize - 1) == 0;
          EXPECT_TRUE(isWhole);
        }
        return HasFailure() ? 1 : 0;
      });
    }
    ::close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    int status = 0;
    for (int round = 0; ::waitpid(child, &status, WNOHANG) == 0; ++round) {
      table.modify(Id{1000}, std::string(kSize, static_cast<char>('a' + round % 26)));
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    expectSound();
    std::filesystem::remove(path());
  }
}

TEST_F(ForkedDatabase, LeavesTheTurnToTheAppenderThatTheChildHasOpened) {
  fill();
  database.close();
  database = openDatabase(Mode::shared);
  table = database.table("t");
  EXPECT_EQ(inForkedChild([&] {
              qvdb::Database own = openDatabase(Mode::shared);
              auto appender = own.table("t").appender();
              EXPECT_EQ(table.count(), kLasting);  // what it has got from its parent
              qvdb::Database second = qvdb::Database::open(
                  path(), {.mode = Mode::shared, .wait = std::chrono::milliseconds(20)});
              expectError(Reason::in_use, [&] { second.table("t").add("between"); });
              appender.add("of the appender");
              EXPECT_EQ(appender.finish(), 1u);
              EXPECT_NO_THROW(second.table("t").add("after it"));
              return HasFailure() ? 1 : 0;
            }),
            0);
  EXPECT_EQ(table.count(), kLasting + 2);
  expectSound();
}

// Writers ask before each change whether another process has announced a reader.
TEST_F(ForkedDatabase, SeesTheReadersThatItsChildHasOpened) {
  fill();
  const int16_t watching = DatabaseTest::open(kDefaultFile, 1);
  int opened[2];
  int seen[2];
  ASSERT_EQ(::pipe(opened), 0);
  ASSERT_EQ(::pipe(seen), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    beTheChild([&] {
      ::close(seen[1]);
      const qvdb::Database own = openDatabase(Mode::read_only);
      char byte = 0;
      if (::write(opened[1], &byte, 1) != 1) return 1;
      return ::read(seen[0], &byte, 1) == 0 ? 0 : 2;
    });
  }
  ::close(opened[1]);
  char byte = 0;
  EXPECT_EQ(::read(opened[0], &byte, 1), 1);
  EXPECT_TRUE(platform::isLockByteHeld(watching, platform::LockByte::reader));
  for (const int end : {opened[0], seen[0], seen[1]}) ::close(end);
  EXPECT_EQ(endOf(child), 0);
  EXPECT_FALSE(platform::isLockByteHeld(watching, platform::LockByte::reader));
}

TEST_F(ForkedDatabase, IsNotReadInTheChildWhenItsPathLeadsElsewhere) {
  if (!platform::locksPassToChildren()) GTEST_SKIP() << "the child has locks of its own anyway";
  fill();
  EXPECT_EQ(inForkedChild([&] {
              std::filesystem::rename(path(), path("elsewhere.qvd"));
              const std::string why = expectError(Reason::opened_elsewhere, [&] { table.count(); });
              EXPECT_NE(why.find("child"), std::string::npos) << why;
              std::filesystem::rename(path("elsewhere.qvd"), path());
              EXPECT_EQ(table.count(), kLasting);
              return HasFailure() ? 1 : 0;
            }),
            0);
  EXPECT_EQ(table.count(), kLasting);
}

// A thread of the child is in the middle of a read meanwhile: its look must be counted as one until
// it ends.
TEST_F(ForkedDatabase, IsClosedInTheChildBesideItsReaders) {
  if (kThreadsAreWatched) GTEST_SKIP() << "the thread sanitizer starts no threads after a fork";
  fill();
  const auto closesBesideAReader = [&] {
    const qvdb::Reader reader = database.reader();
    const qvdb::Table viewed = reader.table("t");
    const auto* entry = platform::findOpenFile(database.handle())->entry;
    static std::latch isReading(1);
    static std::latch isClosed(1);
    ReplacedCalls calls;
    calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
      if (!isReading.try_wait()) {
        isReading.count_down();
        isClosed.wait();
      }
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    std::thread thread([&] { EXPECT_EQ(viewed.count(), kLasting); });
    isReading.wait();
    EXPECT_EQ(entry->viewLooks, 1u);
    database.close();
    EXPECT_EQ(entry->viewLooks, 1u);
    isClosed.count_down();
    thread.join();
    EXPECT_EQ(entry->viewLooks, 0u);
    return HasFailure() ? 1 : 0;
  };
  EXPECT_EQ(inForkedChild(closesBesideAReader), 0);
}

TEST_F(ForkedDatabase, LosesNothingThatParentAndChildAddAtOnce) {
  fill();
  database.close();
  database = openDatabase(Mode::shared);
  table = database.table("t");
  const pid_t child = ::fork();
  if (child == 0) {
    beTheChild([&] {
      expectError(Reason::opened_elsewhere, [&] { table.add("too early"); });
      database.reopen();
      for (int round = 0; round < kRounds; ++round) table.add_with_id(idOf(1, round), "child");
      return HasFailure() ? 1 : 0;
    });
  }
  for (int round = 0; round < kRounds; ++round) table.add_with_id(idOf(0, round), "parent");
  EXPECT_EQ(endOf(child), 0);
  const std::vector<uint64_t> ids = idsOf(table);
  expectLasting(ids);
  EXPECT_EQ(ids.size(), kLasting + 2 * kRounds);
  expectSound();
}

// A thread of the parent is in the middle of an operation when it forks. That has no end in the
// child, which takes part in the turns nevertheless.
class ForkedInAnOperation : public ForkedDatabase {
 protected:
  // Runs `operation` in a thread up to its first call of the kind that `calls` replace by one that
  // calls stopHere(). Then runs `work` in a child, and the operation to its end.
  template <typename Operation, typename Work>
  int inChildDuring(Operation operation, Work work) {
    std::latch hasStopped(1);
    std::latch mayEnd(1);
    stop_ = {&hasStopped, &mayEnd};
    std::thread thread([&] {
      isStopped_ = true;
      operation();
    });
    hasStopped.wait();
    const int status = inForkedChild([&] {
      work();
      return HasFailure() ? 1 : 0;
    });
    mayEnd.count_down();
    thread.join();
    return status;
  }

  static void stopHere() {
    if (!std::exchange(isStopped_, false)) return;
    stop_.reached->count_down();
    stop_.passed->wait();
  }

  void openShared() {
    fill();
    database.close();
    database =
        qvdb::Database::open(path(), {.mode = Mode::shared, .wait = std::chrono::milliseconds(20)});
    table = database.table("t");
  }

  ReplacedCalls calls;

 private:
  struct Stop {
    std::latch* reached;
    std::latch* passed;
  };
  static inline Stop stop_ = {};
  static inline thread_local bool isStopped_ = false;  // by its next call
};

TEST_F(ForkedInAnOperation, WritesInTurnsInTheChildThatHasOpenedItAgain) {
  if (kThreadsAreWatched) GTEST_SKIP() << "the thread sanitizer has locks of its own";
  openShared();
  calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
    stopHere();
    return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
  };
  EXPECT_EQ(inChildDuring([&] { table.add("of the parent"); },
                          [&] {
                            database.reopen();
                            expectError(Reason::in_use, [&] { table.add("between"); });
                          }),
            0);
  EXPECT_EQ(table.count(), kLasting + 1);
  expectSound();
}

TEST_F(ForkedInAnOperation, IsReadInLooksByTheChildThatHasOpenedItAgain) {
  if (kThreadsAreWatched) GTEST_SKIP() << "the thread sanitizer has locks of its own";
  openShared();
  static int reads = 0;
  static const platform::FileEntry* entry;
  entry = nullptr;
  calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
    stopHere();
    if (entry != nullptr) {
      ++reads;
      EXPECT_EQ(entry->lockBytes.looks, 1u);
    }
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  EXPECT_EQ(inChildDuring([&] { EXPECT_EQ(table.count(), kLasting); },
                          [&] {
                            database.reopen();
                            entry = platform::findOpenFile(database.handle())->entry;
                            EXPECT_EQ(table.count(), kLasting);
                            EXPECT_GT(reads, 0);
                          }),
            0);
}

}  // namespace
}  // namespace qvdbase::test
