// Indexes that are kept in a file, beside everything that can happen to the two files: changes that
// the index has not read yet, other programs, odd things under its name, killed processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <qvdbase/qvdb/maintenance.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "format/index_pages.h"
#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "kit/threads.h"
#include "objects/kept_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;
using qvdb::Record;
using qvdb::RecordIndex;
using qvdb::Table;

const unsigned char* raw(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

void modifyByC(int16_t db, Id record, const std::string& payload) {
  const uint64_t table = FindTableByName(db, "t");
  EXPECT_EQ(ModifyRecordData(db, table, raw(payload), static_cast<uint32_t>(payload.size()),
                             record.value, nullptr),
            1);
}

class KeptAttack : public KeptTest {
 protected:
  // Every identifier and key, by the file of indexes, as the walk finds them. Returns whether the
  // file was used for identifiers, and for keys.
  std::pair<bool, bool> expectWalksAnswers(const std::set<uint64_t>& ids,
                                           const std::set<std::string>& keys,
                                           Mode mode = Mode::read_only) {
    const Database database = openDatabase(mode);
    const Table table = database.table("t");
    const std::vector<uint64_t> present = idsOf(table);
    const auto model = walkKeys(table);
    const RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table);
    const std::pair used = {index.is_from_file(), names.is_from_file()};
    for (const uint64_t id : ids) {
      const bool isThere = std::find(present.begin(), present.end(), id) != present.end();
      EXPECT_EQ(table.contains(Id{id}), isThere) << id;
    }
    for (const std::string& key : keys) {
      EXPECT_EQ(static_cast<size_t>(std::ranges::distance(names.records(key))), model->count(key))
          << key;
      EXPECT_EQ(names.find(key).has_value(), model->contains(key)) << key;
    }
    EXPECT_EQ(static_cast<size_t>(std::ranges::distance(names.records())), model->size());
    return used;
  }

  std::set<std::string> someKeys() const { return {"key0", "key1", "key7", "new", "other", ""}; }
};

// ---- Changes that the index has not read yet

std::optional<Record> recordAt(const Table& table, size_t number) {
  for (const Record& record : table.records()) {
    if (number-- == 0) return record;
  }
  return std::nullopt;
}

TEST_F(KeptAttack, ARecordThatMovesBeforeTheIndexHasReadItHidesNoOther) {
  for (const size_t moved : {size_t{0}, size_t{5}, size_t{9}}) {
    Database database = createDatabase(std::to_string(moved) + ".qvd");
    Table table = database.add_table("t");
    const RecordIndex index = table.index({.kept = true});
    table.append_all(std::vector<std::string>(10, "payload"));
    const std::vector<uint64_t> ids = idsOf(table);
    table.modify(*recordAt(table, moved), std::string(500, 'p'));
    for (const uint64_t id : ids) EXPECT_TRUE(table.contains(Id{id})) << moved;
    EXPECT_EQ(index.size(), ids.size());
  }
}

// The first of two records with one identifier is the one to find, whichever is changed.
TEST_F(KeptAttack, ChangesOfASecondRecordOfOneIdentifierDoNotConcernTheFirst) {
  for (const bool isRemoved : {false, true}) {
    Database database = createDatabase(isRemoved ? "removed.qvd" : "moved.qvd");
    Table table = database.add_table("t");
    table.add_with_id(Id{7}, "first");
    const RecordIndex index = table.index({.kept = true});
    std::vector<qvdb::NewRecord> more(2, qvdb::NewRecord("second", 0, Id{7}));
    for (qvdb::NewRecord& record : more) record.given_ids = qvdb::GivenIds::as_they_are;
    table.append_all(more);
    if (isRemoved) {
      table.remove(*recordAt(table, 1));
    } else {
      table.modify(*recordAt(table, 1), std::string(500, 'p'));
    }
    const auto found = table.find(Id{7});
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->payload(), recordAt(table, 0)->payload()) << isRemoved;
    database.close();
    allowDamage(isRemoved ? "removed.qvd" : "moved.qvd");
  }
}

