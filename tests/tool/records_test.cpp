// qvdb records and qvdb stat
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolRecords = ToolTest;
using ToolStat = ToolTest;

TEST_F(ToolRecords, AreListedInOrderWithSizesAndTimes) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, bytesOf("first"),
                  {.reserve = 10, .createTime = 0, .modifyTime = 1714567890});
  image.addRecord(0, 0xA2, {});
  writeFile(path(), image.build());
  expectOnlyRead([&] {
    EXPECT_EQ(done({"records", "test.qvd", "notes"}),
              "ID                        SIZE    CAPACITY  CREATED               MODIFIED\n"
              "0x00000000000000a1           5          10  1970-01-01T00:00:00Z  "
              "2024-05-01T12:51:30Z\n"
              "0x00000000000000a2           0           0  1970-01-01T00:16:40Z  "
              "1970-01-01T00:16:40Z\n");
    const auto list = json({"records", "--json", "test.qvd", "notes"});
    EXPECT_EQ(list["table"], "notes");
    EXPECT_EQ(list["count"], 2);
    ASSERT_EQ(list["records"].size(), 2u);
    EXPECT_EQ(list["records"][0]["id"], "0x00000000000000a1");
    EXPECT_EQ(list["records"][0]["size"], 5);
    EXPECT_EQ(list["records"][0]["capacity"], 10);
    EXPECT_EQ(list["records"][0]["modified"], "2024-05-01T12:51:30Z");
  });
}

TEST_F(ToolRecords, OfAnEmptyTableAreAnEmptyList) {
  notes({});
  EXPECT_TRUE(json({"records", "--json", "test.qvd", "notes"})["records"].empty());
}

TEST_F(ToolRecords, StopAtALimit) {
  notes({bytesOf("1"), bytesOf("2"), bytesOf("3")});
  EXPECT_EQ(json({"records", "--json", "-n", "2", "test.qvd", "notes"})["records"].size(), 2u);
  EXPECT_EQ(json({"records", "--json", "-n", "0", "test.qvd", "notes"})["records"].size(), 0u);
  EXPECT_EQ(json({"records", "--json", "-n", "9", "test.qvd", "notes"})["records"].size(), 3u);
}

TEST_F(ToolRecords, BeforeADamageAreListedAndTheDamageIsReported) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, bytesOf("1"));
  const auto second = image.addRecord(0, 0xA2, bytesOf("2"));
  image.addRecord(0, 0xA3, bytesOf("3"));
  image.record(second).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  const Outcome outcome = run({"records", "test.qvd", "notes"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.out.find("0x00000000000000a1"), std::string::npos);
  expectOneLine(outcome.err, {"test.qvd", "record 2 of 3", "copy"});
}

TEST_F(ToolRecords, InJsonAreAWholeDocumentAlsoWhereTheChainIsDamaged) {
  for (const bool atTheStart : {false, true}) {
    FileImage image;
    image.addTable("notes", 0x11);
    const auto first = image.addRecord(0, 0xA1, bytesOf("1"));
    const auto second = image.addRecord(0, 0xA2, bytesOf("2"));
    image.record(atTheStart ? first : second).blockMark = 0;
    writeFile(path(), image.build());
    allowDamage();
    const Outcome outcome = run({"records", "--json", "test.qvd", "notes"});
    EXPECT_EQ(outcome.status, 1);
    expectOneLine(outcome.err, {"test.qvd"});
    const auto list = parsedJson(outcome.out);
    EXPECT_EQ(list["records"].size(), atTheStart ? 0u : 1u);
    EXPECT_NE(list["error"].get<std::string>().find("damaged"), std::string::npos) << outcome;
  }
}

TEST_F(ToolStat, CountsTheRecordsBeforeADamage) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, bytesOf("1"));
  const auto second = image.addRecord(0, 0xA2, bytesOf("2"));
  image.record(second).blockMark = 0;
  image.addTable("other", 0x12);
  writeFile(path(), image.build());
  allowDamage();
  const Outcome outcome = run({"stat", "--json", "test.qvd"});
  EXPECT_EQ(outcome.status, 1);
  expectOneLine(outcome.err, {"record 2 of 2"});
  const auto tables = parsedJson(outcome.out)["tables"];
  ASSERT_EQ(tables.size(), 2u);
  EXPECT_EQ(tables[0]["records"], 1);
}

TEST_F(ToolStat, CountsRecordsBytesAndWhatIsUnused) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, pattern(10), {.reserve = 30, .createTime = 5, .modifyTime = 50});
  image.addRecord(0, 0xA2, pattern(20), {.createTime = 6, .modifyTime = 60});
  image.setTableData(0, pattern(7));
  image.addTable("empty", 0x12);
  writeFile(path(), image.build());
  expectOnlyRead([&] {
    const auto stat = json({"stat", "--json", "test.qvd"});
    EXPECT_EQ(stat["size"], fileSize());
    EXPECT_EQ(stat["unused_bytes"], 0);
    const auto& table = stat["tables"][0];
    EXPECT_EQ(table["records"], 2);
    EXPECT_EQ(table["payload_bytes"], 30);
    EXPECT_EQ(table["room_bytes"], 50);
    EXPECT_EQ(table["smallest"], 10);
    EXPECT_EQ(table["largest"], 20);
    EXPECT_EQ(table["first_created"], "1970-01-01T00:00:05Z");
    EXPECT_EQ(table["last_modified"], "1970-01-01T00:01:00Z");
    EXPECT_EQ(table["data_size"], 7);
    EXPECT_EQ(stat["tables"][1]["records"], 0);
    EXPECT_EQ(stat["tables"][1]["smallest"], nullptr);
    EXPECT_NE(done({"stat", "test.qvd"}).find("table           empty"), std::string::npos);
    EXPECT_EQ(done({"stat", "test.qvd", "notes"}).find("table           empty"), std::string::npos);
  });
}

TEST_F(ToolStat, CountsDeletedRecordsAsUnused) {
  const Words ids = notes({pattern(100), pattern(10)});
  done({"rm", "test.qvd", "notes", ids[0]});
  EXPECT_EQ(json({"stat", "--json", "test.qvd"})["unused_bytes"], 156);
}

}  // namespace
}  // namespace qvdbase::test
