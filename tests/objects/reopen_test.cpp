// A database whose file is replaced while it is open: noticing that, and opening it again.
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;

class ReplacedDatabase : public LayerTest {
 protected:
  // Records 1 to 9 of table "t", of which those with even numbers are deleted.
  void SetUp() override {
    LayerTest::SetUp();
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (uint64_t i = 1; i <= 9; ++i) table.add_with_id(Id{i}, std::string(50, 'x'));
    for (uint64_t i = 2; i <= 8; i += 2) table.remove(Id{i});
  }

  // What another process does that compacts the file.
  void compact() {
    qvdb::compact(path(), path("compacted.qvd"));
    std::filesystem::rename(path("compacted.qvd"), path());
  }

  static inline const std::vector<uint64_t> kOdd{1, 3, 5, 7, 9};
};

TEST_F(ReplacedDatabase, IsCurrentUntilItsNameLeadsElsewhere) {
  auto database = openDatabase(Mode::read_only);
  EXPECT_TRUE(database.is_current());
  compact();
  EXPECT_FALSE(database.is_current());
  std::filesystem::remove(path());
  EXPECT_FALSE(database.is_current());
  writeFile(path(), bytesOf("something else"));
  EXPECT_FALSE(database.is_current());
  std::filesystem::remove(path());
  std::filesystem::create_directory(path());
  EXPECT_FALSE(database.is_current());
  std::filesystem::remove(path());
  database.close();
  expectError(Reason::not_open, [&] { database.is_current(); });
  expectError(Reason::not_open, [] { qvdb::Database().is_current(); });
}

TEST_F(ReplacedDatabase, IsNotCurrentWithoutItsFolder) {
  std::filesystem::create_directory(path("folder"));
  std::filesystem::copy_file(path(), path("folder/a.qvd"));
  auto database = openDatabase(Mode::read_only, "folder/a.qvd");
  std::filesystem::rename(path("folder"), path("renamed"));
  EXPECT_FALSE(database.is_current());
  writeFile(path("folder"), bytesOf("now a file"));
  EXPECT_FALSE(database.is_current());
}

TEST_F(ReplacedDatabase, IsCurrentUnderAnyNameThatLeadsToIt) {
  std::filesystem::create_symlink(path(), path("link.qvd"));
  auto database = openDatabase(Mode::read_only, "link.qvd");
  EXPECT_TRUE(database.is_current());
  compact();
  EXPECT_FALSE(database.is_current());
  database.reopen();
  EXPECT_TRUE(database.is_current());
}

TEST_F(ReplacedDatabase, IsReadOnAfterItWasOpenedAgain) {
  auto database = openDatabase(Mode::read_only);
  auto table = database.table("t");
  const uint64_t before = database.info().file_size;
  compact();
  EXPECT_EQ(database.info().file_size, before);  // the old file is read until then
  EXPECT_EQ(idsOf(table), kOdd);
  database.reopen();
  EXPECT_LT(database.info().file_size, before);
  EXPECT_EQ(idsOf(table), kOdd);
  EXPECT_EQ(table.get(Id{5})->size(), 50u);
  EXPECT_EQ(database.mode(), Mode::read_only);
  expectError(Reason::read_only, [&] { table.add("x"); });
}

TEST_F(ReplacedDatabase, RefusesToReadRecordsThatWereFoundBefore) {
  auto database = openDatabase();
  auto table = database.table("t");
  const auto record = table.find(Id{5});
  compact();
  database.reopen();
  const std::string why = expectError(Reason::changed_meanwhile, [&] { record->payload(); });
  EXPECT_NE(why.find("record " + to_string(Id{5}) + " was found before"), std::string::npos) << why;
  std::byte buffer[4];
  expectError(Reason::changed_meanwhile, [&] { record->read(0, buffer); });
  const qvdb::Record copy = *record;
  expectError(Reason::changed_meanwhile, [&] { copy.payload(); });
  EXPECT_EQ(table.find(Id{5})->payload().size(), 50u);
}

// Also where nothing has replaced the file, and a record is at its old place.
TEST_F(ReplacedDatabase, RefusesThemWhereTheFileIsTheSameToo) {
  auto database = openDatabase();
  const auto record = database.table("t").find(Id{5});
  database.reopen();
  EXPECT_TRUE(database.is_current());
  expectError(Reason::changed_meanwhile, [&] { record->payload(); });
}