// ---- keep_indexes() keeps all of them, or says why not

TEST_F(KeptAttack, KeepsAnIndexOfKeysAlsoAfterCFunctionsHaveWritten) {
  const std::vector<Id> ids = makeKept(20);
  {
    Database database = openDatabase();
    const Names names = namesOf(database.table("t"));
    modifyByC(database.handle(), ids[3], "other;");
    database.keep_indexes();
  }
  Database reader = openDatabase(Mode::read_only);
  const Names names = namesOf(reader.table("t"));
  EXPECT_TRUE(names.is_from_file());
  EXPECT_TRUE(names.contains("other"));
  EXPECT_TRUE(names.is_from_file());
}

TEST_F(KeptAttack, AFunctionThatThrowsLeavesTheFileOfBefore) {
  const std::vector<Id> ids = makeKept(20);
  const Bytes good = readFile(indexPath());
  bool isThrowing = false;
  Database database = openDatabase();
  const Names names(database.table("t"),
                    [&isThrowing](std::string_view text) {
                      if (isThrowing) throw std::logic_error("no key");
                      return kKey(text);
                    },
                    {.ordered = true, .kept_as = "name 1"});
  EXPECT_TRUE(names.is_from_file());
  modifyByC(database.handle(), ids[3], "other;");
  isThrowing = true;
  EXPECT_THROW(database.keep_indexes(), std::logic_error);
  EXPECT_EQ(readFile(indexPath()), good);
  EXPECT_EQ(this->names(), (std::vector<std::string>{"test.qvd", "test.qvdx"}));
  EXPECT_NO_THROW(database.close());  // which does not call it
  EXPECT_EQ(readFile(indexPath()), good);
  expectWalksAnswers({ids[3].value}, {"other", "key3", "key4"});
}

TEST_F(KeptAttack, ReportsADamagedChainInsteadOfKeepingNothing) {
  const std::vector<Id> ids = makeKept(20);
  std::filesystem::remove(indexPath());
  Database database = openDatabase();
  Table table = database.table("t");
  const RecordIndex index = table.index({.kept = true});
  const int64_t position = table.find(ids[10])->info().position;
  const int file = ::open(path().c_str(), O_WRONLY);
  ASSERT_EQ(::pwrite(file, "\0\0\0\0", 4, position), 4);
  ::close(file);
  table.remove(ids[0]);
  modifyByC(database.handle(), ids[2], "other;" + std::string(500, 'p'));
  EXPECT_EQ(DeleteOneRecord(database.handle(), FindTableByName(database.handle(), "t"),
                            ids[1].value, nullptr),
            1);
  expectError(Reason::chain_damaged, [&] {
    static_cast<void>(table.contains(ids[2]));
    database.keep_indexes();
  });
  EXPECT_FALSE(hasIndexFile());
  database.close();
  allowDamage();
}

// ---- Sections of other tables

TEST_F(KeptAttack, ADamagedSectionOfAnotherTableIsNotCopied) {
  makeKept(3000);
  Bytes damaged = readFile(indexPath());
  damaged[damaged.size() / 2] ^= 1;  // of the hashes of keys or those of identifiers
  damaged[4096 * 3 + 100] ^= 1;      // of those of identifiers, the first section
  writeFile(indexPath(), damaged);
  ::chmod(indexPath().c_str(), 0600);
  {
    Database database = openDatabase();
    Table other = database.add_table("other");
    other.add("x;");
    const RecordIndex index = other.index({.kept = true});
    database.keep_indexes();
  }
  EXPECT_LT(std::filesystem::file_size(indexPath()), 10u * 4096);
  Database reader = openDatabase(Mode::read_only);
  EXPECT_TRUE(reader.table("other").index({.kept = true}).is_from_file());
  EXPECT_FALSE(reader.table("t").index({.kept = true}).is_from_file());
}

