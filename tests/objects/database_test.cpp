// Databases and tables through the C++ layer: creating, opening, closing, and what each failure is
// said to be.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "format/layout.h"
#include "kit/layers.h"
#include "kit/recorded_calls.h"
#include "kit/unprivileged.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Mode;
using qvdb::Reason;

static_assert(!std::is_copy_constructible_v<Database>);
static_assert(std::is_nothrow_move_constructible_v<Database>);
static_assert(std::is_nothrow_move_assignable_v<Database>);
static_assert(std::is_nothrow_destructible_v<Database>);
static_assert(std::is_nothrow_copy_constructible_v<qvdb::Error>);

using LayerDatabase = LayerTest;

TEST_F(LayerDatabase, IsCreatedEmptyAndOpenedAgain) {
  qvdb::Id id;
  {
    auto database = Database::create(path(), {.signature = {'q', 'V', '1', '2'}, .version = 123});
    EXPECT_TRUE(database.is_open());
    EXPECT_EQ(database.mode(), Mode::exclusive);
    EXPECT_EQ(database.path(), path());
    id = database.info().id;
  }
  EXPECT_EQ(fileSize(), 4630u);
  EXPECT_TRUE(sameBytes(contents().cut(6), hex("71 56 31 32 007b")));
  const auto database = openDatabase(Mode::read_only);
  const auto info = database.info();
  EXPECT_EQ(std::string(info.signature.data(), 4), "qV12");
  EXPECT_EQ(info.version, 123);
  EXPECT_EQ(info.id, id);
  EXPECT_EQ(info.table_count, 0);
  EXPECT_EQ(info.slot_count, 32);
  EXPECT_EQ(info.slot_size, 144);
  EXPECT_EQ(info.file_size, 4630u);
}

TEST_F(LayerDatabase, IsNotCreatedOverAFileUnlessAsked) {
  createDatabase().add_table("precious");
  expectUnchanged([&] { expectError(Reason::file_exists, [&] { Database::create(path()); }); });
  EXPECT_TRUE(Database::create(path(), {.overwrite = true}).tables().empty());
}

TEST_F(LayerDatabase, IsCreatedOverAnEmptyFile) {
  writeFile(path(), {});
  EXPECT_TRUE(createDatabase().is_open());
}

TEST_F(LayerDatabase, InUseIsNotEmptied) {
  auto database = createDatabase();
  database.add_table("precious");
  expectUnchanged(
      [&] { expectError(Reason::in_use, [&] { Database::create(path(), {.overwrite = true}); }); });
}

