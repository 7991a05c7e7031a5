// qvdb records --last, --since and --follow.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <qvdbase/qvdb.hpp>
#include <random>
#include <thread>

#include "kit/other_process.h"
#include "kit/random_seed.h"
#include "kit/replaced_calls.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/feed/follow.h"
#include "tools/qvdb/streams/output.h"

namespace qvdbase::test {
namespace {

using ToolNewest = ToolTest;

Words idsOf(const nlohmann::json& records) {
  Words ids;
  for (const auto& record : records) ids.push_back(record["id"]);
  return ids;
}

std::string idText(uint64_t id) {
  return qvdb::to_string(qvdb::Id{id});
}

Words idTexts(const std::vector<uint64_t>& ids) {
  Words texts;
  for (const uint64_t id : ids) texts.push_back(idText(id));
  return texts;
}

// Records 1 to 9, created in the seconds 100, 200, ... 900.
FileImage nineRecords() {
  FileImage image;
  image.addTable("notes", 0x11);
  for (uint64_t i = 1; i <= 9; ++i) {
    const auto time = static_cast<uint32_t>(i * 100);
    image.addRecord(0, i, bytesOf("x"), {.createTime = time, .modifyTime = time});
  }
  return image;
}

TEST_F(ToolNewest, AreListedOldestFirst) {
  writeFile(path(), nineRecords().build());
  expectOnlyRead([&] {
    const auto listed = [&](Words options) {
      options.insert(options.begin(), {"records", "--json", kDefaultFile, "notes"});
      return idsOf(json(options)["records"]);
    };
    EXPECT_EQ(listed({"--last", "3"}), idTexts({7, 8, 9}));
    EXPECT_EQ(listed({"--last", "0"}), Words{});
    EXPECT_EQ(listed({"--last", "100"}).size(), 9u);
    EXPECT_EQ(listed({"--last", "3", "--limit", "2"}), idTexts({7, 8}));
    EXPECT_EQ(listed({"--since", "@700"}), idTexts({7, 8, 9}));
    EXPECT_EQ(listed({"--since", "@701"}), idTexts({8, 9}));
    EXPECT_EQ(listed({"--since", "1970-01-01T00:13:20Z"}), idTexts({8, 9}));
    EXPECT_EQ(listed({"--since", "1970-01-01 00:13:21"}), idTexts({9}));
    EXPECT_EQ(listed({"--since", "1970-01-01T00:14"}), idTexts({9}));
    EXPECT_EQ(listed({"--since", "1970-01-01"}).size(), 9u);
    EXPECT_EQ(listed({"--since", "1970-01-02"}), Words{});
    EXPECT_EQ(listed({"--since", "@700", "--last", "2"}), idTexts({8, 9}));
  });
}

TEST_F(ToolNewest, OfAnEmptyTableAreNone) {
  notes({});
  EXPECT_TRUE(json({"records", "--json", "--last", "5", kDefaultFile, "notes"})["records"].empty());
}

TEST_F(ToolNewest, NeedATimeThatExists) {
  writeFile(path(), nineRecords().build());
  for (const std::string time :
       {"yesterday", "@", "@x", "@1x", "2024", "2024-02-30", "2024-13-01", "2024-01-01T24:00",
        "2024-01-01T12", "2024-01-01T12:00:00+01:00", "2024-01-01Z", "2024-01-01T12:00:61"}) {
    fails({"records", "--since=" + time, kDefaultFile, "notes"}, 2, {"--since", "is no time"});
  }
  fails({"records", "--deleted", "--last", "1", kDefaultFile, "notes"}, 2, {"--deleted"});
  fails({"records", "--deleted", "--follow", kDefaultFile, "notes"}, 2, {"--deleted"});
}

TEST_F(ToolNewest, BeforeADamageAreListedAndTheDamageIsReported) {
  FileImage image = nineRecords();
  const auto fifth = 4630 + 4 * 57;
  Bytes bytes = image.build();
  bytes = bytes.with(fifth, Bytes().zeros(1));
  writeFile(path(), bytes);
  allowDamage();
  EXPECT_EQ(idsOf(json({"records", "--json", "--last", "4", kDefaultFile, "notes"})["records"]),
            idTexts({6, 7, 8, 9}));
  const Outcome outcome = run({"records", "--json", "--last", "6", kDefaultFile, "notes"});
  EXPECT_EQ(outcome.status, 1);
  expectOneLine(outcome.err, {"record 5 of 9"});
  const auto list = parsedJson(outcome.out);
  EXPECT_EQ(idsOf(list["records"]), idTexts({6, 7, 8, 9}));
  EXPECT_NE(list["error"].get<std::string>().find("damaged"), std::string::npos);
}

// ---- --follow

class ToolFollow : public ToolTest {
 protected:
  // Runs 'records --follow --json' with these options; its output goes to a file. `script` runs
  // meanwhile, and Ctrl-C ends the tool after it.
  void follow(const Words& options, const std::function<void()>& script) {
    ProgramCall call = callOf({"records", "--follow", "--json", kDefaultFile, "notes"});
    call.arguments.insert(call.arguments.end(), options.begin(), options.end());
    call.outputFile = path("listed").native();
    call.meanwhile = [&](pid_t process) {
      tool_ = process;
      script();
      ::kill(process, SIGINT);
    };
    outcome_ = runProgram(call);
  }