// A file that says that a section has more pages than the disk has bytes, where all are holes.
TEST_F(KeptAttack, AHugeFileIsNeitherReadNorCopied) {
  makeKept(3000);
  using namespace format::kept;
  Bytes bytes = readFile(indexPath());
  Page front;
  std::copy_n(bytes.begin(), kPageSize, front.begin());
  std::vector<Section> sections = *sectionsOf(front);
  for (Section& section : sections) {
    Page head;
    const auto at = static_cast<ptrdiff_t>(section.firstPage * kPageSize);
    std::copy_n(bytes.begin() + at, kPageSize, head.begin());
    Head has = *headOf(head);
    has.hashPages = uint64_t{1} << 31;
    section.pages = 1 + has.hashPages + has.keyPages;
    head = headPage(has, section.generation);
    std::copy(head.begin(), head.end(), bytes.begin() + at);
  }
  front = frontPage(sections, 1);
  std::copy(front.begin(), front.end(), bytes.begin());
  writeFile(indexPath(), bytes);
  ::chmod(indexPath().c_str(), 0600);
  ASSERT_EQ(::truncate(indexPath().c_str(), off_t{1} << 43), 0);
  expectWalksAnswers({1}, someKeys());
  Database database = openDatabase();
  Table other = database.add_table("other");
  const RecordIndex index = other.index({.kept = true});
  database.keep_indexes();
  EXPECT_LT(std::filesystem::file_size(indexPath()), 1'000'000u);
}

// ---- Other programs

// Times of two seconds, as some file systems have them: a change in the same two seconds alters
// none.
int statusInTwoSeconds(int descriptor, struct stat* result) {
  const int outcome = platform::hostSystemCalls().status(descriptor, result);
  for (struct timespec* time : {&result->st_mtim, &result->st_ctim}) {
    *time = {time->tv_sec / 2 * 2, 0};
  }
  return outcome;
}

TEST_F(KeptAttack, AreNotBelievedAboutKeysWhereTheTimesOfFilesAreCoarse) {
  ReplacedCalls calls;
  calls->status = statusInTwoSeconds;
  const std::vector<Id> ids = makeKept(20);
  const int16_t db = open();
  modifyByC(db, ids[5], "other;");
  close(db);
  expectWalksAnswers({ids[5].value}, {"other", "key5", "key6"});
}

TEST_F(KeptAttack, AChangeInPlaceRightAfterTheFileWasWrittenIsSeen) {
  std::vector<Id> ids = makeKept(20);
  for (int round = 0; round < 20; ++round) {
    const auto i = static_cast<size_t>(round);
    const std::string key = "r" + std::to_string(round);
    {
      Database database = openDatabase();
      const RecordIndex index = database.table("t").index({.kept = true});
      const Names names = namesOf(database.table("t"));
      database.table("t").modify(ids[i], "mine;");
    }
    ASSERT_EQ(inForkedChild([&] {
                const int16_t db = open();
                modifyByC(db, ids[i], key + ";");
                close(db);
                return 0;
              }),
              0);
    expectWalksAnswers({ids[i].value, 1}, {key, "mine", "key" + std::to_string(round)},
                       round % 2 == 0 ? Mode::shared : Mode::read_only);
    if (HasFailure()) return;
  }
}

TEST_F(KeptAttack, ACompactionByAnotherProcessLeavesNothingToBelieve) {
  const std::vector<Id> ids = makeKept(40);
  {
    Database database = openDatabase();
    for (size_t i = 0; i < 30; ++i) database.table("t").remove(ids[i]);
  }
  std::set<uint64_t> asked = {1};
  for (const Id id : ids) asked.insert(id.value);
  ASSERT_EQ(inForkedChild([&] {
              qvdb::compact(path());
              return 0;
            }),
            0);
  EXPECT_EQ(expectWalksAnswers(asked, someKeys()), std::pair(false, false));
}