TEST_F(LayerDatabase, IsNotCreatedWithWhatTheLibraryWouldRefuseLater) {
  expectError(Reason::bad_argument, [&] { Database::create(path(), {.version = 99}); });
  expectError(Reason::bad_argument, [&] { Database::create(path(), {.version = 200}); });
  expectError(Reason::bad_argument, [&] {
    Database::create(path(), {.signature = {'V', 'Q', 'd', 'b'}});
  });
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(LayerDatabase, CreatedInAMissingFolderMakesTheFolderIfItIsAskedTo) {
  expectError(Reason::path_not_reachable, [&] { Database::create(path("a/b/c.qvd")); });
  EXPECT_FALSE(std::filesystem::exists(path("a")));
  EXPECT_TRUE(Database::create(path("a/b/c.qvd"), {.create_folders = true}).is_open());
  EXPECT_TRUE(std::filesystem::exists(path("a/b/c.qvd")));
}

TEST_F(LayerDatabase, OpeningReportsWhatIsWrong) {
  expectError(Reason::no_such_file, [&] { Database::open(path("nothing.qvd")); });
  expectError(Reason::no_such_file, [&] { Database::open(path("no folder/nothing.qvd")); });
  expectError(Reason::not_a_file, [&] { Database::open(folder.path()); });
  writeFile(path("text"), bytesOf("just some text, longer than a header of 22 bytes"));
  expectError(Reason::not_a_database, [&] { Database::open(path("text")); });
  writeFile(path("empty"), {});
  expectError(Reason::not_a_database, [&] { Database::open(path("empty")); });
  writeFile(path("short"), bytesOf("QVdb").be(2, 100));
  expectError(Reason::not_a_database, [&] { Database::open(path("short")); });
  expectError(Reason::no_such_file, [&] { Database::open(path("text/below.qvd")); });
  expectError(Reason::path_not_reachable,
              [&] { Database::open(path(std::string(300, 'x') + ".qvd")); });
  allowDamage("short");
}

TEST_F(LayerDatabase, OfAnotherVersionIsRefusedButCanBeInspected) {
  FileImage image;
  image.header().version = 250;
  allowDamage();
  writeFile(path(), image.build());
  const auto message = expectError(Reason::version_out_of_range, [&] { openDatabase(); });
  EXPECT_NE(message.find("250"), std::string::npos) << message;
  EXPECT_EQ(Database::inspect(path()).version, 250);
  EXPECT_FALSE(Database::inspect(path()).version_is_usable());
}

TEST_F(LayerDatabase, OpenExclusivelyKeepsOtherWritersOut) {
  auto first = createDatabase();
  expectError(Reason::in_use, [&] { openDatabase(Mode::exclusive); });
  EXPECT_TRUE(openDatabase(Mode::read_only).is_open());
  first.close();
  EXPECT_TRUE(openDatabase(Mode::exclusive).is_open());
}

TEST_F(LayerDatabase, ThatMayNotBeReadOrWrittenSaysSo) {
  createDatabase();
  for (const mode_t mode : {0444u, 0000u}) {
    ::chmod(path().c_str(), mode);
    Unprivileged user(folder.path());
    if (!user) GTEST_SKIP() << "root cannot act as another user here";
    expectError(Reason::access_denied, [&] { openDatabase(Mode::exclusive); });
    expectError(Reason::access_denied, [&] { openDatabase(Mode::shared); });
    if (mode != 0) {
      EXPECT_TRUE(openDatabase(Mode::any).is_open());
    } else {
      expectError(Reason::access_denied, [&] { openDatabase(Mode::read_only); });
    }
    expectError(Reason::access_denied, [&] { Database::create(path(), {.overwrite = true}); });
  }
  ::chmod(path().c_str(), 0644);
}

TEST_F(LayerDatabase, InAFolderThatMayNotBeUsedSaysSo) {
  createDatabase("closed/test.qvd");
  ::chmod(path("closed").c_str(), 0);
  {
    Unprivileged user(folder.path());
    if (!user) GTEST_SKIP() << "root cannot act as another user here";
    expectError(Reason::access_denied, [&] { Database::open(path("closed/test.qvd")); });
    expectError(Reason::access_denied, [&] { Database::create(path("closed/new.qvd")); });
    expectError(Reason::access_denied, [&] { Database::create(path("closed/deeper/new.qvd")); });
  }
  ::chmod(path("closed").c_str(), 0755);
}

// Somebody else may be about to fill it.
TEST_F(LayerDatabase, ThatCannotBeCreatedLeavesAFileThatHasAppearedMeanwhile) {
  allowDamage();
  RecordedCalls host;
  host.observe([&](Call call) {
    if (call == Call::open) std::ofstream(path(), std::ios::app);
  });
  host.failFrom(Call::open);
  EXPECT_THROW(Database::create(path()), qvdb::Error);
  host.heal();
  EXPECT_TRUE(std::filesystem::exists(path()));
}

TEST_F(LayerDatabase, ThatCannotBeWrittenIsNotLeftHalfMade) {
  RecordedCalls host;
  host.failFrom(Call::write);
  EXPECT_NE(expectError(Reason::cannot_write, [&] { Database::create(path()); })
                .find("the file cannot be written"),
            std::string::npos);
  host.heal();
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(host.openDescriptors(), 0u);
}

TEST_F(LayerDatabase, OpenedForReadingIsNeverWritten) {
  {
    auto database = createDatabase();
    auto table = database.add_table("notes");
    table.add(span(bytesOf("x")));
  }
  auto database = openDatabase(Mode::read_only);
  auto table = database.table("notes");
  auto all = table.records();
  const qvdb::Record record = *all.begin();
  expectUnchanged([&] {
    expectError(Reason::read_only, [&] { database.add_table("more"); });
    expectError(Reason::read_only, [&] { database.set_version(150); });
    expectError(Reason::read_only, [&] { table.add({}); });
    expectError(Reason::read_only, [&] { table.add_with_id(qvdb::Id{1}, {}); });
    expectError(Reason::read_only, [&] { table.modify(record.id(), span(bytesOf("y"))); });
    expectError(Reason::read_only, [&] { table.modify(record, span(bytesOf("y"))); });
    expectError(Reason::read_only, [&] { table.touch(record.id()); });
    expectError(Reason::read_only, [&] { table.touch(record); });
    expectError(Reason::read_only, [&] { table.remove(record.id()); });
    expectError(Reason::read_only, [&] { table.remove(record); });
    expectError(Reason::read_only, [&] { table.set_data(span(bytesOf("y"))); });
  });
}

TEST_F(LayerDatabase, ClosesItselfAndItsTablesAndRecordsSayThatItIsClosed) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.add(span(bytesOf("x")));
  auto records = table.records();
  const qvdb::Record record = *records.begin();
  auto walk = records.begin();
  database.close();
  database.close();
  EXPECT_FALSE(database.is_open());
  expectError(Reason::not_open, [&] { static_cast<void>(database.tables()); });
  expectError(Reason::not_open, [&] { static_cast<void>(table.count()); });
  expectError(Reason::not_open, [&] { static_cast<void>(record.payload()); });
  expectError(Reason::not_open, [&] { ++walk; });
  expectError(Reason::not_open, [&] { static_cast<void>(database.path()); });
  expectError(Reason::not_open, [&] { static_cast<void>(database.mode()); });
  expectError(Reason::not_open, [&] { static_cast<void>(database.handle()); });
  expectError(Reason::not_open, [&] { static_cast<void>(Database().tables()); });
}

