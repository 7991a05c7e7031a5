// What a table and its records get when they are restored as they were: identifiers, times,
// capacities, flags, counters; and databases that appear under their name when they are complete.
#include <gtest/gtest.h>

#include "kit/file_reader.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::GivenIds;
using qvdb::Id;
using qvdb::NewRecord;
using qvdb::NewTable;
using qvdb::Reason;

class LayerRestore : public LayerTest {
 protected:
  // A record with everything given.
  static NewRecord record(uint64_t id, std::string_view payload) {
    NewRecord made(payload, 20, Id{id});
    made.create_time = 1000;
    made.modify_time = 2000;
    return made;
  }

  ReadTable onlyTable() { return readDatabase(path()).tables.at(0); }
};

TEST_F(LayerRestore, ADatabaseGetsTheIdentifierThatIsGiven) {
  Database::create(path(), {.id = Id{0x1122334455667788}}).close();
  const Bytes file = readFile(path());
  EXPECT_EQ(file.at(6, 10), hex("1122334455667788 0264"));
  EXPECT_EQ(Database::inspect(path()).id, Id{0x1122334455667788});
}

TEST_F(LayerRestore, ATableGetsEverythingThatIsGiven) {
  auto database = createDatabase();
  NewTable given("notes");
  given.id = Id{0x1102};
  given.version = 7;
  given.flags_1 = 0x1234;
  given.flags_2 = 0x5678;
  given.record_write_count = 40;
  given.data_write_count = 50;
  auto table = database.add_table(given);
  EXPECT_EQ(table.id(), Id{0x1102});
  table.add("one");
  table.set_data("data", 10);
  const Bytes slot = readFile(path()).at(22, 144);
  EXPECT_EQ(slot.at(4, 2), hex("0700"));
  EXPECT_EQ(slot.at(6, 10), hex("0000000000001102 0013"));
  EXPECT_EQ(slot.at(48, 4), hex("3412 7856"));
  EXPECT_EQ(slot.at(64, 4), hex("29000000"));
  EXPECT_EQ(slot.at(104, 4), hex("33000000"));

  const qvdb::TableInfo info = table.info();
  EXPECT_EQ(info.version, 7);
  EXPECT_EQ(info.flags_1, 0x1234);
  EXPECT_EQ(info.flags_2, 0x5678);
  EXPECT_EQ(info.record_write_count, 41u);
  EXPECT_EQ(info.data_write_count, 51u);
  EXPECT_EQ(info.data_block_count, 1u);
  EXPECT_EQ(info.last_written_record_position, 4630);
  EXPECT_EQ(info.last_written_data_position, info.data_position);
  EXPECT_EQ(info.last_data_position, info.data_position);
  EXPECT_EQ(table.data_capacity(), 10u);
}

TEST_F(LayerRestore, ATableWithoutDataHasNoCapacityForIt) {
  auto database = createDatabase();
  EXPECT_EQ(database.add_table("t").data_capacity(), std::nullopt);
}

TEST_F(LayerRestore, ATableIdentifierThatExistsIsRefusedAndNothingIsWritten) {
  auto database = createDatabase();
  const auto first = database.add_table("first");
  expectUnchanged([&] {
    NewTable again("second");
    again.id = first.id();
    const std::string why = expectError(Reason::table_exists, [&] { database.add_table(again); });
    EXPECT_NE(why.find("table 'first' has the identifier"), std::string::npos) << why;
    again.id = Id{0};
    expectError(Reason::bad_argument, [&] { database.add_table(again); });
    expectError(Reason::bad_name, [&] { database.add_table(NewTable("")); });
    expectError(Reason::table_exists, [&] { database.add_table(NewTable("first")); });
  });
}

TEST_F(LayerRestore, ATableMayRepeatANameWhereThatIsAskedFor) {
  auto database = createDatabase();
  const auto first = database.add_table("notes");
  NewTable again("notes");
  again.may_repeat_name = true;
  const auto second = database.add_table(again);
  expectDamage(kDefaultFile, {"D4"});
  EXPECT_NE(first.id(), second.id());
  EXPECT_EQ(database.table("notes").id(), first.id());
  EXPECT_EQ(database.tables().size(), 2u);
}

TEST_F(LayerRestore, ARecordGetsEverythingThatIsGiven) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  EXPECT_EQ(table.add(record(0xA0, "alone")), Id{0xA0});
  auto bulk = table.appender();
  bulk.add(record(0xA1, "in a batch"));
  auto writer = bulk.writer(record(0xA2, "begun "));
  writer.write("and continued");
  writer.finish();
  bulk.finish();
  auto single = table.writer(record(0xA3, "by a writer"));
  single.finish();
  database.close();
  const char* const payloads[] = {"alone", "in a batch", "begun and continued", "by a writer"};
  const ReadTable read = onlyTable();
  ASSERT_EQ(read.records.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    const ReadRecord& found = read.records[i];
    EXPECT_EQ(found.id, 0xA0 + i);
    EXPECT_EQ(found.fields.createTime, 1000u);
    EXPECT_EQ(found.fields.modifyTime, 2000u);
    EXPECT_EQ(found.fields.dataCapacity, 20u);
    EXPECT_EQ(found.fields.data(), bytesOf(payloads[i]));
  }
}