TEST_F(KeptAttack, ADatabaseThatIsRenamedWithItsFileKeepsIt) {
  const std::vector<Id> ids = makeKept(40);
  std::filesystem::rename(path(), path("moved.qvd"));
  std::filesystem::rename(indexPath(), path("moved.qvdx"));
  {
    Database database = openDatabase(Mode::read_only, "moved.qvd");
    EXPECT_TRUE(database.table("t").index({.kept = true}).is_from_file());
    EXPECT_TRUE(database.table("t").contains(ids[3]));
  }
  // Another database has the name then.
  std::filesystem::rename(path("moved.qvd"), path("old.qvd"));
  {
    Database database = createDatabase("moved.qvd");
    database.add_table("t").add_with_id(Id{5}, "key5;");
  }
  Database database = openDatabase(Mode::read_only, "moved.qvd");
  const RecordIndex index = database.table("t").index({.kept = true});
  EXPECT_FALSE(index.is_from_file());
  EXPECT_TRUE(database.table("t").contains(Id{5}));
  EXPECT_FALSE(database.table("t").contains(ids[3]));
}

// ---- What can have its name

TEST_F(KeptAttack, OddThingsUnderItsNameAreLeftAlone) {
  const std::vector<Id> ids = makeKept(20);
  const Bytes good = readFile(indexPath());
  const std::set<uint64_t> asked = {ids[0].value, ids[19].value, 1};
  const std::vector<std::pair<std::string, std::function<void()>>> things = {
      {"a FIFO", [&] { ASSERT_EQ(::mkfifo(indexPath().c_str(), 0600), 0); }},
      {"a folder", [&] { std::filesystem::create_directory(indexPath()); }},
      {"a folder with a file",
       [&] {
         std::filesystem::create_directory(indexPath());
         writeFile(indexPath() + "/file", bytesOf("x"));
       }},
      {"the database", [&] { std::filesystem::create_hard_link(path(), indexPath()); }},
      {"a link to the database", [&] { std::filesystem::create_symlink(path(), indexPath()); }},
      {"a link to itself", [&] { std::filesystem::create_symlink(indexPath(), indexPath()); }},
      {"a device", [&] { std::filesystem::create_symlink("/dev/zero", indexPath()); }},
  };
  for (const auto& [what, make] : things) {
    SCOPED_TRACE(what);
    std::filesystem::remove_all(indexPath());
    make();
    const auto before = std::filesystem::symlink_status(indexPath()).type();
    EXPECT_EQ(expectWalksAnswers(asked, someKeys()), std::pair(false, false));
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    const Names names = namesOf(database.table("t"));
    database.table("t").touch(ids[0]);
    if (what != "a link to itself") {
      expectError(Reason::file_exists, [&] { database.keep_indexes(); });
      EXPECT_NO_THROW(database.close());
      EXPECT_EQ(std::filesystem::symlink_status(indexPath()).type(), before);
    }
    database.close();
    EXPECT_EQ(expectWalksAnswers(asked, someKeys()).first, what == "a link to itself");
  }
  std::filesystem::remove_all(indexPath());
}

// ---- Other users

ino_t indexInode = 0;
void (*alter)(struct stat*) = nullptr;

int statusAltered(int descriptor, struct stat* result) {
  const int outcome = platform::hostSystemCalls().status(descriptor, result);
  if (outcome == 0 && result->st_ino == indexInode) alter(result);
  return outcome;
}

