// qvdb tables and qvdb add-table
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolTables = ToolTest;
using ToolAddTable = ToolTest;

TEST_F(ToolTables, AreListedInOrder) {
  const int16_t db = create();
  addRecord(db, addTable(db, "notes"), bytesOf("x"));
  setTableData(db, addTable(db, "with data"), bytesOf("12345"));
  close(db);
  expectOnlyRead([&] {
    const auto tables = json({"tables", "--json", "test.qvd"})["tables"];
    ASSERT_EQ(tables.size(), 2u);
    EXPECT_EQ(tables[0]["name"], "notes");
    EXPECT_EQ(tables[0]["records"], 1);
    EXPECT_EQ(tables[0]["data_size"], nullptr);
    EXPECT_EQ(tables[1]["name"], "with data");
    EXPECT_EQ(tables[1]["data_size"], 5);
    const std::string text = done({"tables", "test.qvd"});
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_NE(text.find(tables[1]["id"].get<std::string>()), std::string::npos);
  });
}

TEST_F(ToolTables, OfHostileNamesDoNotReachTheTerminal) {
  FileImage image;
  image.addTable("\x1b]0;owned\x07\n\xff", 1);
  writeFile(path(), image.build());
  const std::string text = done({"tables", "test.qvd"});
  EXPECT_NE(text.find("\\x1b]0;owned\\x07\\x0a\\xff"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  const auto table = json({"tables", "--json", "test.qvd"})["tables"][0];
  EXPECT_EQ(table["name_bytes"], "1b5d303b6f776e6564070aff");
}

TEST_F(ToolTables, BeforeADamagedSlotAreListed) {
  FileImage image;
  image.addTable("one", 1);
  image.addTable("two", 2);
  image.slot(1).slotMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  for (const Words& words : {Words{"tables", "test.qvd"}, Words{"stat", "test.qvd"}}) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_NE(outcome.out.find("one"), std::string::npos) << outcome;
    EXPECT_EQ(outcome.out.find("two"), std::string::npos) << outcome;
    expectOneLine(outcome.err, {"entry 2", "copy"});
  }
  for (const char* command : {"tables", "stat"}) {
    const Outcome outcome = run({command, "--json", "test.qvd"});
    EXPECT_EQ(outcome.status, 1) << outcome;
    const auto tables = parsedJson(outcome.out)["tables"];
    ASSERT_EQ(tables.size(), 1u);
    EXPECT_EQ(tables[0]["name"], "one");
  }
}

// A pack keeps the source's position of the data in the slot of a table with records.
TEST_F(ToolTables, OfAPackedFileAreListedWithANote) {
  std::filesystem::create_directory(path("in"));
  writeFile(path("in/f"), bytesOf("contents"));
  done({"create", "source.qvd"});
  done({"import", "source.qvd", "files", "in/"});
  const std::string id = json({"records", "--json", "source.qvd", "files"})["records"][0]["id"];
  done({"put", "source.qvd", "files"}, std::string(5000, 'x'));
  done({"rm", "source.qvd", "files", id});
  done({"import", "source.qvd", "files", "in/"});
  const Outcome packed = run({"pack", "source.qvd", "test.qvd"});
  ASSERT_EQ(packed.status, 0) << packed;
  allowDamage();
  for (const Words& words :
       {Words{"tables"}, Words{"stat"}, Words{"tables", "--json"}, Words{"stat", "--json"}}) {
    Words call = words;
    call.push_back("test.qvd");
    const Outcome outcome = run(call);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_NE(outcome.out.find("files"), std::string::npos) << outcome;
    expectOneLine(outcome.err, {"test.qvd", "'files'", "packed", "qvdb mend", "qvdb salvage"});
  }
  const Outcome list = run({"records", "--json", "test.qvd", "files"});
  EXPECT_EQ(list.status, 0) << list;
  expectOneLine(list.err, {"packed", "qvdb mend", "qvdb salvage"});
  EXPECT_EQ(parsedJson(list.out)["records"].size(), 2u);
  const Outcome exported = run({"export", "test.qvd", "files", "out"});
  EXPECT_EQ(exported.status, 1) << exported;
  expectOneLine(exported.err, {"test.qvd", "'files'", "packed", "qvdb mend"});
  EXPECT_EQ(exported.out, "exported 2 files, 5008 bytes\n");
  // What the note advises brings the names back.
  EXPECT_EQ(run({"mend", "test.qvd"}).status, 0);
  EXPECT_EQ(run({"export", "test.qvd", "files", "mended"}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(path("mended/f")));
}

TEST_F(ToolAddTable, AddsItAndPrintsItsIdentifier) {
  done({"create", "test.qvd"});
  const std::string id = line({"add-table", "test.qvd", "notes"});
  const auto table = json({"tables", "--json", "test.qvd"})["tables"][0];
  EXPECT_EQ(table["name"], "notes");
  EXPECT_EQ(table["id"], id);
}

TEST_F(ToolAddTable, RefusesImpossibleNames) {
  notes({});
  expectOnlyRead([&] {
    fails({"add-table", "test.qvd", "notes"}, 1, {"'notes'", "exists"});
    fails({"add-table", "test.qvd", std::string(33, 'n')}, 1, {"32 bytes", "33"});
    fails({"add-table", "test.qvd", ""}, 1, {"name"});
  });
}

TEST_F(ToolAddTable, RefusesTheThirtySecond) {
  const int16_t db = create();
  for (int i = 0; i < 31; ++i) addTable(db, "t" + std::to_string(i));
  close(db);
  expectOnlyRead([&] { fails({"add-table", "test.qvd", "more"}, 1, {"31 tables"}); });
}

}  // namespace
}  // namespace qvdbase::test