TEST_F(LayerDatabase, MovesWithItsTables) {
  auto first = createDatabase("a.qvd");
  auto table = first.add_table("notes");
  auto second = createDatabase("b.qvd");
  second = std::move(first);
  // What the target held is closed, and can be opened by others.
  EXPECT_TRUE(openDatabase(Mode::exclusive, "b.qvd").is_open());
  EXPECT_FALSE(first.is_open());  // NOLINT: that a moved-from one is closed is what is tested
  table.add(span(bytesOf("x")));
  EXPECT_EQ(second.table("notes").count(), 1u);
}

TEST_F(LayerDatabase, CanBeMixedWithTheCFunctions) {
  auto database = createDatabase();
  const uint64_t table = addTable(database.handle(), "notes");
  addRecord(database.handle(), table, bytesOf("by hand"));
  EXPECT_EQ(idsOf(database.table("notes")).size(), 1u);

  auto adopted = Database::adopt(CreateDBaseW(wide("other.qvd"), "QVdb", 100), path("other.qvd"),
                                 Mode::exclusive);
  adopted.add_table("mine");
  adopted.close();
  EXPECT_EQ(openDatabase(Mode::read_only, "other.qvd").tables().size(), 1u);
}

TEST_F(LayerDatabase, KeepsTheFilePositionOfItsHandle) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  const qvdb::Id id = table.add(span(bytesOf("x")), 100);
  expectPositionKept(database.handle(), [&] {
    static_cast<void>(database.info());
    static_cast<void>(database.tables());
    static_cast<void>(database.find_table("notes"));
    table.modify(id, span(bytesOf("y")));
    table.modify(*table.find(id), span(bytesOf("z")));
    table.touch(*table.find(id));
    static_cast<void>(table.get(id));
    static_cast<void>(idsOf(table));
    table.set_data(span(bytesOf("data")));
    static_cast<void>(table.data());
    table.remove(*table.find(table.add({})));
    expectError(Reason::table_exists, [&] { database.add_table("notes"); });
  });
}