// Root's index beside a user's database is not believed either: one rule for all.
TEST_F(KeptAttack, AnIndexOfAnotherUserIsNotUsedAndIsReplaced) {
  const std::vector<Id> ids = makeKept(20);
  struct stat status = {};
  ASSERT_EQ(::stat(indexPath().c_str(), &status), 0);
  indexInode = status.st_ino;
  const std::vector<std::pair<bool, void (*)(struct stat*)>> cases = {
      {false, [](struct stat* its) { its->st_uid += 1; }},
      {false, [](struct stat* its) { its->st_mode |= 0002; }},
      {false, [](struct stat* its) { its->st_mode |= 0020; }},
      {true, [](struct stat* its) { its->st_gid += 1; }},  // which may not write to it
      {true, [](struct stat*) {}},
  };
  for (const auto& [isUsed, change] : cases) {
    SCOPED_TRACE(&change - &cases[0].second);
    ReplacedCalls calls;
    calls->status = statusAltered;
    alter = change;
    EXPECT_EQ(expectWalksAnswers({ids[3].value, 1}, someKeys()), std::pair(isUsed, isUsed));
  }
  {
    ReplacedCalls calls;
    calls->status = statusAltered;
    alter = cases[0].second;
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    const Names names = namesOf(database.table("t"));
    EXPECT_FALSE(index.is_from_file());
    database.keep_indexes();
  }
  struct stat after = {};
  ASSERT_EQ(::stat(indexPath().c_str(), &after), 0);
  EXPECT_NE(after.st_ino, status.st_ino);
  EXPECT_EQ(expectWalksAnswers({ids[3].value, 1}, someKeys()), std::pair(true, true));
}

// ---- Clocks

// The clock was set back by an hour: the database's times are in the future, and those of a change
// come before them.
int statusInTheFuture(int descriptor, struct stat* result) {
  const int outcome = platform::hostSystemCalls().status(descriptor, result);
  result->st_mtim.tv_sec += 3600;
  result->st_ctim.tv_sec += 3600;
  return outcome;
}

TEST_F(KeptAttack, AChangeAfterTheClockWasSetBackIsSeen) {
  std::vector<Id> ids;
  {
    ReplacedCalls calls;
    calls->status = statusInTheFuture;
    ids = makeKept(20);
    EXPECT_EQ(expectWalksAnswers({ids[5].value}, {"key5", "key6"}), std::pair(true, true));
  }
  const int16_t db = open();
  modifyByC(db, ids[5], "other;");
  close(db);
  expectWalksAnswers({ids[5].value}, {"other", "key5", "key6"});
  {
    Database database = openDatabase();
    const RecordIndex index = database.table("t").index({.kept = true});
    const Names names = namesOf(database.table("t"));
    database.keep_indexes();
  }
  EXPECT_EQ(expectWalksAnswers({ids[5].value}, {"other", "key5"}), std::pair(true, true));
}

// Where the modification time is put back, the status time still differs.
TEST_F(KeptAttack, EitherTimeThatDiffersIsEnough) {
  const std::vector<Id> ids = makeKept(20);
  struct stat then = {};
  ASSERT_EQ(::stat(path().c_str(), &then), 0);
  const int16_t db = open();
  modifyByC(db, ids[5], "other;");
  close(db);
  const timespec times[] = {then.st_atim, then.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path().c_str(), times, 0), 0);
  expectWalksAnswers({ids[5].value}, {"other", "key5", "key6"});
}

TEST_F(KeptAttack, AnIndexThatCannotBeReadIsNotUsedAndIsWrittenAnew) {
  const std::vector<Id> ids = makeKept(20);
  {
    ReplacedCalls calls;
    calls->openAt = [](int parent, const char* name, int flags, mode_t mode) {
      if (std::string_view(name).ends_with(".qvdx")) return errno = EACCES, -1;
      return platform::hostSystemCalls().openAt(parent, name, flags, mode);
    };
    EXPECT_EQ(expectWalksAnswers({ids[3].value, 1}, someKeys()), std::pair(false, false));
  }
  EXPECT_EQ(expectWalksAnswers({ids[3].value, 1}, someKeys()), std::pair(true, true));
}

// ---- Killed while it is written

int writesLeft = 0;

ssize_t writeUntilKilled(int descriptor, const void* bytes, size_t count, off_t position) {
  if (writesLeft-- == 0) {
    // The last one is torn.
    platform::hostSystemCalls().writeAt(descriptor, bytes, count / 2, position);
    ::kill(::getpid(), SIGKILL);
  }
  return platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
}

