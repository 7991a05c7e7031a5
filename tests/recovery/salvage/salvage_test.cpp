// What a salvage writes: what was in use, as it was; nothing else unless asked for.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include "platform/host/system_calls.h"
#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

TEST(Salvage, GivesBackASoundFileAsItWas) {
  for (const BaseFile& base : baseFiles()) {
    const Salvaged saved = salvaged(base.bytes);
    const ReadDatabase before = readDatabase(base.bytes);
    EXPECT_EQ(saved.database.header.encode(), before.header.encode());
    ASSERT_EQ(saved.database.tables.size(), before.tables.size()) << base.name;
    for (size_t i = 0; i < before.tables.size(); ++i) {
      const ReadTable& was = before.tables[i];
      const ReadTable& is = saved.database.tables[i];
      EXPECT_EQ(is.id, was.id);
      EXPECT_EQ(is.name, was.name);
      EXPECT_EQ(is.slot.recordWriteCount, was.slot.recordWriteCount);
      EXPECT_EQ(contentsOf(is), contentsOf(was));
      for (size_t r = 0; r < was.records.size(); ++r) {
        EXPECT_EQ(is.records[r].fields.createTime, was.records[r].fields.createTime);
        EXPECT_EQ(is.records[r].fields.modifyTime, was.records[r].fields.modifyTime);
        EXPECT_EQ(is.records[r].fields.dataCapacity, was.records[r].fields.dataCapacity);
      }
      ASSERT_EQ(is.data.has_value(), was.data.has_value());
      if (was.data) {
        EXPECT_EQ(is.data->data(), was.data->data());
        EXPECT_EQ(is.data->dataCapacity, was.data->dataCapacity);
      }
    }
    EXPECT_TRUE(saved.report.notes.empty());
  }
}

TEST(Salvage, GivesBackRandomFilesAsTheyWere) {
  const uint64_t first = firstSeed();
  for (uint64_t seed = first; seed < first + seeds(10, 500); ++seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(200);
    database.close();
    const Salvaged saved = salvaged(readFile(database.path()));
    ASSERT_EQ(saved.database.tables.size(), database.tables().size());
    for (size_t i = 0; i < database.tables().size(); ++i) {
      Contents expected;
      for (const auto& record : database.tables()[i].records) {
        expected.emplace_back(record.id, record.payload);
      }
      EXPECT_EQ(contentsOf(saved.database.tables[i]), expected) << "QVDBASE_TEST_SEED=" << seed;
    }
  }
}

struct Parts {
  FileImage image;
  size_t table = image.addTable("notes", 0x11);
  int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
  int64_t b = image.addRecord(table, 0xA2, bytesOf("second"));
  int64_t c = image.addRecord(table, 0xA3, bytesOf("third"));
  int64_t d = image.addRecord(table, 0xA4, bytesOf("fourth"));
  int64_t e = image.addRecord(table, 0xA5, bytesOf("fifth"));

  const Contents all = {{0xA1, bytesOf("first")},
                        {0xA2, bytesOf("second")},
                        {0xA3, bytesOf("third")},
                        {0xA4, bytesOf("fourth")},
                        {0xA5, bytesOf("fifth")}};

  Contents saved(const qvdb::SalvageOptions& options = {}) {
    const Salvaged result = salvaged(image.build(), options);
    const ReadTable* notes = tableNamed(result.database, "notes");
    return notes != nullptr ? contentsOf(*notes) : Contents();
  }
};

TEST(Salvage, BringsBackWhatOnlyTheWalkFromTheBackReaches) {
  Parts parts;
  parts.image.record(parts.b).nextRecordPos = 0;
  EXPECT_EQ(parts.saved(), parts.all);
}

TEST(Salvage, BringsBackThePieceBetweenTwoBreaksInItsPlace) {
  Parts parts;
  parts.image.record(parts.b).blockMark = 0;
  parts.image.record(parts.d).blockMark = 0;
  EXPECT_EQ(parts.saved(), (Contents{parts.all[0], parts.all[2], parts.all[4]}));
}

TEST(Salvage, TakesInTheRecordOfAnAppendThatWasNotCounted) {
  for (const bool isLinked : {true, false}) {
    Parts parts;
    parts.image.slot(parts.table).recordCount = 4;
    parts.image.slot(parts.table).recordWriteCount = 4;
    parts.image.slot(parts.table).lastRecordPos = parts.d;
    parts.image.slot(parts.table).lastWrittenRecordPos = parts.d;
    if (!isLinked) parts.image.record(parts.d).nextRecordPos = 0;
    EXPECT_EQ(parts.saved(), parts.all) << isLinked;
  }
}