TEST_F(LayerRestore, ATimeOfModificationThatIsNotGivenIsThatOfCreation) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  NewRecord made("x");
  made.create_time = 77;
  EXPECT_EQ(table.find(table.add(made))->info().modify_time, 77u);
}

TEST_F(LayerRestore, ARecordIdentifierThatExistsIsRefusedAndNothingIsWritten) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (const uint64_t id : {5u, 6u, 7u}) table.add_with_id(Id{id}, "x");
  expectUnchanged([&] {
    for (const uint64_t id : {5u, 6u, 7u}) {
      const std::string why =
          expectError(Reason::record_exists, [&] { table.add(NewRecord("y", 0, Id{id})); });
      EXPECT_NE(why.find("exists already"), std::string::npos) << why;
      expectError(Reason::record_exists, [&] { table.writer(NewRecord("y", 0, Id{id})); });
    }
    expectError(Reason::bad_argument, [&] { table.add(NewRecord("y", 0, Id{0})); });
  });
}

// The batch goes on after each refusal; the records of the batch count, those with identifiers of
// their own that were added before included.
TEST_F(LayerRestore, ABatchRefusesIdentifiersOfTheTableAndItsOwn) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add_with_id(Id{5}, "x");
  auto bulk = table.appender();
  const Id generated = bulk.add("generated");
  const auto refused = [&](Id id) {
    expectError(Reason::record_exists, [&] { bulk.add(NewRecord("y", 0, id)); });
  };
  refused(generated);
  bulk.add(NewRecord("six", 0, Id{6}));
  const Id later = bulk.add("generated later");
  for (const Id id : {Id{5}, Id{6}, generated, later}) refused(id);
  expectError(Reason::record_exists, [&] { bulk.writer(NewRecord("", 0, Id{6})); });
  auto writer = bulk.writer(NewRecord("", 0, Id{8}));
  writer.finish();
  refused(Id{8});
  bulk.add(NewRecord("nine", 0, Id{9}));
  EXPECT_EQ(bulk.finish(), 5u);
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{5, generated.value, 6, later.value, 8, 9}));
}

TEST_F(LayerRestore, IdentifiersAreTakenAsTheyAreWhereThatIsAskedFor) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  for (const uint64_t id : {5u, 5u, 0u}) {
    NewRecord made("x", 0, Id{id});
    made.given_ids = GivenIds::as_they_are;
    bulk.add(made);
  }
  bulk.finish();
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{5, 5, 0}));
}

TEST_F(LayerRestore, TheRecordThatWasWrittenLastCanBeSet) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (const uint64_t id : {5u, 6u, 7u}) table.add_with_id(Id{id}, "x");
  const auto middle = table.find(Id{6});
  EXPECT_TRUE(table.set_last_written(*middle));
  EXPECT_EQ(table.info().last_written_record_position, middle->info().position);
  EXPECT_EQ(onlyTable().slot.lastWrittenRecordPos, middle->info().position);
  table.remove(*middle);
  expectUnchanged([&] { EXPECT_FALSE(table.set_last_written(*middle)); });
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{5, 7}));
}

TEST_F(LayerRestore, ADatabaseAppearsWhenItIsPlaced) {
  auto database = Database::create(path(), {.place = false});
  database.add_table("t").add("x");
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(names().size(), 1u);
  database.place();
  EXPECT_EQ(names(), (std::vector<std::string>{kDefaultFile}));
  EXPECT_TRUE(database.is_current());
  database.place();
  database.table("t").add("y");
  database.close();
  EXPECT_EQ(onlyTable().records.size(), 2u);
}

TEST_F(LayerRestore, ADatabaseThatIsNeverPlacedIsRemoved) {
  {
    auto database = Database::create(path(), {.place = false});
    database.add_table("t");
  }
  EXPECT_TRUE(names().empty());
  auto database = Database::create(path(), {.place = false});
  database.close();
  EXPECT_TRUE(names().empty());
  expectError(Reason::not_open, [&] { database.place(); });
}

TEST_F(LayerRestore, ANameThatWasTakenMeanwhileIsKept) {
  auto database = Database::create(path(), {.place = false});
  writeFile(path(), bytesOf("another file"));
  expectError(Reason::file_exists, [&] { database.place(); });
  database.close();
  EXPECT_EQ(readFile(path()), bytesOf("another file"));
  EXPECT_EQ(names().size(), 1u);
  std::filesystem::remove(path());
}

TEST_F(LayerRestore, ADatabaseCanBeReplacedByOneThatIsMadeFromIt) {
  createDatabase().add_table("t").add("old");
  {
    const auto old = openDatabase(qvdb::Mode::read_only);
    auto made = Database::create(path(), {.overwrite = true, .place = false});
    auto table = made.add_table("t");
    for (const qvdb::Record& record : old.table("t").records()) table.add(record.payload());
    table.add("new");
    made.place();
    EXPECT_FALSE(old.is_current());
  }
  EXPECT_EQ(onlyTable().records.size(), 2u);
  EXPECT_EQ(names().size(), 1u);
}

}  // namespace
}  // namespace qvdbase::test