TEST_F(KeptAttack, AProcessThatIsKilledAtAnyWriteLeavesNoFileThatIsBelievedWrongly) {
  const std::vector<Id> ids = makeKept(600);
  std::set<uint64_t> asked = {1};
  for (size_t i = 0; i < ids.size(); i += 50) asked.insert(ids[i].value);
  bool isKilled = true;
  int kills = 0;
  for (; isKilled && kills < 100; ++kills) {
    const int end = inForkedChild([&] {
      writesLeft = kills;
      ReplacedCalls calls;
      calls->writeAt = writeUntilKilled;
      Database database = openDatabase();
      const RecordIndex index = database.table("t").index({.kept = true});
      const Names names = namesOf(database.table("t"));
      database.table("t").modify(ids[static_cast<size_t>(kills) * 5], "new;");
      return 0;
    });
    isKilled = end != 0;
    expectWalksAnswers(asked, someKeys());
    if (HasFailure()) return;
  }
  EXPECT_GT(kills, 3);
  EXPECT_FALSE(isKilled);
  allowDamage();
}

// ---- Transactions

TEST_F(KeptAttack, ARollbackAndACommitBeforeItIsWrittenAreInIt) {
  std::vector<Id> ids = makeKept(60);
  std::mt19937_64 random(randomSeed());
  std::set<uint64_t> asked = {1};
  std::set<std::string> keys = someKeys();
  for (const Id id : ids) asked.insert(id.value);
  for (int round = 0; round < 12; ++round) {
    {
      Database database = openDatabase();
      Table table = database.table("t");
      std::optional<RecordIndex> index;
      std::optional<Names> names;
      const auto use = [&] {
        index = table.index({.kept = true});
        names.emplace(namesOf(table));
      };
      const bool isBefore = random() % 3 != 0;
      if (isBefore) use();
      qvdb::Transaction transaction = database.begin();
      for (int step = 0; step < 8; ++step) {
        const std::vector<uint64_t> now = idsOf(table);
        const Id one{now[random() % now.size()]};
        const std::string key = "t" + std::to_string(random() % 6);
        keys.insert(key);
        switch (random() % 5) {
          case 0:
            asked.insert(table.add(key + ";").value);
            break;
          case 1:
            table.remove(one);
            break;
          case 2:
            table.modify(one, key + ";" + std::string(random() % 300, 'p'));
            break;
          case 3:
            table.append_all(std::vector<std::string>(2, key + ";"));
            break;
          default:
            if (!index) use();
        }
      }
      if (random() % 2 == 0) {
        transaction.commit();
      } else {
        transaction.rollback();
      }
      if (random() % 2 == 0) table.add("after;");
      if (random() % 2 == 0) database.keep_indexes();
    }
    expectWalksAnswers(asked, keys);
    if (HasFailure()) return;
  }
}

// ---- Threads

TEST_F(KeptAttack, ThreadsMayKeepThemWhileOthersChangeTheTable) {
  if (!kHasThreads) GTEST_SKIP() << "a build without threads";
  const std::vector<Id> ids = makeKept(300);
  {
    Database database = openDatabase();
    Table table = database.table("t");
    const RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table);
    std::thread keeper([&] {
      for (int i = 0; i < 8; ++i) database.keep_indexes();
    });
    std::thread asker([&] {
      for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(table.contains(ids[static_cast<size_t>(i)]));
        EXPECT_FALSE(names.contains("none"));
      }
    });
    for (size_t i = 0; i < 200; ++i) table.modify(ids[i], "t" + std::to_string(i) + ";");
    keeper.join();
    asker.join();
  }
  EXPECT_EQ(expectWalksAnswers({ids[0].value, 1}, {"t7", "key7", "key250"}), std::pair(true, true));
}

}  // namespace
}  // namespace qvdbase::test