  // What the command lists in this process until it has listed so many.
  Words followed(const qvdb::tool::Newest& newest, uint64_t limit) {
    qvdb::tool::discardOutput();  // of other tests in this process
    testing::internal::CaptureStdout();
    int status = -1;
    try {
      status = qvdb::tool::followRecords({path().native(), "notes", newest, limit, true});
      qvdb::tool::flushOutput();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    EXPECT_EQ(status, 0);
    return listedIn(testing::internal::GetCapturedStdout());
  }

  // The identifiers that were listed so far, of whole lines.
  Words listed() const {
    const Bytes bytes = contents("listed");
    return listedIn({bytes.begin(), bytes.end()});
  }

  static Words listedIn(const std::string& text) {
    Words ids;
    std::istringstream lines(text.substr(0, text.rfind('\n') + 1));
    for (std::string line; std::getline(lines, line);) {
      ids.push_back(parsedJson(line)["id"]);
    }
    return ids;
  }

  // Waits until these are listed, or others, or the tool has ended. The end of the test's patience
  // is that of CTest.
  void expectListed(const std::vector<uint64_t>& ids) {
    const Words expected = idTexts(ids);
    while (listed().size() < expected.size() && !hasEnded()) pause();
    EXPECT_EQ(listed(), expected);
  }

  // Whether the tool has ended: until it is waited for it has no other state any more.
  bool hasEnded() const {
    std::ifstream status("/proc/" + std::to_string(tool_) + "/stat");
    std::string number, name, state;
    status >> number >> name >> state;
    return state == "Z";
  }

  // Waits until the tool has opened the file that replaced the first one, and a little longer: for
  // its next look, or its end.
  void letItLookAtTheNewFile() const {
    while (!hasEnded() && !hasOpen(path())) pause();
    for (int i = 0; i < 20 && !hasEnded(); ++i) pause();
  }

  // Not true of a file that had this name and was replaced.
  bool hasOpen(const std::filesystem::path& file) const {
    const auto descriptors = "/proc/" + std::to_string(tool_) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
      std::error_code gone;
      if (std::filesystem::read_symlink(entry.path(), gone) == file) return true;
    }
    return false;
  }

  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

  void expectEndedByCtrlC() {
    EXPECT_EQ(outcome_.status, 0) << outcome_;
    EXPECT_EQ(outcome_.err, "");
  }

  // Another process's changes, each in one opening of the file.
  template <typename Change>
  void change(Change change) {
    auto database = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .wait = std::chrono::seconds(10)});
    auto table = database.table("notes");
    change(table);
  }
  void add(uint64_t id) {
    change([id](qvdb::Table& table) { table.add_with_id(qvdb::Id{id}, "added"); });
  }

  void makeDatabase(uint64_t records) {
    auto database = qvdb::Database::create(path());
    auto table = database.add_table("notes");
    for (uint64_t i = 1; i <= records; ++i) table.add_with_id(qvdb::Id{i}, std::string(40, 'x'));
  }

  // Puts another file in the place of the database, as another process does.
  void replaceBy(const std::string& other) { std::filesystem::rename(path(other), path()); }
  void compact() {
    qvdb::compact(path(), path("compacted"));
    replaceBy("compacted");
  }

  pid_t tool_ = 0;
  Outcome outcome_;
};