TEST_F(LayerDatabase, SyncsAndSetsItsVersion) {
  auto database = createDatabase();
  database.set_version(150);
  expectError(Reason::bad_argument, [&] { database.set_version(99); });
  database.sync();
  EXPECT_EQ(header().version, 150);
}

// ---- Paths

using LayerPaths = LayerTest;

class WorkingFolder {
 public:
  explicit WorkingFolder(const std::filesystem::path& to) : old_(std::filesystem::current_path()) {
    std::filesystem::current_path(to);
  }
  ~WorkingFolder() { std::filesystem::current_path(old_); }

 private:
  std::filesystem::path old_;
};

TEST_F(LayerPaths, MayBeRelative) {
  std::filesystem::create_directory(path("sub"));
  WorkingFolder inside(path("sub"));
  Database::create("here.qvd");
  Database::create("../above.qvd");
  Database::create("./deep/x.qvd", {.create_folders = true});
  EXPECT_TRUE(std::filesystem::exists(path("sub/here.qvd")));
  EXPECT_TRUE(std::filesystem::exists(path("above.qvd")));
  EXPECT_TRUE(std::filesystem::exists(path("sub/deep/x.qvd")));
}

TEST_F(LayerPaths, OfAnyLegalNameThatTheFileLayerTakesAreReached) {
  for (const char* name :
       {"with blank/a b.qvd", "ümläut/日本.qvd", "'quote'/x'.qvd", "a,b;c/*?.qvd",
        "x/  two  blanks .qvd", "y/tab\tin name.qvd", "z/\"quoted\".qvd"}) {
    Database::create(path(name), {.create_folders = true}).close();
    EXPECT_TRUE(std::filesystem::exists(path(name))) << name;
    EXPECT_TRUE(Database::open(path(name)).is_open()) << name;
  }
}

TEST_F(LayerPaths, WithFoldersThatWouldBeTakenForOthersAreRefused) {
  std::filesystem::create_directory(path("a b"));
  for (const char* name : {"a  b", " a b", "a b ", "a\tb", "a\"b", "a\\b", " ", "\""}) {
    std::filesystem::create_directory(path(name));
    expectError(Reason::path_not_reachable,
                [&] { Database::create(path(std::string(name) + "/x.qvd")); });
    EXPECT_TRUE(std::filesystem::is_empty(path(name))) << name;
  }
  EXPECT_TRUE(std::filesystem::is_empty(path("a b")));
}

TEST_F(LayerPaths, ThatAreNoPathsAreRefused) {
  expectError(Reason::path_not_reachable, [&] { Database::open(""); });
  expectError(Reason::path_not_reachable, [&] { Database::open(path("back\\slash")); });
  expectError(Reason::path_not_reachable, [&] {
    Database::open(
        path("bad\xff"
             "utf8"));
  });
  expectError(Reason::path_not_reachable, [&] { Database::open(path("folder/")); });
  expectError(Reason::path_not_reachable, [&] { Database::open(std::string("zero\0x", 6)); });
  std::string deep;
  for (int i = 0; i < 25; ++i) deep += std::string(90, 'x') + "/";
  expectError(Reason::path_not_reachable, [&] { Database::open(path(deep + "x.qvd")); });
}

