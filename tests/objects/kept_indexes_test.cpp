// Indexes that are kept in a file beside the database: every answer is that of the walk, whatever
// states the two files are in, and whoever has written them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "objects/kept_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;
using qvdb::Record;
using qvdb::RecordIndex;
using qvdb::Table;

using Answers = std::vector<std::string>;

// What the walk says of identifiers and keys: the record, "none", or the reason why it has no
// answer.
std::string answer(const std::function<std::optional<Record>()>& ask) {
  try {
    const std::optional<Record> record = ask();
    return record ? to_string(record->id()) : "none";
  } catch (const qvdb::Error& error) {
    return "error: " + std::string(qvdb::to_string(error.reason()));
  }
}

bool hasAnswer(const std::string& given) {
  return !given.starts_with("error: ");
}

Answers ofIds(const Table& table, const std::vector<Id>& ids) {
  Answers answers;
  for (const Id id : ids) answers.push_back(answer([&] { return table.find(id); }));
  return answers;
}

class KeptIndexes : public KeptTest {};

TEST_F(KeptIndexes, AreUsedWhenTheDatabaseIsOpenedAgain) {
  const std::vector<Id> ids = makeKept(5000);
  ASSERT_TRUE(hasIndexFile());
  for (const Mode mode : {Mode::exclusive, Mode::read_only, Mode::shared}) {
    Database database = openDatabase(mode);
    const Table table = database.table("t");
    const RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table);
    EXPECT_TRUE(index.is_from_file());
    EXPECT_TRUE(names.is_from_file());
    EXPECT_EQ(index.size(), ids.size());
    EXPECT_EQ(names.size(), ids.size());
    for (size_t i = 0; i < ids.size(); i += 7) {
      ASSERT_EQ(table.find(ids[i])->id(), ids[i]);
      ASSERT_EQ(names.find("key" + std::to_string(i))->id(), ids[i]);
    }
    EXPECT_FALSE(table.contains(Id{1}));
    EXPECT_FALSE(names.contains("no such key"));
    size_t count = 0;
    for (const auto& [key, record] : names.prefix("key12"))
      count += key.starts_with("key12") ? 1u : 0u;
    EXPECT_EQ(count, 111u);
    EXPECT_TRUE(index.is_from_file()) << "it was not built for any of this";
    EXPECT_TRUE(names.is_from_file());
    EXPECT_LT(index.bytes() + names.bytes(), 100'000u);
  }
}

