// qvdb mend, and the commands that refuse what it mends
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolMend : public ToolTest {
 protected:
  ToolMend() { allowDamage(kDefaultFile); }

  // Two records, of which the slot counts the first.
  void putUncounted() {
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
    image.addRecord(table, 0xA2, bytesOf("second"));
    SlotFields& slot = image.slot(table);
    slot.recordCount = slot.recordWriteCount = 1;
    slot.lastRecordPos = slot.lastWrittenRecordPos = first;
    writeFile(path(), image.build());
  }
};

TEST_F(ToolMend, CountsWhatWasLinkedSoThatTheTableTakesRecordsAgain) {
  putUncounted();
  expectUnchanged([&] {
    fails({"put", kDefaultFile, "notes"}, 1, {"append was cut off", "run 'qvdb mend'"}, "third");
    fails({"compact", kDefaultFile}, 1, {kDefaultFile});
    EXPECT_NE(done({"mend", "-n", kDefaultFile}).find("this would make"), std::string::npos);
  });
  EXPECT_EQ(done({"mend", kDefaultFile}),
            "table 'notes': 1 record that was linked but not counted is counted\n"
            "the database is sound\n");
  EXPECT_EQ(slot(0).recordCount, 2u);
  done({"put", kDefaultFile, "notes"}, "third");
  EXPECT_EQ(line({"mend", kDefaultFile}), "there is nothing to mend");
}

// The last record: its predecessor lets go of it, and the slot still has it.
TEST_F(ToolMend, FinishesADeletionSoThatTheTableTakesRecordsAgain) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  image.record(first).nextRecordPos = 0;
  writeFile(path(), image.build());
  expectUnchanged([&] {
    fails({"put", kDefaultFile, "notes"}, 1, {"run 'qvdb mend'"}, "third");
    fails({"set", kDefaultFile, "notes", "0xa1"}, 1, {"run 'qvdb mend'"}, "data");
  });
  EXPECT_NE(done({"mend", kDefaultFile}).find("deletion"), std::string::npos);
  done({"put", kDefaultFile, "notes"}, "third");
  EXPECT_EQ(slot(0).recordCount, 2u);
}

TEST_F(ToolMend, LinksOrDiscardsWhatWasNeverLinked) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = slot.recordWriteCount = 1;
  slot.lastRecordPos = slot.lastWrittenRecordPos = first;
  image.record(first).nextRecordPos = 0;
  writeFile(path(), image.build());
  expectUnchanged([&] {
    fails({"compact", kDefaultFile}, 1,
          {"1 record would be lost", "cut off", "0x00000000000000a2", "'qvdb mend'", "--force"});
    EXPECT_NE(done({"mend", kDefaultFile}).find("--discard"), std::string::npos);
  });
  done({"mend", "--discard", kDefaultFile});
  EXPECT_EQ(fileSize(), static_cast<size_t>(first) + 56 + 5);
  writeFile(path(), image.build());
  done({"mend", "--link", kDefaultFile});
  EXPECT_EQ(done({"get", kDefaultFile, "notes", "0xa2"}), "second");
}

// The process of an appender is killed: its blocks name each other, and nothing else names them.
TEST_F(ToolMend, LinksOrDiscardsABatchThatWasNeverLinked) {
  constexpr uint64_t kRecords = 3000;
  enum class Last { whole, torn, followed };
  for (const Last last : {Last::whole, Last::torn, Last::followed}) {
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    const size_t other = image.addTable("others", 0x22);
    const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
    for (uint64_t i = 1; i < kRecords; ++i) {
      image.addRecord(table, 0xA1 + i, bytesOf("more"));
    }
    if (last == Last::followed) image.addRecord(other, 0xB1, bytesOf("later"));
    SlotFields& slot = image.slot(table);
    slot.recordCount = slot.recordWriteCount = 1;
    slot.lastRecordPos = slot.lastWrittenRecordPos = first;
    image.record(first).nextRecordPos = 0;
    const Bytes whole = image.build();
    const Bytes bytes = last == Last::torn ? whole.cut(whole.size() - 3) : whole;
    const uint64_t added = kRecords - (last == Last::torn ? 2 : 1);
    writeFile(path(), bytes);
    fails({"compact", kDefaultFile}, 1,
          {std::to_string(added) + " records would be lost", "cut off", "0x00000000000000a2"});
    done({"mend", "--discard", kDefaultFile});
    EXPECT_EQ(database().tables.at(0).records.size(), 1u);
    done({"compact", kDefaultFile});
    writeFile(path(), bytes);
    done({"mend", "--link", kDefaultFile});
    EXPECT_EQ(database().tables.at(0).records.size(), 1 + added);
    done({"compact", kDefaultFile});
  }
}