TEST_F(LayerPaths, MayHaveUpTo2047Characters) {
  std::string name = folder.path().native();
  while (name.size() + 101 < 2040) name += "/" + std::string(100, 'x');
  name += "/" + std::string(2046 - name.size(), 'y');
  ASSERT_EQ(name.size(), 2047u);
  EXPECT_TRUE(Database::create(name, {.create_folders = true}).is_open());
  EXPECT_EQ(Database::native_path(name).size(), 2047u);
  expectError(Reason::path_not_reachable, [&] { Database::open(name + "y"); });
}

// ---- Tables

using LayerTables = LayerTest;

TEST_F(LayerTables, AreAddedFoundAndListed) {
  auto database = createDatabase();
  const auto notes = database.add_table("notes");
  const auto other = database.add_table("Notes");
  ASSERT_EQ(database.tables().size(), 2u);
  EXPECT_EQ(database.tables()[1].name(), "Notes");
  EXPECT_EQ(database.tables()[1].id(), other.id());
  EXPECT_EQ(database.find_table("notes")->id(), notes.id());
  EXPECT_EQ(database.find_table(other.id())->name(), "Notes");
  EXPECT_FALSE(database.find_table("absent").has_value());
  EXPECT_FALSE(database.find_table(qvdb::Id{1}).has_value());
  expectError(Reason::table_missing, [&] { static_cast<void>(database.table("absent")); });
  EXPECT_EQ(slot(1).name(), "Notes");
}

TEST_F(LayerTables, HaveNamesOf1To32Bytes) {
  auto database = createDatabase();
  const std::string longest(32, 'n');
  expectUnchanged([&] {
    expectError(Reason::bad_name, [&] { database.add_table(""); });
    expectError(Reason::bad_name, [&] { database.add_table(std::string_view("a\0b", 3)); });
    expectError(Reason::name_too_long, [&] { database.add_table(longest + "x"); });
  });
  const auto table = database.add_table(longest);
  EXPECT_EQ(database.find_table(longest)->id(), table.id());
  EXPECT_FALSE(database.find_table(longest + "x").has_value());
  expectError(Reason::table_exists, [&] { database.add_table(longest); });
}

TEST_F(LayerTables, Are31AtMost) {
  auto database = createDatabase();
  for (int i = 0; i < 31; ++i) database.add_table("t" + std::to_string(i));
  expectUnchanged([&] {
    expectError(Reason::directory_full, [&] { database.add_table("one more"); });
    expectError(Reason::table_exists, [&] { database.add_table("t7"); });
  });
}

TEST_F(LayerTables, AfterADamagedSlotCannotBeReached) {
  FileImage image;
  image.addTable("one", 1);
  image.addTable("two", 2);
  image.addTable("three", 3);
  image.slot(1).slotEndMark = 0;
  allowDamage();
  auto database = openImage(image);
  EXPECT_TRUE(database.find_table("one").has_value());
  const auto message =
      expectError(Reason::directory_damaged, [&] { static_cast<void>(database.tables()); });
  EXPECT_NE(message.find("entry 2"), std::string::npos) << message;
  expectError(Reason::directory_damaged, [&] { static_cast<void>(database.find_table("three")); });
  expectError(Reason::directory_damaged, [&] { database.add_table("four"); });
}

// Its slot is the next one to be taken: the name, the counts and the way to its blocks would be
// lost.
TEST_F(LayerTables, ThatTheHeaderDoesNotCountAreNotOverwritten) {
  for (const bool hasRecords : {true, false}) {
    {
      auto database = Database::create(path(), {.overwrite = true});
      auto lost = database.add_table("lost");
      if (hasRecords) lost.add("payload");
      if (!hasRecords) lost.set_data("data");
    }
    Bytes file = contents();
    file[17] = 0;  // the number of tables
    writeFile(path(), file);
    allowDamage();
    expectUnchanged([&] {
      auto database = openDatabase();
      const auto message =
          expectError(Reason::directory_damaged, [&] { database.add_table("new"); });
      EXPECT_NE(message.find("table 'lost'"), std::string::npos) << message;
      expectError(Reason::directory_damaged, [&] { database.find_or_add_table("new"); });
    });
  }
}