// Link repair ends a broken chain where it breaks, and does not touch what comes after.
TEST(Salvage, BringsBackAllThatLinkRepairHasCutOff) {
  TempFolder folder;
  Parts parts;
  parts.image.record(parts.b).nextRecordPos = 0;
  writeFile(folder / "a.qvd", parts.image.build());
  int result = 0;
  ASSERT_EQ(FixOneDBLinkErrorW(folder.wide("a.qvd"), nullptr, 0, nullptr, &result), 1);
  const Bytes repaired = readFile(folder / "a.qvd");
  ASSERT_EQ(readDatabase(repaired).tables[0].records.size(), 2u);
  EXPECT_EQ(contentsOf(salvaged(repaired).database.tables[0]), parts.all);
}

// Takes the third record out, as a deletion does.
void deleteThird(Parts* parts) {
  parts->image.record(parts->b).nextRecordPos = parts->d;
  parts->image.record(parts->d).prevRecordPos = parts->b;
  parts->image.slot(parts->table).recordCount = 4;
}

TEST(Salvage, LeavesDeletedRecordsOutUnlessTheyAreAskedFor) {
  Parts parts;
  deleteThird(&parts);
  const Contents without = {parts.all[0], parts.all[1], parts.all[3], parts.all[4]};
  EXPECT_EQ(parts.saved(), without);

  const Salvaged apart = salvaged(parts.image.build(), {.deleted = true});
  EXPECT_EQ(contentsOf(*tableNamed(apart.database, "notes")), without);
  ASSERT_NE(tableNamed(apart.database, "lost-and-found"), nullptr);
  EXPECT_EQ(contentsOf(*tableNamed(apart.database, "lost-and-found")), (Contents{parts.all[2]}));

  Contents with = without;
  with.push_back(parts.all[2]);
  EXPECT_EQ(parts.saved({.deleted = true, .in_place_tables = true}), with);
}

TEST(Salvage, LeavesOlderVersionsOutUnlessTheyAreAskedFor) {
  const BaseFile base = usedFile();
  EXPECT_EQ(salvaged(base.bytes).report.blocks_left_out, 3u);
  const Salvaged saved = salvaged(base.bytes, {.versions = true});
  const ReadTable* found = tableNamed(saved.database, "lost-and-found");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(contentsOf(*found), (Contents{{0xA2, pattern(21, 2)}}));
}

TEST(Salvage, KeepsBothVersionsOfARecordWhoseMoveWasCutOff) {
  Parts parts;
  RecordFields moved = parts.image.record(parts.b);
  moved.room = bytesOf("second, longer");
  moved.dataLength = moved.dataCapacity = 14;
  parts.image.addDeadRecord(moved);
  const Salvaged saved = salvaged(parts.image.build());
  EXPECT_EQ(contentsOf(*tableNamed(saved.database, "notes")), parts.all);
  EXPECT_EQ(contentsOf(*tableNamed(saved.database, "lost-and-found")),
            (Contents{{0xA2, bytesOf("second, longer")}}));
}

TEST(Salvage, FindsTheTableDataThatAPackLostSightOf) {
  Parts parts;
  parts.image.setTableData(parts.table, bytesOf("about the notes"), 30);
  for (auto* position :
       {&parts.image.slot(parts.table).firstDataPos, &parts.image.slot(parts.table).lastDataPos,
        &parts.image.slot(parts.table).lastWrittenDataPos}) {
    *position = 1 << 20;
  }
  const Salvaged saved = salvaged(parts.image.build());
  ASSERT_TRUE(saved.database.tables[0].data.has_value());
  EXPECT_EQ(saved.database.tables[0].data->data(), bytesOf("about the notes"));
}

TEST(Salvage, FindsTablesWithoutTheirDirectory) {
  Parts parts;
  Bytes bytes = parts.image.build();
  std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
  const Salvaged saved = salvaged(bytes);
  ASSERT_EQ(saved.database.tables.size(), 1u);
  EXPECT_EQ(saved.database.tables[0].id, 0x11u);
  EXPECT_EQ(saved.database.tables[0].name, "table-0000000000000011");
  EXPECT_EQ(contentsOf(saved.database.tables[0]), parts.all);
  EXPECT_FALSE(saved.report.notes.empty());
}

TEST(Salvage, FindsTablesWhenTheFrontOfTheFileIsMissing) {
  Parts parts;
  const Bytes bytes = parts.image.build().from(4630);
  const Salvaged saved = salvaged(bytes, {.from = -4630});
  ASSERT_EQ(saved.database.tables.size(), 1u);
  EXPECT_EQ(contentsOf(saved.database.tables[0]), parts.all);
}