// Of a table of which older records were deleted and compacted away, the counts leave open whether
// the batch was ever part of it. If one of it is the record written last, it was.
TEST_F(ToolMend, DoesNotDiscardRecordsThatWereLinked) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  for (uint64_t i = 1; i < 4; ++i) image.addRecord(table, 0xA1 + i, bytesOf("more"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = 1;
  slot.recordWriteCount = 9;
  slot.lastRecordPos = first;
  image.record(first).nextRecordPos = 0;
  writeFile(path(), image.build());
  expectUnchanged([&] {
    fails({"compact", kDefaultFile}, 1, {"3 records would be lost", "'qvdb mend'"});
    EXPECT_NE(done({"mend", kDefaultFile}).find("3 records"), std::string::npos);
    EXPECT_NE(done({"mend", "--discard", kDefaultFile}).find("--link links them"),
              std::string::npos);
  });
  done({"mend", "--link", kDefaultFile});
  EXPECT_EQ(database().tables.at(0).records.size(), 4u);
  done({"compact", kDefaultFile});
  slot.lastWrittenRecordPos = first;
  writeFile(path(), image.build());
  done({"mend", "--discard", kDefaultFile});
  EXPECT_EQ(database().tables.at(0).records.size(), 1u);
  done({"compact", kDefaultFile});
}

TEST_F(ToolMend, LinksTableDataThatWasNeverLinked) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.setTableData(table, bytesOf("data"));
  SlotFields& slot = image.slot(table);
  slot.firstDataPos = slot.lastWrittenDataPos = slot.lastDataPos = 0;
  slot.dataBlockCount = slot.dataWriteCount = 0;
  writeFile(path(), image.build());
  expectUnchanged([&] {
    fails({"compact", kDefaultFile}, 1, {"1 block of table data would be lost", "'qvdb mend'"});
    EXPECT_NE(done({"mend", kDefaultFile}).find("1 block of table data of an interrupted write"),
              std::string::npos);
  });
  done({"mend", "--link", kDefaultFile});
  EXPECT_EQ(done({"data", kDefaultFile, "notes"}), "data");
  done({"compact", kDefaultFile});
}

TEST_F(ToolMend, RefusesOtherDamageAndChangesNothing) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  image.record(first).blockMark = 0;
  writeFile(path(), image.build());
  expectUnchanged([&] {
    fails({"mend", kDefaultFile}, 1, {kDefaultFile, "nothing was changed", "salvage"});
    fails({"put", kDefaultFile, "notes"}, 1, {"if that refuses, 'qvdb salvage'"}, "third");
  });
}

TEST_F(ToolMend, CompactDropsClearsAndRenamesTables) {
  FileImage image;
  for (const char* name : {"one", "two", "three"}) {
    const size_t table =
        image.addTable(name, static_cast<uint64_t>(0x11 + image.header().tableCount));
    image.addRecord(table, 0xA1, bytesOf(name));
  }
  image.setTableData(2, bytesOf("about"));
  writeFile(path(), image.build());
  fails({"compact", "--drop", "four", kDefaultFile}, 1, {"there is no table 'four'"});
  fails({"compact", "--rename", "one=two", kDefaultFile}, 1, {"two tables 'two'"});
  fails({"compact", "--rename", "one", kDefaultFile}, 2, {"OLD=NEW"});
  done({"compact", "--drop", "one", "--rename", "two=one", "--clear", "three", kDefaultFile});
  const ReadDatabase after = database();
  ASSERT_EQ(after.tables.size(), 2u);
  EXPECT_EQ(after.tables[0].name, "one");
  EXPECT_EQ(after.tables[0].id, 0x12u);
  EXPECT_EQ(after.tables[0].records.at(0).fields.data(), bytesOf("two"));
  EXPECT_EQ(after.tables[1].name, "three");
  EXPECT_TRUE(after.tables[1].records.empty());
  EXPECT_EQ(done({"data", kDefaultFile, "three"}), "about");
}

}  // namespace
}  // namespace qvdbase::test