// Adding a table may have been interrupted before the table was counted.
TEST_F(LayerTables, ThatWereNotAddedWhollyMakeWay) {
  createDatabase().add_table("half");
  Bytes file = contents();
  file[17] = 0;  // the number of tables
  writeFile(path(), file);
  auto database = openDatabase();
  database.add_table("new");
  EXPECT_EQ(database.tables().size(), 1u);
  EXPECT_FALSE(database.contains("half"));
}

TEST_F(LayerTables, ThatAreGoneSaySo) {
  FileImage image;
  image.addTable("one", 1);
  auto database = openImage(image);
  const auto table = database.table("one");
  FileImage another;
  another.addTable("another", 2);
  patchFile(path(), 0, another.build());
  expectError(Reason::table_missing, [&] { static_cast<void>(table.count()); });
}

TEST_F(LayerTables, TellWhatTheirSlotsHold) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.add(span(pattern(10)));
  table.remove(*table.find(table.add({})));
  table.set_data(span(bytesOf("x")));
  const auto info = table.info();
  EXPECT_EQ(info.name, "notes");
  EXPECT_EQ(info.id, table.id());
  EXPECT_EQ(info.version, 100);
  EXPECT_EQ(info.record_count, 1u);
  EXPECT_EQ(info.record_write_count, 2u);
  EXPECT_EQ(info.data_write_count, 1u);
  EXPECT_EQ(info.first_record_position, 4630);
  EXPECT_EQ(info.last_record_position, 4630);
  EXPECT_EQ(info.data_position, 4630 + 66 + 56);
}

// ---- Table data

using LayerTableData = LayerTest;

TEST_F(LayerTableData, IsAbsentAtFirst) {
  auto database = createDatabase();
  const auto table = database.add_table("notes");
  EXPECT_FALSE(table.data_size().has_value());
  EXPECT_FALSE(table.data().has_value());
  std::vector<std::byte> piece(10);
  EXPECT_EQ(table.read_data(0, piece), 0u);
}

TEST_F(LayerTableData, IsStoredAndReadWholeAndInPieces) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.set_data(span(pattern(60)), 100);
  EXPECT_EQ(bytes(table.data()), pattern(60));
  const auto size = fileSize();
  table.set_data(span(pattern(100, 2)));
  EXPECT_EQ(fileSize(), size);
  EXPECT_EQ(table.data_size(), 100u);
  std::vector<std::byte> piece(30);
  EXPECT_EQ(table.read_data(90, piece), 10u);
  EXPECT_EQ(bytes(std::span(piece).first(10)), pattern(100, 2).from(90));
  EXPECT_EQ(table.read_data(100, piece), 0u);
}

TEST_F(LayerTableData, MayBeEmptyWhichIsNotAbsent) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.set_data(span(bytesOf("x")));
  table.set_data({});
  EXPECT_EQ(table.data_size(), 0u);
  EXPECT_EQ(bytes(table.data()), Bytes());
}

TEST_F(LayerTableData, ThatIsDamagedSaysSo) {
  FileImage image;
  image.addTable("notes", 1);
  const auto at = image.setTableData(0, bytesOf("data"));
  allowDamage();
  image.tableData(at).dataLength = 0xFFFFFFF0;
  {
    auto database = openImage(image);
    expectError(Reason::data_damaged, [&] { static_cast<void>(database.table("notes").data()); });
  }
  image.tableData(at).blockMark = 7;
  auto database = openImage(image);
  auto table = database.table("notes");
  expectError(Reason::data_damaged, [&] { static_cast<void>(table.data()); });
  expectError(Reason::data_damaged, [&] { static_cast<void>(table.data_size()); });
  expectError(Reason::data_damaged, [&] { table.set_data(span(bytesOf("new"))); });
}

}  // namespace
}  // namespace qvdbase::test