TEST_F(KeptIndexes, HaveTheNameAndTheModeOfTheDatabase) {
  makeKept(3);
  ::chmod(path().c_str(), 0640);
  std::filesystem::remove(indexPath());
  Database database = openDatabase();
  const RecordIndex index = database.table("t").index({.kept = true});
  database.keep_indexes();
  struct stat status = {};
  ASSERT_EQ(::stat(indexPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  database.close();
  Database other = createDatabase("notes.db");
  other.add_table("t").add("a;");
  const RecordIndex of = other.table("t").index({.kept = true});
  other.close();
  EXPECT_TRUE(std::filesystem::exists(path("notes.db.qvdx")));
  for (const std::string& name : names()) EXPECT_EQ(name.find(".tmp"), name.npos) << name;
}

// It can be made again at any time, so nobody waits for the device: neither for the file nor for
// the folder with its name.
TEST_F(KeptIndexes, AreNeverSynced) {
  makeKept(2000);
  RecordedCalls host;
  Database database = openDatabase();
  const RecordIndex index = database.table("t").index({.kept = true});
  database.table("t").add("more;");
  database.keep_indexes();
  database.table("t").add("again;");
  database.close();
  EXPECT_EQ(host.count(Call::rename), 2);
  EXPECT_EQ(host.count(Call::sync), 0);
  EXPECT_EQ(host.count(Call::syncData), 0);
}

// The whole cost of opening and of the first lookup, in calls to the system.
TEST_F(KeptIndexes, CostAsManyCallsToOpenAndAskWhateverTheNumberOfRecords) {
  if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
  std::vector<std::map<std::string, int>> counts;
  for (const int records : {1'000, 10'000, 60'000}) {
    const std::vector<Id> ids = makeKept(records);
    RecordedCalls host;
    {
      Database database = openDatabase(Mode::read_only);
      const Table table = database.table("t");
      const RecordIndex index = table.index({.kept = true});
      EXPECT_TRUE(table.contains(ids[static_cast<size_t>(records) / 3]));
      EXPECT_FALSE(table.contains(Id{1}));
      const Names names = namesOf(table);
      EXPECT_TRUE(names.contains("key77"));
    }
    std::map<std::string, int> of;
    for (const Event& event : host.events()) ++of[nameOf(event.call)];
    counts.push_back(of);
    EXPECT_LT(host.count(Call::read), 30);
    std::filesystem::remove(path());
    std::filesystem::remove(indexPath());
  }
  // A hash may be at home in a full page.
  for (const auto& of : counts) {
    for (const auto& [name, count] : of) {
      EXPECT_NEAR(count, counts[0][name], name == "read" ? 3 : 0) << name;
    }
  }
}

TEST_F(KeptIndexes, FollowEveryChangeAndAreWrittenAgain) {
  std::vector<Id> ids = makeKept(600);
  for (int round = 0; round < 4; ++round) {
    Database database = openDatabase();
    Table table = database.table("t");
    const RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table);
    ASSERT_TRUE(index.is_from_file());
    ASSERT_TRUE(names.is_from_file());
    const auto i = static_cast<size_t>(round);
    table.modify(ids[i], "changed" + std::to_string(i) + ";");
    table.modify(ids[100 + i], "moved" + std::to_string(i) + ";" + std::string(500, 'p'));
    table.remove(ids[200 + i]);
    ids.push_back(table.add("added" + std::to_string(i) + ";"));
    std::vector<std::string> many(300, "many;");
    table.append_all(many);
    EXPECT_TRUE(index.is_from_file());
    EXPECT_TRUE(names.is_from_file());
    const auto model = walkKeys(table);
    for (const std::string& key :
         {"key" + std::to_string(i), "changed" + std::to_string(i), "moved" + std::to_string(i),
          "key" + std::to_string(100 + i), "key" + std::to_string(200 + i), std::string("many"),
          "added" + std::to_string(i), std::string("key300")}) {
      EXPECT_EQ(static_cast<size_t>(std::ranges::distance(names.records(key))), model->count(key))
          << key;
    }
    EXPECT_FALSE(table.contains(ids[200 + i]));
    EXPECT_TRUE(table.contains(ids[100 + i]));
    std::vector<std::string> order;
    for (const auto& [key, record] : names.records()) order.push_back(key);
    EXPECT_EQ(order.size(), model->size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_TRUE(names.is_from_file());
  }
}

TEST_F(KeptIndexes, AreNotWrittenWhereNothingHasChanged) {
  makeKept(50);
  const auto inode = [this] {
    struct stat status = {};
    EXPECT_EQ(::stat(indexPath().c_str(), &status), 0);
    return std::pair(status.st_ino, status.st_mtim.tv_nsec);
  };
  const auto before = inode();
  {
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    const Names names = namesOf(database.table("t"));
    EXPECT_TRUE(names.contains("key7"));
  }
  EXPECT_EQ(inode(), before);
}

TEST_F(KeptIndexes, OfOtherTablesStayInTheFile) {
  makeKept(50);
  {
    Database database = openDatabase();
    Table other = database.add_table("other");
    other.add("x;");
    const RecordIndex index = other.index({.kept = true});
  }
  Database database = openDatabase(Mode::read_only);
  EXPECT_TRUE(database.table("t").index({.kept = true}).is_from_file());
  EXPECT_TRUE(database.table("other").index({.kept = true}).is_from_file());
}

TEST_F(KeptIndexes, OfKeysAreThoseOfOneNameTypeAndKind) {
  makeKept(50, false);
  Database database = openDatabase(Mode::read_only);
  const Table table = database.table("t");
  EXPECT_TRUE(Names(table, kKey, {.kept_as = "name 1"}).is_from_file());
  EXPECT_FALSE(Names(table, kKey, {.kept_as = "name 2"}).is_from_file());
  EXPECT_FALSE(Names(table, kKey, {.ordered = true, .kept_as = "name 1"}).is_from_file());
  EXPECT_FALSE(Names(table, kKey, {.unique = true, .kept_as = "name 1"}).is_from_file());
  const auto size = [](std::string_view text) { return static_cast<uint32_t>(text.size()); };
  EXPECT_FALSE(qvdb::KeyIndex<uint32_t>(table, size, {.kept_as = "name 1"}).is_from_file());
  const std::string message = expectError(
      Reason::bad_argument, [&] { Names(table, kKey, {.kept_as = std::string(256, 'n')}); });
  EXPECT_NE(message.find("255"), message.npos);
}

TEST_F(KeptIndexes, ThatAreUniqueRefuseWhatTheFileHas) {
  makeKept(0);
  for (int session = 0; session < 3; ++session) {
    Database database = openDatabase();
    Table table = database.table("t");
    const Names emails(table, kKey, {.unique = true, .kept_as = "email"});
    EXPECT_EQ(emails.is_from_file(), session != 0);
    for (int other = 0; other < session; ++other) {
      expectError(Reason::key_exists, [&] { table.add("a" + std::to_string(other) + ";"); });
    }
    table.add("a" + std::to_string(session) + ";");
  }
}

TEST_F(KeptIndexes, SeeWhatOthersHaveAddedChangedAndRemovedSince) {
  const std::vector<Id> ids = makeKept(300);
  uint64_t added = 0;
  const int16_t db = open();
  const uint64_t t = FindTableByName(db, "t");
  const auto bytes = [](const char* text) { return reinterpret_cast<const unsigned char*>(text); };
  ASSERT_EQ(AddRecordData(db, t, bytes("new;"), 4, 0, &added), 1);
  ASSERT_EQ(ModifyRecordData(db, t, bytes("newer;"), 6, ids[5].value, nullptr), 1);
  ASSERT_EQ(DeleteOneRecord(db, t, ids[7].value, nullptr), 1);
  close(db);
  Database database = openDatabase();
  const Table table = database.table("t");
  const RecordIndex index = table.index({.kept = true});
  EXPECT_TRUE(index.is_from_file());
  EXPECT_TRUE(table.contains(Id{added}));
  EXPECT_FALSE(table.contains(Id{1}));
  EXPECT_TRUE(index.is_from_file()) << "the tail was enough";
  EXPECT_FALSE(table.contains(ids[7]));
  const Names names = namesOf(table);
  EXPECT_TRUE(names.contains("key20"));
  EXPECT_TRUE(names.is_from_file());
  EXPECT_TRUE(names.contains("newer"));
  EXPECT_FALSE(names.is_from_file()) << "what the file does not have was looked for by a walk";
  EXPECT_TRUE(names.contains("new"));
  EXPECT_FALSE(names.contains("key5"));
  EXPECT_FALSE(names.contains("key7"));
}

TEST_F(KeptIndexes, AreNoReasonToFailAndReportWhyOnRequest) {
  makeKept(20);
  std::filesystem::remove(indexPath());
  {
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    writeFile(indexPath(), bytesOf("a file of the user's"));
    const std::string message = expectError(Reason::file_exists, [&] { database.keep_indexes(); });
    EXPECT_NE(message.find("move it elsewhere"), message.npos) << message;
    EXPECT_NO_THROW(database.close());
  }
  EXPECT_EQ(readFile(indexPath()), bytesOf("a file of the user's"));
  std::filesystem::remove(indexPath());
  {
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    RecordedCalls host;
    host.failFrom(Call::write, 0, ENOSPC);
    expectError(Reason::disk_full, [&] { database.keep_indexes(); });
    EXPECT_NO_THROW(database.close());
  }
  EXPECT_FALSE(hasIndexFile());
  EXPECT_EQ(names(), std::vector<std::string>{"test.qvd"});
  Database reader = openDatabase(Mode::read_only);
  const RecordIndex index = reader.table("t").index({.kept = true});
  expectError(Reason::read_only, [&] { reader.keep_indexes(); });
  reader.close();
  EXPECT_FALSE(hasIndexFile());
}

// The database holds them, so that there is something to write when it is closed.
TEST_F(KeptIndexes, OfKeysHoldTheirFunctionUntilTheDatabaseIsClosed) {
  const auto calls = std::make_shared<int>(0);
  const auto make = [calls](std::string_view text) {
    ++*calls;
    return kKey(text);
  };
  Database database = createDatabase();
  Table table = database.add_table("t");
  static_cast<void>(Names(table, make, {.kept_as = "name"}));
  table.add("a;");
  EXPECT_EQ(*calls, 1);
  // The same index again, with the function that it has.
  const Names second(table, [](std::string_view) { return "other"; }, {.kept_as = "name"});
  table.add("b;");
  EXPECT_EQ(*calls, 2);
  EXPECT_TRUE(second.contains("b"));
  EXPECT_FALSE(second.contains("other"));
  const int before = *calls;
  database.close();
  EXPECT_EQ(*calls, before);
  EXPECT_GT(calls.use_count(), 2);  // by the second one
  database.reopen();
  EXPECT_TRUE(second.contains("a"));
  database.close();
  database = {};
}

TEST_F(KeptIndexes, OfKeysGiveTheirFunctionBackWhenTheDatabaseIsClosed) {
  const auto captured = std::make_shared<int>(0);
  const auto make = [captured](std::string_view text) { return kKey(text); };
  const auto holders = captured.use_count();
  Database database = createDatabase();
  Table table = database.add_table("t");
  static_cast<void>(Names(table, make, {.kept_as = "name"}));
  table.add("a;");
  database.reopen();
  EXPECT_GT(captured.use_count(), holders);
  database.close();
  EXPECT_EQ(captured.use_count(), holders);
}

TEST_F(KeptIndexes, AreNotWrittenWhereThePathLeadsToAnotherFile) {
  makeKept(20);
  Database database = openDatabase();
  const RecordIndex index = database.table("t").index({.kept = true});
  database.table("t").add("one more;");
  std::filesystem::rename(path(), path("moved.qvd"));
  const Bytes before = readFile(indexPath());
  expectError(Reason::no_such_file, [&] { database.keep_indexes(); });
  database.close();
  EXPECT_EQ(readFile(indexPath()), before);
  EXPECT_EQ(names(), (std::vector<std::string>{"moved.qvd", "test.qvdx"}));
}

TEST_F(KeptIndexes, AreNotBelievedWhereOtherUsersMayHaveWrittenThem) {
  makeKept(20);
  ::chmod(indexPath().c_str(), 0666);
  Database database = openDatabase(Mode::read_only);
  EXPECT_FALSE(database.table("t").index({.kept = true}).is_from_file());
  ::chmod(indexPath().c_str(), 0600);
  EXPECT_TRUE(openDatabase(Mode::read_only).table("t").index({.kept = true}).is_from_file());
}

TEST_F(KeptIndexes, OfACopyAreNotThoseOfTheOriginal) {
  makeKept(20);
  std::filesystem::copy_file(path(), path("copy.qvd"));
  std::filesystem::copy_file(indexPath(), path("copy.qvdx"));
  Database copy = openDatabase(Mode::read_only, "copy.qvd");
  EXPECT_FALSE(copy.table("t").index({.kept = true}).is_from_file());
  EXPECT_FALSE(namesOf(copy.table("t")).is_from_file());
}

TEST_F(KeptIndexes, AreNotWrittenByAChildMadeByFork) {
  makeKept(20);
  const Bytes before = readFile(indexPath());
  auto database = std::make_unique<Database>(openDatabase());
  const RecordIndex index = database->table("t").index({.kept = true});
  database->table("t").add("more;");
  EXPECT_EQ(inForkedChild([&] {
              const bool isThere = database->table("t").contains(Id{1});
              database.reset();
              return isThere ? 1 : 0;
            }),
            0);
  EXPECT_EQ(readFile(indexPath()), before);
  database.reset();
  EXPECT_NE(readFile(indexPath()), before);
}

TEST_F(KeptIndexes, GoOnWithoutTheFileWhereThatIsCutOrWrittenOverMeanwhile) {
  const std::vector<Id> ids = makeKept(3000);
  const Bytes good = readFile(indexPath());
  for (const bool isCut : {true, false}) {
    writeFile(indexPath(), good);
    Database database = openDatabase(Mode::read_only);
    const Table table = database.table("t");
    const RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table);
    ASSERT_TRUE(names.is_from_file());
    // In the middle of a walk in order, too.
    auto range = names.records();
    std::vector<std::string> seen;
    size_t step = 0;
    for (auto each = range.begin(); each != range.end(); ++each) {
      seen.push_back(each->key);
      if (++step != 100) continue;
      if (isCut) {
        std::filesystem::resize_file(indexPath(), 4096);
      } else {
        writeFile(indexPath(), Bytes(good.size(), 'x'));
      }
    }
    EXPECT_EQ(seen.size(), ids.size());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_FALSE(names.is_from_file());
    for (size_t i = 0; i < ids.size(); i += 11) {
      ASSERT_TRUE(table.contains(ids[i])) << i;
      ASSERT_TRUE(names.contains("key" + std::to_string(i))) << i;
    }
    EXPECT_FALSE(table.contains(Id{1}));
    EXPECT_FALSE(index.is_from_file());
  }
}

// ---- Every state of the one file beside every state of the other

// A host whose files of the same bytes have the same times, long ago, and that of all others
// different ones: as if each state had been written in its own moment.
std::map<Bytes, int>* stateNumbers = nullptr;
std::string* watchedFile = nullptr;

int statusByContent(int descriptor, struct stat* result) {
  const int outcome = platform::hostSystemCalls().status(descriptor, result);
  struct stat named = {};
  if (outcome != 0 || ::stat(watchedFile->c_str(), &named) != 0) return outcome;
  if (named.st_ino != result->st_ino) return outcome;
  const auto [state, isNew] = stateNumbers->emplace(readFile(*watchedFile), 0);
  if (isNew) state->second = static_cast<int>(stateNumbers->size());
  result->st_mtim = result->st_ctim = {1'000'000 + state->second, 0};
  return outcome;
}

class KeptStates : public KeptIndexes {
 protected:
  KeptStates() {
    stateNumbers = &states;
    watched = path().native();
    watchedFile = &watched;
    pretendTimes();
  }

  void pretendTimes() {
    calls.emplace();
    (*calls)->status = statusByContent;
  }

  // Writes bytes into the file that is there, so that it stays the same file.
  static void put(const std::string& place, const Bytes& bytes) {
    std::FILE* file = std::fopen(place.c_str(), "r+b");
    if (file == nullptr) file = std::fopen(place.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);
    std::filesystem::resize_file(place, bytes.size());
  }

  void expectWalksAnswers(const std::vector<Id>& ids, const std::vector<std::string>& keys,
                          const std::string& about) {
    SCOPED_TRACE(about);
    std::optional<Database> database;
    try {
      database.emplace(openDatabase(Mode::read_only));
    } catch (const qvdb::Error&) {
      return;
    }
    const auto table = database->find_table("t");
    if (!table) return;
    const Answers walked = ofIds(*table, ids);
    const auto model = walkKeys(*table);
    try {
      const RecordIndex index = table->index({.kept = true});
      fromFile += index.is_from_file() ? 1 : 0;
      const Answers indexed = ofIds(*table, ids);
      for (size_t i = 0; i < ids.size(); ++i) {
        if (hasAnswer(walked[i])) {
          ASSERT_EQ(indexed[i], walked[i]) << i;
        } else if (hasAnswer(indexed[i]) && indexed[i] != "none") {
          ASSERT_EQ(indexed[i], to_string(ids[i])) << i;
        }
      }
    } catch (const qvdb::Error& error) {
      ASSERT_EQ(error.reason(), Reason::chain_damaged);
      ASSERT_FALSE(model.has_value());
    }
    try {
      const Names names = namesOf(*table);
      keysFromFile += names.is_from_file() ? 1 : 0;
      for (const std::string& key : keys) {
        std::multiset<uint64_t> found;
        for (const auto& [own, record] : names.records(key)) found.insert(record.id().value);
        std::multiset<uint64_t> expected;
        if (!model) continue;
        const auto [from, to] = model->equal_range(key);
        for (auto each = from; each != to; ++each) expected.insert(each->second);
        ASSERT_EQ(found, expected) << key;
        ASSERT_EQ(names.find(key).has_value(), !expected.empty()) << key;
      }
      size_t all = 0;
      for (const auto& [own, record] : names.records())
        all += own == kKey(textOf(record)) ? 1u : 0u;
      if (model) {
        ASSERT_EQ(all, model->size());
      }
    } catch (const qvdb::Error& error) {
      ASSERT_EQ(error.reason(), Reason::chain_damaged);
      ASSERT_FALSE(model.has_value());
    }
  }

  std::optional<ReplacedCalls> calls;
  std::map<Bytes, int> states;
  std::string watched;
  int fromFile = 0;
  int keysFromFile = 0;
};

TEST_F(KeptStates, AnswerAsTheWalkInEachStateOfBothFiles) {
  std::mt19937_64 random(randomSeed());
  std::vector<Id> ids = makeKept(40);
  std::vector<std::string> keys = {"key1", "key7", "none", "", "again"};
  // Sessions that change records in every way, each with its two files at the end, and cuts of it.
  std::vector<Bytes> databases = {readFile(path())};
  std::vector<Bytes> indexes = {readFile(indexPath()), Bytes(), bytesOf("not an index")};
  for (int session = 0; session < 6; ++session) {
    const Bytes before = readFile(path());
    std::vector<Write> log;
    {
      Database database = openDatabase();
      Table table = database.table("t");
      const RecordIndex index = table.index({.kept = true});
      const Names names = namesOf(table);
      const Id one = ids[random() % ids.size()];
      const std::string key = "s" + std::to_string(session);
      keys.push_back(key);
      calls.reset();
      std::optional<RecordedCalls> host(std::in_place);
      switch (session) {
        case 0:
          ids.push_back(table.add(key + ";"));
          break;
        case 1:
          table.modify(one, key + ";");
          break;
        case 2:
          table.modify(one, key + ";" + std::string(300, 'p'));
          break;
        case 3:
          table.remove(ids[20]);
          break;
        case 4:
          table.append_all(std::vector<std::string>(20, key + ";"));
          table.remove(table.first()->id());
          break;
        default:
          table.remove(ids[39]);
          ids.push_back(table.add("again;"));
      }
      log = host->writes(std::string(kDefaultFile));
      host.reset();
      pretendTimes();
    }
    const size_t bytes = byteCount(log);
    for (const size_t cut : {bytes / 4, bytes / 2, bytes - 20, bytes - 3}) {
      if (cut < bytes) databases.push_back(applied(before, log, cut));
    }
    databases.push_back(readFile(path()));
    indexes.push_back(readFile(indexPath()));
  }
  // Torn and damaged ones.
  const Bytes last = indexes.back();
  for (int i = 0; i < 6; ++i) {
    Bytes half = last;
    half.resize(random() % last.size());
    indexes.push_back(half);
    Bytes flipped = last;
    flipped[random() % flipped.size()] ^= 1;
    indexes.push_back(flipped);
    Bytes mixed = indexes[0];
    const size_t from = random() % std::min(mixed.size(), last.size());
    std::copy(last.begin() + static_cast<long>(from),
              last.begin() + static_cast<long>(std::min(mixed.size(), last.size())),
              mixed.begin() + static_cast<long>(from));
    indexes.push_back(mixed);
    Bytes noise = last;
    for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random());
    indexes.push_back(noise);
  }
  std::vector<Id> asked = ids;
  asked.push_back(Id{1});
  for (size_t d = 0; d < databases.size(); ++d) {
    for (size_t i = 0; i < indexes.size(); ++i) {
      put(path().native(), databases[d]);
      put(indexPath(), indexes[i]);
      expectWalksAnswers(asked, keys, std::to_string(d) + ", " + std::to_string(i));
      if (HasFatalFailure()) return;
    }
  }
  // How many depends on which records were drawn.
  EXPECT_GT(fromFile, 10) << "otherwise this has proved nothing";
  EXPECT_GT(keysFromFile, 10);
  put(path().native(), databases[0]);
}

TEST_F(KeptStates, AnswerAsTheWalkWithAnyByteOfTheFileChanged) {
  std::mt19937_64 random(randomSeed());
  const std::vector<Id> ids = makeKept(30);
  const Bytes good = readFile(indexPath());
  for (size_t at = 0; at < good.size(); at += 1 + random() % 400) {
    Bytes changed = good;
    changed[at] ^= static_cast<uint8_t>(1 + random() % 255);
    put(indexPath(), changed);
    expectWalksAnswers({ids[3], ids[29], Id{1}}, {"key3", "none"}, std::to_string(at));
    if (HasFatalFailure()) return;
  }
}

// The model: random changes in many sessions, with the file and without.
TEST_F(KeptIndexes, AgreeWithTheWalkThroughRandomSessions) {
  std::mt19937_64 random(randomSeed());
  makeKept(50);
  std::set<uint64_t> ever = {1};
  std::set<std::string> keys = {"none"};
  int used = 0;
  for (int session = 0; session < 25; ++session) {
    const bool keeps = random() % 4 != 0;
    Database database = openDatabase();
    Table table = database.table("t");
    std::optional<RecordIndex> index;
    std::optional<Names> byName;
    if (keeps) {
      index = table.index({.kept = true});
      byName = namesOf(table);
      used += byName->is_from_file() ? 1 : 0;
    }
    for (int step = 0; step < 30; ++step) {
      std::vector<uint64_t> ids = idsOf(table);
      ever.insert(ids.begin(), ids.end());
      const std::string key = "k" + std::to_string(random() % 40);
      keys.insert(key);
      const Id one = ids.empty() ? Id{1} : Id{ids[random() % ids.size()]};
      switch (random() % 7) {
        case 0:
        case 1:
          table.add(key + ";" + std::string(random() % 100, 'p'));
          break;
        case 2:
        case 3:
          table.modify(one, key + ";" + std::string(random() % 200, 'p'));
          break;
        case 4:
          table.remove(one);
          break;
        case 5:
          table.append_all(std::vector<std::string>(random() % 4, key + ";"));
          break;
        default:
          table.add_with_id(one, key + ";twice");
      }
      if (!keeps || step % 5 != 0) continue;
      std::set<uint64_t> present(ids.begin(), ids.end());
      ids = idsOf(table);
      present = {ids.begin(), ids.end()};
      for (const uint64_t id : ever) {
        ASSERT_EQ(table.contains(Id{id}), present.contains(id))
            << "session " << session << ", step " << step << ", " << index->is_from_file();
      }
      const auto model = walkKeys(table);
      for (const std::string& each : keys) {
        ASSERT_EQ(static_cast<size_t>(std::ranges::distance(byName->records(each))),
                  model->count(each))
            << each;
      }
    }
    if (random() % 3 == 0 && keeps) database.keep_indexes();
    if (random() % 6 == 0) std::filesystem::remove(indexPath());
  }
  EXPECT_GT(used, 3);
}

}  // namespace
}  // namespace qvdbase::test