TEST_F(ReplacedDatabase, FindsRecordsByTheirIdentifiersWhereTheyAreGiven) {
  auto database = openDatabase();
  auto table = database.table("t");
  const auto record = table.find(Id{5});
  const auto removed = table.find(Id{3});
  compact();
  database.reopen();
  std::vector<uint64_t> after;
  for (const qvdb::Record& each : table.records_after(*record)) after.push_back(each.id().value);
  EXPECT_EQ(after, (std::vector<uint64_t>{7, 9}));
  EXPECT_TRUE(table.modify(*record, "changed"));
  EXPECT_EQ(bytes(table.get(Id{5})), bytesOf("changed"));
  EXPECT_TRUE(table.remove(*removed));
  EXPECT_FALSE(table.remove(*removed));
}

TEST_F(ReplacedDatabase, EndsTheWalksThatHaveBegun) {
  auto database = openDatabase(Mode::read_only);
  auto table = database.table("t");
  auto walk = table.records();
  auto i = walk.begin();
  database.reopen();
  expectError(Reason::changed_meanwhile, [&] { ++i; });
  EXPECT_TRUE(i == walk.end());
  EXPECT_EQ(std::ranges::distance(walk), 5);  // begun again
}

TEST_F(ReplacedDatabase, KeepsItsIndexes) {
  auto database = openDatabase();
  auto table = database.table("t");
  const qvdb::RecordIndex index = table.index();
  EXPECT_EQ(index.size(), 5u);
  compact();
  database.reopen();
  EXPECT_TRUE(table.contains(Id{9}));
  EXPECT_FALSE(table.contains(Id{2}));
  table.remove(Id{9});
  EXPECT_FALSE(table.contains(Id{9}));
}

TEST_F(ReplacedDatabase, ReportsATableThatTheNewFileDoesNotHave) {
  auto database = openDatabase(Mode::read_only);
  auto table = database.table("t");
  qvdb::Database::create(path("new.qvd")).add_table("t");
  std::filesystem::rename(path("new.qvd"), path());
  database.reopen();
  expectError(Reason::table_missing, [&] { table.count(); });
  EXPECT_EQ(database.table("t").count(), 0u);
}

TEST_F(ReplacedDatabase, IsClosedWhenItCannotBeOpenedAgainAndCanBeTriedLater) {
  auto database = openDatabase();
  auto table = database.table("t");
  std::filesystem::rename(path(), path("elsewhere.qvd"));
  expectError(Reason::no_such_file, [&] { database.reopen(); });
  EXPECT_FALSE(database.is_open());
  expectError(Reason::not_open, [&] { table.count(); });
  std::filesystem::rename(path("elsewhere.qvd"), path());
  database.reopen();
  EXPECT_EQ(idsOf(table), kOdd);
  database.close();
  database.reopen();
  EXPECT_EQ(idsOf(table), kOdd);
  expectError(Reason::not_open, [] { qvdb::Database().reopen(); });
}

TEST_F(ReplacedDatabase, IsFoundFromTheFolderInWhichItWasOpened) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  auto database = qvdb::Database::open(kDefaultFile);
  std::filesystem::current_path(before);
  EXPECT_TRUE(database.is_current());
  database.reopen();
  EXPECT_EQ(database.table("t").count(), 5u);
  EXPECT_EQ(database.path(), kDefaultFile);
  std::filesystem::remove(path());
  const std::string why = expectError(Reason::no_such_file, [&] { database.reopen(); });
  EXPECT_EQ(why.find(kDefaultFile), 0u) << "as it was given: " << why;
}

TEST_F(ReplacedDatabase, DiscardsAnAppenderWhenItIsOpenedAgain) {
  auto database = openDatabase();
  auto table = database.table("t");
  auto appender = table.appender();
  appender.add(qvdb::NewRecord("discarded"));
  database.reopen();
  expectError(Reason::bad_argument, [&] { appender.finish(); });
  EXPECT_EQ(idsOf(table), kOdd);
  table.add("one more");
  EXPECT_EQ(table.count(), 6u);
}

}  // namespace
}  // namespace qvdbase::test