TEST(Salvage, FindsADatabaseInTheMiddleOfAnImage) {
  Parts parts;
  Bytes image = pattern(10'000);
  image.add(parts.image.build()).add(pattern(3000));
  const Salvaged saved = salvaged(image, {.from = 10'000});
  ASSERT_EQ(saved.database.tables.size(), 1u);
  EXPECT_EQ(saved.database.tables[0].name, "notes");
  EXPECT_EQ(contentsOf(saved.database.tables[0]), parts.all);
}

TEST(Salvage, GivesATableBackTheIdentifierThatItsBlocksCarry) {
  Parts parts;
  parts.image.slot(parts.table).tableID[3] ^= 0x40;
  const Salvaged saved = salvaged(parts.image.build());
  ASSERT_EQ(saved.database.tables.size(), 1u);
  EXPECT_EQ(saved.database.tables[0].name, "notes");
  EXPECT_EQ(saved.database.tables[0].id, 0x11u);
  EXPECT_EQ(contentsOf(saved.database.tables[0]), parts.all);
}

// Two slots with the same identifier, of which one has a wrong sum: it is the other's.
TEST(Salvage, GivesNoIdentifierToTwoTables) {
  for (const bool isFirst : {false, true}) {
    FileImage image;
    if (isFirst) image.addTable("empty", 0x11);
    const size_t notes = image.addTable("notes", 0x11);
    if (!isFirst) image.addTable("empty", 0x11);
    image.addRecord(notes, 0xA1, bytesOf("text"));
    image.slot(isFirst ? 0 : 1).tableID[9] ^= 0x40;
    const Salvaged saved = salvaged(image.build());
    ASSERT_EQ(saved.database.tables.size(), 2u);
    const ReadTable& kept = saved.database.tables[notes];
    EXPECT_EQ(kept.id, 0x11u);
    EXPECT_EQ(contentsOf(kept), (Contents{{0xA1, bytesOf("text")}}));
    EXPECT_EQ(saved.database.tables[1 - notes].name, "empty");
    EXPECT_NE(saved.database.tables[1 - notes].id, 0x11u);
    ASSERT_EQ(saved.report.notes.size(), 1u);
    EXPECT_EQ(saved.report.notes[0],
              "The identifier of table 'empty' is damaged, and now equals that of another; "
              "it has a new one.");
  }
}

TEST(Salvage, TakesCutPayloadsWhenItIsAskedTo) {
  Parts parts;
  Bytes bytes = parts.image.build();
  bytes.putLe(slotOffset(0) + 88, 8, static_cast<uint64_t>(parts.d));  // as before the append
  bytes.putBe(static_cast<size_t>(parts.d) + 39, 8, 0);
  bytes.putLe(slotOffset(0) + 60, 4, 4);
  bytes.putLe(slotOffset(0) + 64, 4, 4);
  bytes.resize(static_cast<size_t>(parts.e) + 55 + 3);
  const Contents four(parts.all.begin(), parts.all.begin() + 4);
  EXPECT_EQ(contentsOf(salvaged(bytes).database.tables[0]), four);

  const Salvaged more = salvaged(bytes, {.lowest_grade = qvdb::BlockGrade::b});
  Contents five = four;
  five.emplace_back(0xA5, bytesOf("fif"));
  EXPECT_EQ(contentsOf(more.database.tables[0]), five);
  EXPECT_EQ(more.report.records_cut, 1u);
}

TEST(Salvage, EndsALoop) {
  Parts parts;
  parts.image.record(parts.e).nextRecordPos = parts.b;
  parts.image.slot(parts.table).recordCount = 0xFFFFFFFF;
  EXPECT_EQ(parts.saved(), parts.all);
}

// A database without tables is something; its header alone is enough to know it by.
TEST(Salvage, WritesAnEmptyDatabaseForAnEmptyOne) {
  for (const Bytes& bytes : {FileImage().build(), FileImage().build().at(0, 22)}) {
    EXPECT_TRUE(salvaged(bytes).database.tables.empty());
  }
}

TEST(Salvage, MakesNoFileWhenThereIsNothing) {
  TempFolder folder;
  for (const Bytes& bytes : {Bytes(), pattern(3), pattern(20'000), FileImage().build().at(0, 21)}) {
    try {
      qvdb::salvage_image(asBytes(bytes), folder / "saved.qvd");
      ADD_FAILURE() << "a file of " << bytes.size() << " bytes is salvaged";
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::not_a_database) << error.what();
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  }
}

TEST(Salvage, LeavesOutTablesThatADatabaseHasNoSpaceFor) {
  FileImage image;
  RecordFields record;
  for (uint64_t i = 1; i <= 40; ++i) {
    record.tableID = identifier(0x100 + i);
    record.recordID = identifier(i);
    image.addDeadRecord(record);
  }
  const Salvaged saved = salvaged(image.build());
  EXPECT_EQ(saved.database.tables.size(), 31u);
  EXPECT_EQ(saved.report.tables_left_out, 9u);
}

TEST(Salvage, ExtractsPayloadsWithAManifest) {
  TempFolder folder;
  Parts parts;
  const Bytes bytes = parts.image.build();
  qvdb::salvage_image(asBytes(bytes), folder / "saved.qvd", {}, {.extract_to = folder / "out"});
  const std::string name = std::to_string(parts.b) + ".bin";
  EXPECT_EQ(readFile(folder / "out" / name), bytesOf("second"));
  const std::string manifest = readFile(folder / "out" / "manifest.jsonl").str();
  EXPECT_EQ(std::count(manifest.begin(), manifest.end(), '\n'), 5);
  EXPECT_NE(manifest.find("{\"file\":\"" + name + "\",\"offset\":" + std::to_string(parts.b) +
                          ",\"kind\":\"record\",\"grade\":\"A\",\"label\":\"live\",\"table\":"
                          "\"0x0000000000000011\",\"name\":\"notes\",\"written_to\":\"notes\","
                          "\"record\":\"0x00000000000000a2\",\"created\":1000,\"modified\":1000,"
                          "\"length\":6,\"there\":6,\"fnv1a64\":\"" /* FNV-1a of "second" */),
            std::string::npos)
      << manifest;
}

TEST(Salvage, NamesTablesInTheManifestAsTheyAre) {
  struct Case {
    const char* name;
    const char* members;
  };
  // A name whose last character is cut in two has its bytes besides.
  for (const Case& each :
       {Case{"M\xC3\xB6"
             "bel",
             R"("name":"M\u00f6bel","written_to":"M\u00f6bel",)"},
        Case{"\xF0\x9F\x93\x9A\"\\", R"("name":"\ud83d\udcda\"\\","written_to":)"},
        Case{"M\xC3", R"("name":"M\ufffd","name_bytes":"4dc3","written_to":"M\ufffd",)"
                      R"("written_to_bytes":"4dc3",)"}}) {
    TempFolder folder;
    FileImage image;
    image.addRecord(image.addTable(each.name, 0x11), 0xA1, bytesOf("text"));
    const Bytes bytes = image.build();
    qvdb::salvage_image(asBytes(bytes), folder / "saved.qvd", {}, {.extract_to = folder / "out"});
    const std::string manifest = readFile(folder / "out" / "manifest.jsonl").str();
    EXPECT_NE(manifest.find(each.members), std::string::npos) << manifest;
  }
}

class SalvageFile : public testing::Test {
 protected:
  qvdb::Reason reasonOf(const char* source, const char* target) {
    try {
      qvdb::salvage(folder / source, folder / target);
    } catch (const qvdb::Error& error) {
      return error.reason();
    }
    ADD_FAILURE() << "no error";
    return qvdb::Reason::cancelled;
  }
  TempFolder folder;
};

TEST_F(SalvageFile, LeavesTheSourceAsItWas) {
  const Bytes bytes = usedFile().bytes;
  writeFile(folder / "a.qvd", bytes);
  EXPECT_TRUE(qvdb::salvage(folder / "a.qvd", folder / "b.qvd").verified);
  EXPECT_TRUE(sameBytes(readFile(folder / "a.qvd"), bytes));
}

TEST_F(SalvageFile, WritesOverNothing) {
  writeFile(folder / "a.qvd", usedFile().bytes);
  writeFile(folder / "b.qvd", bytesOf("here"));
  EXPECT_EQ(reasonOf("a.qvd", "b.qvd"), qvdb::Reason::file_exists);
  EXPECT_EQ(reasonOf("a.qvd", "a.qvd"), qvdb::Reason::file_exists);
  EXPECT_EQ(readFile(folder / "b.qvd"), bytesOf("here"));
  EXPECT_EQ(reasonOf("none.qvd", "c.qvd"), qvdb::Reason::no_such_file);
  EXPECT_EQ(reasonOf("a.qvd", "no/c.qvd"), qvdb::Reason::path_not_reachable);
  EXPECT_FALSE(std::filesystem::exists(folder / "c.qvd"));
}

TEST_F(SalvageFile, RemovesWhatItCouldNotFinish) {
  writeFile(folder / "a.qvd", usedFile().bytes);
  platform::SystemCalls calls = platform::hostSystemCalls();
  calls.writeAt = [](int, const void*, size_t, off_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  platform::replaceSystemCalls(&calls);
  EXPECT_EQ(reasonOf("a.qvd", "b.qvd"), qvdb::Reason::disk_full);
  platform::replaceSystemCalls(nullptr);
  EXPECT_FALSE(std::filesystem::exists(folder / "b.qvd"));
}

}  // namespace
}  // namespace qvdbase::test