TEST_F(ToolFollow, ListsWhatIsThereAndWhatIsAdded) {
  makeDatabase(2);
  follow({}, [&] {
    expectListed({1, 2});
    add(3);
    expectListed({1, 2, 3});
    change([](qvdb::Table& table) {
      auto bulk = table.appender();
      for (uint64_t i = 4; i <= 6; ++i) bulk.add(qvdb::NewRecord("x", 0, qvdb::Id{i}));
      bulk.finish();
    });
    expectListed({1, 2, 3, 4, 5, 6});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, BeginsWithTheEndOfTheListWhereThatIsWanted) {
  makeDatabase(5);
  follow({"--last", "2"}, [&] {
    expectListed({4, 5});
    add(6);
    expectListed({4, 5, 6});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, ListsTheFirstRecordsOfAnEmptyTable) {
  makeDatabase(0);
  follow({"--limit", "2"}, [&] {
    add(1);
    add(2);
    expectListed({1, 2});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, EndsAtALimit) {
  makeDatabase(3);
  EXPECT_EQ(run({"records", "--follow", "--limit", "3", kDefaultFile, "notes"}).status, 0);
  const Outcome outcome =
      run({"records", "--follow", "--limit", "2", "--last", "2", kDefaultFile, "notes"});
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_NE(outcome.out.find("CAPACITY"), std::string::npos);
  EXPECT_NE(outcome.out.find(idText(3)), std::string::npos);
  EXPECT_EQ(outcome.out.find(idText(1)), std::string::npos);
}

TEST_F(ToolFollow, GoesOnWhenTheRecordThatItSawLastIsDeleted) {
  makeDatabase(3);
  follow({}, [&] {
    expectListed({1, 2, 3});
    change([](qvdb::Table& table) {
      table.remove(qvdb::Id{3});
      table.add_with_id(qvdb::Id{4}, "x");
    });
    expectListed({1, 2, 3, 4});
    change([](qvdb::Table& table) {
      table.remove(qvdb::Id{4});
      table.remove(qvdb::Id{2});
      table.remove(qvdb::Id{1});
    });
    change([](qvdb::Table& table) {
      table.add_with_id(qvdb::Id{5}, "x");
      table.add_with_id(qvdb::Id{6}, "x");
      table.remove(qvdb::Id{5});
      table.add_with_id(qvdb::Id{7}, "x");
    });
    expectListed({1, 2, 3, 4, 6, 7});
  });
  expectEndedByCtrlC();
}

// A change is no addition, also where it moves the record that was seen last.
TEST_F(ToolFollow, ListsNoChangesAndNoDeletions) {
  makeDatabase(3);
  follow({}, [&] {
    expectListed({1, 2, 3});
    change([](qvdb::Table& table) { table.modify(qvdb::Id{3}, std::string(500, 'm')); });
    change([](qvdb::Table& table) { table.remove(qvdb::Id{2}); });
    add(4);
    expectListed({1, 2, 3, 4});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, GoesOnAfterACompaction) {
  makeDatabase(4);
  change([](qvdb::Table& table) { table.remove(qvdb::Id{2}); });
  follow({}, [&] {
    expectListed({1, 3, 4});
    compact();
    add(5);
    expectListed({1, 3, 4, 5});
    // The record that was seen last is gone from the new file, and so are the counts of the old.
    change([](qvdb::Table& table) {
      table.remove(qvdb::Id{5});
      table.add_with_id(qvdb::Id{6}, "x");
    });
    compact();
    expectListed({1, 3, 4, 5, 6});
    ASSERT_EQ(run({"compact", kDefaultFile}).status, 0);
    add(7);
    expectListed({1, 3, 4, 5, 6, 7});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, ListsAllOfATableThatIsNewInTheFile) {
  makeDatabase(2);
  follow({}, [&] {
    expectListed({1, 2});
    {
      auto database = qvdb::Database::create(path("new"));
      auto table = database.add_table("notes");
      table.add_with_id(qvdb::Id{1}, "another record of that number");
      table.add_with_id(qvdb::Id{8}, "x");
    }
    replaceBy("new");
    expectListed({1, 2, 1, 8});
  });
  expectEndedByCtrlC();
}

TEST_F(ToolFollow, WaitsForAFileThatWasRemoved) {
  makeDatabase(2);
  follow({}, [&] {
    expectListed({1, 2});
    std::filesystem::rename(path(), path("elsewhere"));
    pause();
    {
      auto database = qvdb::Database::open(path("elsewhere"), qvdb::Mode::exclusive);
      database.table("notes").add_with_id(qvdb::Id{3}, "x");
    }
    replaceBy("elsewhere");
    expectListed({1, 2, 3});
  });
  EXPECT_EQ(outcome_.status, 0) << outcome_;
  // It may not have looked while there was no file.
  if (!outcome_.err.empty()) expectOneLine(outcome_.err, {"was removed; waiting for a new one"});
}

TEST_F(ToolFollow, FailsWhenTheTableIsNotInTheNewFile) {
  makeDatabase(2);
  follow({}, [&] {
    expectListed({1, 2});
    qvdb::Database::create(path("new")).add_table("others");
    replaceBy("new");
    while (!hasEnded()) pause();
  });
  EXPECT_EQ(outcome_.status, 1) << outcome_;
  expectOneLine(outcome_.err, {"notes", "table"});
}

// The new file is made under the name, as 'qvdb create' and 'qvdb add-table' do one after the
// other.
TEST_F(ToolFollow, WaitsForTheTableOfANewFile) {
  makeDatabase(2);
  follow({}, [&] {
    expectListed({1, 2});
    qvdb::Database::create(path("new"));
    replaceBy("new");
    letItLookAtTheNewFile();
    auto database = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .wait = std::chrono::seconds(10)});
    database.add_table("notes").add_with_id(qvdb::Id{8}, "x");
    expectListed({1, 2, 8});
  });
  expectEndedByCtrlC();
}

// The directory of the new file can be read only after a while, as beside a writer that is stopped.
TEST_F(ToolFollow, TakesTheTableOfANewFileAfterFailedLooks) {
  makeDatabase(2);
  const Bytes slotMark = {0x00};
  follow({}, [&] {
    expectListed({1, 2});
    FileImage image;
    image.addTable("notes", 0x11);
    image.addRecord(0, 1, bytesOf("another record of that number"));
    image.addRecord(0, 8, bytesOf("x"));
    const Bytes whole = image.build();
    writeFile(path("new"), whole.with(22, slotMark));
    replaceBy("new");
    letItLookAtTheNewFile();
    std::fstream out(path(), std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(22);
    out.put(static_cast<char>(whole[22]));
    out.close();
    expectListed({1, 2, 1, 8});
  });
  expectEndedByCtrlC();
}

// By a caller that blocks the signal until the tool runs. This process keeps it blocked.
TEST_F(ToolFollow, EndsWithStatus0AlsoByASignalBeforeItBegins) {
  makeDatabase(1);
  sigset_t interrupt, before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  ASSERT_EQ(::sigprocmask(SIG_BLOCK, &interrupt, &before), 0);
  follow({}, [] {});
  ASSERT_EQ(::sigprocmask(SIG_SETMASK, &before, nullptr), 0);
  expectEndedByCtrlC();
}

// In this process: the directory is another one at each look of the first operation, as beside a
// writer that never rests. Then it is sound and has one record more.
TEST_F(ToolFollow, WaitsWhereEveryLookFindsSomethingElse) {
  OtherProcess writer;
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 1, pattern(100'000));
  image.addRecord(0, 2, bytesOf("x"));
  static Bytes before, after;
  before = image.build();
  image.addRecord(0, 3, bytesOf("x"));
  after = image.build();
  writeFile(path(), before);
  ASSERT_NE(writer.open(folder.wide(kDefaultFile), 4), 0);

  static std::filesystem::path file;
  static bool hasBegun;
  static uint8_t mark;
  file = path();
  hasBegun = false;
  mark = 0;
  ReplacedCalls calls;
  calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
    hasBegun = hasBegun || position > 50'000;
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  // Whether the file was replaced is the first question of a look.
  calls->statusAt = [](int directory, const char* name, struct stat* result, int flags) {
    if (hasBegun && mark == 0) writeFile(file, before.with(22, Bytes{mark = 1}));
    return platform::hostSystemCalls().statusAt(directory, name, result, flags);
  };
  calls->pause = [](uint64_t length) {
    platform::hostSystemCalls().pause(length);
    if (mark == 0) return;
    writeFile(file, mark < 7 ? before.with(22, Bytes{++mark}) : after);
  };
  const qvdb::tool::Newest onlyNew = {0, std::nullopt};
  EXPECT_EQ(qvdb::tool::followRecords({path().native(), "notes", onlyNew, 1, true}), 0);
  EXPECT_EQ(mark, 7);
}

// The same from the beginning, until the file is sound.
TEST_F(ToolFollow, BeginsWhenALookSucceeds) {
  OtherProcess writer;
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 1, bytesOf("x"));
  image.addRecord(0, 2, bytesOf("x"));
  static Bytes sound;
  sound = image.build();
  writeFile(path(), sound);
  ASSERT_NE(writer.open(folder.wide(kDefaultFile), 4), 0);
  static std::filesystem::path file;
  static uint8_t mark;
  file = path();
  writeFile(file, sound.with(22, Bytes{mark = 1}));
  ReplacedCalls calls;
  calls->pause = [](uint64_t length) {
    platform::hostSystemCalls().pause(length);
    if (mark < 20) writeFile(file, ++mark < 20 ? sound.with(22, Bytes{mark}) : sound);
  };
  EXPECT_EQ(followed({}, 2), Words({idText(1), idText(2)}));
  EXPECT_EQ(mark, 20);
}

// What the first listing has delivered before that is not listed again.
TEST_F(ToolFollow, GoesOnWhereItsFirstListingHasFailed) {
  OtherProcess writer;
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 1, pattern(100'000));
  image.addRecord(0, 2, bytesOf("x"));
  image.addRecord(0, 3, bytesOf("x"));
  static Bytes sound, damaged;
  sound = image.build();
  writeFile(path(), sound);
  damaged =
      sound.with(static_cast<size_t>(database().tables.at(0).records.at(1).position), Bytes{0});
  ASSERT_NE(writer.open(folder.wide(kDefaultFile), 4), 0);
  static std::filesystem::path file;
  static int looksAtFirst;
  static int pauses;
  file = path();
  looksAtFirst = pauses = 0;
  ReplacedCalls calls;
  calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
    if (position >= 4630 && position < 50'000) ++looksAtFirst;
    // The second look at the first record is that of the listing.
    if (position > 50'000 && looksAtFirst >= 2 && pauses == 0) writeFile(file, damaged);
    return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
  };
  calls->pause = [](uint64_t length) {
    platform::hostSystemCalls().pause(length);
    if (looksAtFirst >= 2 && ++pauses == 8) writeFile(file, sound);
  };
  EXPECT_EQ(followed({}, 3), Words({idText(1), idText(2), idText(3)}));
  EXPECT_GE(pauses, 8);
}

// Of a pipe whose reader has gone: nothing is added that could not be written.
TEST_F(ToolFollow, EndsWhenItsOutputHasNoReader) {
  makeDatabase(1);
  ProgramCall call = callOf({"records", "--follow", "--last", "0", kDefaultFile, "notes"});
  call.closesOutput = true;
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.err, "");
}

// Records are added one by one and in batches, deleted (the newest one more often than others) and
// moved, and the file is replaced by a compacted one, all without a pause.
TEST_F(ToolFollow, MissesNothingBesideAWriter) {
  makeDatabase(0);
  std::mt19937 random(static_cast<unsigned>(randomSeed()));
  uint64_t newest = 0;
  std::vector<uint64_t> present;
  const auto removeOne = [&](qvdb::Table& table) {
    if (present.empty()) return;
    const size_t place = random() % 2 != 0 ? present.size() - 1 : random() % present.size();
    table.remove(qvdb::Id{present[place]});
    present.erase(present.begin() + static_cast<std::ptrdiff_t>(place));
  };
  const auto addBatch = [&](qvdb::Table& table) {
    auto bulk = table.appender();
    for (int i = 0; i < 5; ++i) {
      bulk.add(qvdb::NewRecord("batch", 0, qvdb::Id{++newest}));
      present.push_back(newest);
    }
    bulk.finish();
  };
  const auto addOne = [&](qvdb::Table& table) {
    table.add_with_id(qvdb::Id{++newest}, std::string(random() % 400, 'x'));
    present.push_back(newest);
  };
  const auto moveOne = [&](qvdb::Table& table) {
    if (present.empty()) return;
    table.modify(qvdb::Id{present[random() % present.size()]}, std::string(500, 'm'));
  };
  follow({}, [&] {
    for (int round = 0; round < 24; ++round) {
      change([&](qvdb::Table& table) {
        const qvdb::RecordIndex index = table.index();
        for (int i = 0; i < 100; ++i) {
          const auto choice = random() % 6;
          if (choice < 2) addOne(table);
          if (choice == 2) addBatch(table);
          if (choice == 3 || choice == 4) removeOne(table);
          if (choice == 5) moveOne(table);
        }
      });
      if (round % 4 == 3) qvdb::compact(path());
    }
    change(addOne);
    while (listed().empty() || listed().back() != idText(newest)) pause();
  });
  expectEndedByCtrlC();
  const Words ids = listed();
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
  for (const uint64_t id : present) {
    EXPECT_TRUE(std::binary_search(ids.begin(), ids.end(), idText(id))) << id;
  }
}

}  // namespace
}  // namespace qvdbase::test
