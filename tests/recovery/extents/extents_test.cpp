// qvdb::visit_extents
#include <qvdbase/qvdb.hpp>

#include <map>
#include <random>

#include "format/intent.h"
#include "kit/database_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Extent;
using qvdb::ExtentUse;

std::vector<Extent> extentsOf(const Bytes& file) {
  std::vector<Extent> extents;
  const auto report = qvdb::visit_extents(std::as_bytes(std::span(file)),
                                          [&](const Extent& extent) { extents.push_back(extent); });
  EXPECT_EQ(report.file_size, static_cast<int64_t>(file.size()));
  int64_t position = 0;
  for (const Extent& extent : extents) {
    EXPECT_EQ(extent.offset, position);
    EXPECT_GT(extent.size, 0);
    EXPECT_LE(extent.reserve, extent.size);
    position += extent.size;
  }
  EXPECT_EQ(position, report.file_size);
  return extents;
}

// The sums under the names that SpaceUse has.
void expectSumsOfTheCheck(const Bytes& file) {
  std::map<ExtentUse, uint64_t> sums;
  uint64_t reserve = 0;
  for (const Extent& extent : extentsOf(file)) {
    sums[extent.use] += static_cast<uint64_t>(extent.size);
    reserve += static_cast<uint64_t>(extent.reserve);
  }
  const qvdb::SpaceUse space = qvdb::check_image(std::as_bytes(std::span(file))).space;
  EXPECT_EQ(sums[ExtentUse::directory], space.directory);
  EXPECT_EQ(sums[ExtentUse::record], space.records);
  EXPECT_EQ(sums[ExtentUse::table_data], space.table_data);
  EXPECT_EQ(sums[ExtentUse::superseded] + sums[ExtentUse::intent], space.superseded);
  EXPECT_EQ(sums[ExtentUse::deleted], space.deleted);
  EXPECT_EQ(sums[ExtentUse::unlinked], space.unlinked);
  EXPECT_EQ(sums[ExtentUse::lost], space.lost);
  EXPECT_EQ(sums[ExtentUse::orphan], space.orphans);
  EXPECT_EQ(sums[ExtentUse::torn] + sums[ExtentUse::unknown], space.unknown);
  EXPECT_EQ(reserve, space.reserve);
}

// Positions and sizes by docs/format.md: 4,630 bytes of directory, 56 and the capacity for a
// record, 22 and the capacity for table data.
TEST(Extents, NameEveryPartOfAFile) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.addRecord(table, 0xA1, bytesOf("first"), {.reserve = 20});
  image.setTableData(table, bytesOf("12345678"));
  Bytes file = image.build();
  file.add(bytesOf("no block"));
  const auto extents = extentsOf(file);
  ASSERT_EQ(extents.size(), 4u);
  EXPECT_EQ(extents[0].use, ExtentUse::directory);
  EXPECT_EQ(extents[0].size, 4630);
  EXPECT_EQ(extents[1].use, ExtentUse::record);
  EXPECT_EQ(extents[1].size, 76);
  EXPECT_EQ(extents[1].reserve, 15);
  EXPECT_EQ(extents[1].table, qvdb::Id{0x11});
  EXPECT_EQ(extents[1].record, qvdb::Id{0xA1});
  EXPECT_FALSE(extents[1].is_table_data);
  EXPECT_EQ(extents[2].use, ExtentUse::table_data);
  EXPECT_EQ(extents[2].size, 30);
  EXPECT_TRUE(extents[2].is_table_data);
  EXPECT_EQ(extents[3].use, ExtentUse::unknown);
  EXPECT_EQ(extents[3].size, 8);
  expectSumsOfTheCheck(file);
}

// The table of intents is in no directory: docs/format.md has its identifier.
TEST(Extents, KnowTheIntentsOfTransactions) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.addRecord(table, 0xA1, bytesOf("first"));
  RecordFields intent;
  std::copy_n(format::kIntentTableID.begin(), 10, intent.tableID.begin());
  intent.recordID = identifier(0xF1);
  image.addDeadRecord(intent);
  const Bytes file = image.build();
  const auto extents = extentsOf(file);
  ASSERT_EQ(extents.size(), 3u);
  EXPECT_EQ(extents[2].use, ExtentUse::intent);
  expectSumsOfTheCheck(file);
}

class ExtentsOfDatabases : public DatabaseTest {};

TEST_F(ExtentsOfDatabases, AddUpAsTheCheckCounts) {
  const int16_t db = create();
  const uint64_t notes = addTable(db, "notes");
  setTableData(db, notes, bytesOf("data"), 50);
  std::vector<uint64_t> ids;
  for (int i = 0; i < 20; ++i) ids.push_back(addRecord(db, notes, bytesOf("payload"), 30));
  const Bytes longer(100, 'x');
  int status = 0;
  ASSERT_EQ(ModifyRecordData(db, notes, longer.data(), 100, ids[3], &status), 1);
  ASSERT_EQ(DeleteOneRecord(db, notes, ids[7], &status), 1);
  setTableData(db, notes, longer);
  close(db);
  const Bytes file = contents();
  expectSumsOfTheCheck(file);
  std::map<ExtentUse, int> counts;
  qvdb::visit_extents(path(), [&](const Extent& extent) { ++counts[extent.use]; });
  EXPECT_EQ(counts[ExtentUse::record], 19);
  EXPECT_EQ(counts[ExtentUse::superseded], 2);
  EXPECT_EQ(counts[ExtentUse::deleted], 1);
  for (const size_t end :
       {file.size() - 1, file.size() - 50, file.size() / 2, size_t{4630}, size_t{100}}) {
    expectSumsOfTheCheck(file.cut(end));
  }
}

TEST_F(ExtentsOfDatabases, LeaveOutNoByteOfADamagedFile) {
  const int16_t db = create();
  const uint64_t notes = addTable(db, "notes");
  for (int i = 0; i < 10; ++i) addRecord(db, notes, bytesOf("payload"), 30);
  close(db);
  const Bytes sound = contents();
  std::mt19937 random(4711);
  for (int round = 0; round < 300; ++round) {
    Bytes file = sound;
    for (int i = 0; i < 4; ++i) file.at(random() % file.size()) = static_cast<uint8_t>(random());
    static_cast<void>(extentsOf(file));
  }
  static_cast<void>(extentsOf({}));
  static_cast<void>(extentsOf(bytesOf("no database")));
}

TEST_F(ExtentsOfDatabases, SayWhetherAnotherProcessWrites) {
  create();
  const qvdb::ExtentsReport report = qvdb::visit_extents(path(), {});
  EXPECT_FALSE(report.in_use);  // this process has it open
  EXPECT_EQ(report.writer.process, 0);
  EXPECT_FALSE(report.writer.is_this_process);
  EXPECT_THROW(qvdb::visit_extents(path("missing.qvd"), {}), qvdb::Error);
}

TEST_F(ExtentsOfDatabases, PassOnWhatTheVisitorThrows) {
  close(create());
  EXPECT_THROW(qvdb::visit_extents(path(), [](const Extent&) { throw 5; }), int);
}

}  // namespace
}  // namespace qvdbase::test
