// qvdb map, qvdb hexdump, and where qvdb stat says the bytes are
#include <cstdlib>
#include <qvdbase/qvdb.hpp>
#include <random>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolViews : public ToolTest {
 protected:
  // A record in use with a reserve, one that was deleted, an older version, and table data.
  void makeLively() {
    const int16_t db = create();
    const uint64_t notes = addTable(db, "notes");
    addRecord(db, notes, bytesOf("first"), 405);
    const uint64_t gone = addRecord(db, notes, Bytes(400, 'x'));
    const uint64_t moved = addRecord(db, notes, Bytes(300, 'y'));
    int status = 0;
    ASSERT_EQ(DeleteOneRecord(db, notes, gone, &status), 1);
    const Bytes longer(500, 'z');
    ASSERT_EQ(ModifyRecordData(db, notes, longer.data(), 500, moved, &status), 1);
    setTableData(db, notes, Bytes(200, 'd'));
    close(db);
  }

  std::string onTerminal(const Words& words) {
    ProgramCall call = callOf(words);
    call.terminal = Terminal::output;
    const Outcome outcome = runProgram(call);
    EXPECT_EQ(outcome.status, 0) << outcome;
    return outcome.out;
  }
};

using ToolMap = ToolViews;
using ToolHexdump = ToolViews;
using ToolStatBytes = ToolViews;

// 4,630 bytes of directory; blocks of 461, 456, 356, 556 and 222 bytes: 6,681 in all.
TEST_F(ToolMap, ShowsWhatTheBytesAre) {
  makeLively();
  expectOnlyRead([&] {
    const std::string text = done({"map", "--cells", "67", "test.qvd"});
    EXPECT_NE(text.find("test.qvd, 6681 bytes\na cell   100 bytes\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  DDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDD#++++xxxxssss#####\n"),
              std::string::npos)
        << text;
    for (const char* line :
         {"D  directory                 4630 bytes   69.3 %", "#  live records               617",
          "+  reserve                    400", "T  table data                 222",
          "s  superseded                 356", "x  deleted                    456"}) {
      EXPECT_NE(text.find(line), std::string::npos) << line << " is not in " << text;
    }
    EXPECT_EQ(text.find("damage"), std::string::npos);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
  });
}

TEST_F(ToolMap, IsColouredOnATerminalUnlessThatIsNotWanted) {
  makeLively();
  ASSERT_EQ(::unsetenv("NO_COLOR"), 0);
  ASSERT_EQ(::setenv("TERM", "xterm", 1), 0);
  EXPECT_NE(onTerminal({"map", "test.qvd"}).find("\x1b[42m \x1b[0m  live"), std::string::npos);
  ASSERT_EQ(::setenv("NO_COLOR", "1", 1), 0);
  EXPECT_EQ(onTerminal({"map", "test.qvd"}).find('\x1b'), std::string::npos);
  ASSERT_EQ(::setenv("NO_COLOR", "", 1), 0);
  EXPECT_NE(onTerminal({"map", "test.qvd"}).find('\x1b'), std::string::npos);
  ASSERT_EQ(::setenv("TERM", "dumb", 1), 0);
  EXPECT_EQ(onTerminal({"map", "test.qvd"}).find('\x1b'), std::string::npos);
  ASSERT_EQ(::unsetenv("NO_COLOR"), 0);
}

TEST_F(ToolMap, ListsTheParts) {
  makeLively();
  const auto extents = json({"map", "--json", "test.qvd"})["extents"];
  ASSERT_EQ(extents.size(), 6u);
  const char* const uses[] = {"directory",  "record", "deleted",
                              "superseded", "record", "table data"};
  int64_t position = 0;
  for (size_t i = 0; i < extents.size(); ++i) {
    EXPECT_EQ(extents[i]["use"], uses[i]);
    EXPECT_EQ(extents[i]["offset"], position);
    position += extents[i]["size"].get<int64_t>();
  }
  EXPECT_EQ(position, 6681);
  EXPECT_EQ(extents[1]["reserve"], 400);
  const std::string text = done({"map", "--extents", "test.qvd"});
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
  fails({"map", "--cells", "0", "test.qvd"}, 2, {"--cells"});
  fails({"map", "missing.qvd"}, 1, {"missing.qvd"});
}

TEST_F(ToolMap, ShowsAnyDamage) {
  makeLively();
  Bytes file = contents();
  file.add(bytesOf("no block"));
  writeFile(path(), file);
  allowDamage();
  const std::string text = done({"map", "--cells", "10", "test.qvd"});
  EXPECT_NE(text.find("!\n"), std::string::npos) << text;
  EXPECT_NE(text.find("!  damage                       8 bytes    0.1 %"), std::string::npos)
      << text;
}

TEST_F(ToolMap, TakesFilesOfEveryKind) {
  writeFile(path("empty.qvd"), {});
  EXPECT_NE(done({"map", "empty.qvd"}).find("0 bytes"), std::string::npos);
  writeFile(path("text.txt"), bytesOf("no database"));
  EXPECT_NE(done({"map", "text.txt"}).find("!!!!!!!!!!!"), std::string::npos);
  EXPECT_EQ(json({"map", "--json", "empty.qvd"})["extents"].size(), 0u);
}

TEST_F(ToolHexdump, NamesTheFields) {
  makeLively();
  expectOnlyRead([&] {
    const std::string header = done({"hexdump", "test.qvd", "16"});
    EXPECT_TRUE(header.starts_with("header\n")) << header;
    EXPECT_NE(header.find("          16 > 00 01"), std::string::npos) << header;
    EXPECT_NE(header.find("  tableCount            1\n"), std::string::npos) << header;

    // Slot 0 begins at 22; recordCount is at 60 in it, little-endian.
    const auto slot = json({"hexdump", "--json", "test.qvd", "22"});
    EXPECT_EQ(slot["structure"], "slot 0 of the directory");
    const auto& fields = slot["fields"];
    const auto field = [&](const std::string& name) {
      return *std::find_if(fields.begin(), fields.end(),
                           [&](const auto& each) { return each["name"] == name; });
    };
    EXPECT_EQ(field("recordCount")["offset"], 82);
    EXPECT_EQ(field("recordCount")["bytes"], "02000000");
    EXPECT_EQ(field("recordCount")["value"], "2");
    EXPECT_EQ(field("tableName")["value"], "notes");
    const std::string id = json({"tables", "--json", "test.qvd"})["tables"][0]["id"];
    EXPECT_EQ(field("tableID")["value"], id);
    EXPECT_TRUE(field("firstRecordPos")["value"].get<std::string>().starts_with("4630, record 0x"));

    const std::string record = done({"hexdump", "test.qvd", "0x1216"});  // 4630
    for (const char* part : {"record block at 4630: record\n", "blockMark             135\n",
                             "prevRecordPos         0, none\n", "dataLength            5\n",
                             "dataCapacity          405\n", "|first|             data\n",
                             "fill                  256 of 400 bytes, from byte 0 on\n",
                             "blockEndMark          105\n"}) {
      EXPECT_NE(record.find(part), std::string::npos) << part << " is not in " << record;
    }
    EXPECT_NE(done({"hexdump", "test.qvd", "6459"}).find("table-data block at 6459"),
              std::string::npos);
  });
}

// A transaction that changes one record in place of 59 bytes, and its intent between that and the
// new block.
TEST_F(ToolHexdump, NamesTheFieldsOfWhatTransactionsWrite) {
  {
    auto database = qvdb::Database::create(path());
    auto table = database.add_table("notes");
    const qvdb::Id one = table.add(std::string("one"));
    database.transaction([&](qvdb::Transaction&) { table.modify(one, std::string("ONE")); });
  }
  const auto extents = json({"map", "--json", "test.qvd"})["extents"];
  ASSERT_EQ(extents.size(), 4u) << extents;
  ASSERT_EQ(extents[2]["use"], "intent");
  const auto size = extents[2]["size"].get<int64_t>();
  const std::string text = done({"hexdump", "--length", "1000", "test.qvd", "4689"});
  for (const char* part :
       {"record block at 4689: intent\n", "magic                 QVtx", "sequence              1\n",
        "ownPosition           4689, intent 0x0000000000000001\n", "lengthBefore          4689\n",
        "blocksLength          59\n", "  blocksHash\n",
        "entry                 slot 0, changes 144 bytes at 22\n"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is not in " << text;
  }
  EXPECT_EQ(text.find("--length"), std::string::npos) << text;
  // Each byte is in one field, without gaps.
  int64_t end = 4689;
  const auto shown = json({"hexdump", "--json", "--length", "1000", "test.qvd", "4689"});
  for (const auto& field : shown["fields"]) {
    EXPECT_EQ(field["offset"], end) << field;
    end += static_cast<int64_t>(field["bytes"].get<std::string>().size() / 2);
  }
  EXPECT_EQ(end, 4689 + size);
  EXPECT_NE(done({"hexdump", "--length", "1", "test.qvd", "4689"}).find("(--length shows more)"),
            std::string::npos);
  const std::string map = done({"map", "test.qvd"});
  EXPECT_NE(map.find("i  intents"), std::string::npos) << map;
  EXPECT_EQ(json({"stat", "--json", "test.qvd"})["space"]["intents"], size);
  EXPECT_EQ(json({"stat", "--json", "test.qvd"})["space"]["superseded"], 59);
}

TEST_F(ToolHexdump, NamesTheFieldsOfThePendingWord) {
  makeLively();
  EXPECT_NE(done({"hexdump", "test.qvd", "4558"}).find("firstRecordPos        0, none"),
            std::string::npos);
  Bytes file = contents();
  file.putLe(4558, 8, 4630);
  file.putLe(4566, 8, 0x1122334455667788);
  writeFile(path(), file);
  allowDamage();
  const std::string text = done({"hexdump", "test.qvd", "4566"});
  for (const char* part :
       {"slot 31 of the directory, with the pending word of transactions\n",
        "start                 4630, record 0x", "  nonce\n", "  hash\n", "        4566 > 88 77"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is not in " << text;
  }
  EXPECT_EQ(text.find("firstRecordPos"), std::string::npos) << text;
}

TEST_F(ToolHexdump, ShowsTheLineThatIsAskedFor) {
  makeLively();
  // The payload of the record that was moved begins at 5903 + 55.
  const std::string text = done({"hexdump", "--length", "16", "test.qvd", "6200"});
  EXPECT_NE(text.find("        6198 > 7a 7a 7a"), std::string::npos) << text;
  EXPECT_NE(text.find("16 of 500 bytes, from byte 240 on"), std::string::npos) << text;
}

TEST_F(ToolHexdump, SaysWhatIsWrong) {
  makeLively();
  fails({"hexdump", "test.qvd", "6681"}, 1, {"test.qvd", "6681 bytes"});
  fails({"hexdump", "test.qvd", "-1"}, 2, {});
  fails({"hexdump", "test.qvd", "here"}, 2, {"'here' is no offset"});
  fails({"hexdump", "test.qvd", "18446744073709551615"}, 2, {"is no offset"});
  fails({"hexdump", "--length", "0", "test.qvd", "0"}, 2, {"--length"});
  fails({"hexdump", "missing.qvd", "0"}, 1, {"missing.qvd"});
}

TEST_F(ToolHexdump, SurvivesDamagedFiles) {
  makeLively();
  const Bytes sound = contents();
  std::mt19937 random(4711);
  for (int round = 0; round < 60; ++round) {
    Bytes file = sound.cut(1 + random() % sound.size());
    for (int i = 0; i < 6; ++i) file.at(random() % file.size()) = static_cast<uint8_t>(random());
    if (round % 2 == 0 && file.size() > 5000) file.putBe(4630 + 47, 4, 0xFFFFFFFF);
    writeFile(path(), file);
    const Outcome outcome = run({"hexdump", "test.qvd", std::to_string(random() % file.size())});
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(run({"map", "test.qvd"}).status, 0);
  }
  allowDamage();
}

TEST_F(ToolStatBytes, SaysWhereTheBytesAreAndWhatCompactGains) {
  makeLively();
  const auto stat = json({"stat", "--json", "test.qvd"});
  EXPECT_EQ(stat["space"]["directory"], 4630);
  EXPECT_EQ(stat["space"]["records"], 461 + 556);
  EXPECT_EQ(stat["space"]["reserve"], 400);
  EXPECT_EQ(stat["space"]["table_data"], 222);
  EXPECT_EQ(stat["space"]["superseded"], 356);
  EXPECT_EQ(stat["space"]["deleted"], 456);
  EXPECT_EQ(stat["compact"]["gain"], 356 + 456);
  const std::string text = done({"stat", "test.qvd"});
  EXPECT_NE(text.find("  superseded    356\n  deleted       456\n"), std::string::npos) << text;
  EXPECT_NE(text.find("compact         would gain 812 bytes, and leave 5869\n"), std::string::npos)
      << text;
  done({"compact", "test.qvd"});
  EXPECT_EQ(fileSize(), 5869u);
}

// A block in use and a deleted one of the same size; the reserve is that of the former.
TEST_F(ToolStatBytes, NamesTheReserveWithTheRecordsOnly) {
  const int16_t db = create();
  const uint64_t notes = addTable(db, "notes");
  addRecord(db, notes, bytesOf("first"), 405);
  const uint64_t gone = addRecord(db, notes, Bytes(405, 'x'));
  int status = 0;
  ASSERT_EQ(DeleteOneRecord(db, notes, gone, &status), 1);
  close(db);
  EXPECT_NE(done({"stat", "test.qvd"})
                .find("  records       461, with table data 400 in reserve\n"
                      "  deleted       461\n"),
            std::string::npos)
      << done({"stat", "test.qvd"});
}

// 57 bytes in use, and 57 that the damaged chain does not lead to any more.
TEST_F(ToolStatBytes, SaysWhereTheBytesOfADamagedFileAre) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, bytesOf("1"));
  image.record(image.addRecord(0, 0xA2, bytesOf("2"))).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  const Outcome text = run({"stat", "test.qvd"});
  EXPECT_EQ(text.status, 1) << text;
  EXPECT_NE(text.out.find("where the bytes are\n  directory     4630\n  records       57\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.out.find("  no block      57\n"), std::string::npos) << text;
  EXPECT_NE(text.out.find("compact         refuses: test.qvd: "), std::string::npos) << text;
  EXPECT_EQ(text.out.find("unused"), std::string::npos) << text;
  const auto stat = parsedJson(run({"stat", "--json", "test.qvd"}).out);
  EXPECT_EQ(stat["space"]["unknown"], 57) << stat;
  EXPECT_TRUE(stat["compact"].contains("refused")) << stat;
  EXPECT_FALSE(parsedJson(run({"stat", "--json", "test.qvd", "notes"}).out).contains("space"));
}

TEST_F(ToolStatBytes, CallsAnEstimateOne) {
  const int16_t db = create();
  const uint64_t notes = addTable(db, "notes");
  for (int i = 0; i < 2500; ++i)
    addRecord(db, notes, Bytes(static_cast<size_t>(i < 1250 ? 10 : 30), 'x'));
  close(db);
  const auto quick = json({"stat", "--quick", "--json", "test.qvd"});
  EXPECT_EQ(quick["unused_bytes_are_an_estimate"], true);
  EXPECT_EQ(quick["tables"][0]["estimated_from"], 2000);
  EXPECT_EQ(quick["tables"][0]["records"], 2500);
  EXPECT_EQ(quick["tables"][0]["payload_bytes"], 50000);
  EXPECT_FALSE(quick.contains("compact"));
  const std::string text = done({"stat", "--quick", "test.qvd"});
  EXPECT_NE(text.find("would gain about 0 bytes: an estimate"), std::string::npos) << text;
  EXPECT_NE(text.find("(an estimate from 2000 records)"), std::string::npos) << text;
}

TEST_F(ToolStatBytes, SaysThatCompactRefuses) {
  makeLively();
  FileImage image;
  const size_t table = image.addTable("notes", 1);
  image.addRecord(table, 11, bytesOf("one"));
  image.slot(table).lastWrittenRecordPos = 0;
  image.slot(table).recordWriteCount = 0;
  const int64_t lost = image.addRecord(table, 12, bytesOf("two"));
  image.record(lost).tableID = identifier(99);
  image.slot(table).recordCount = 1;
  image.slot(table).lastRecordPos = image.slot(table).firstRecordPos;
  image.record(image.slot(table).firstRecordPos).nextRecordPos = 0;
  writeFile(path(), image.build());
  allowDamage();
  const auto stat = json({"stat", "--json", "test.qvd"});
  EXPECT_TRUE(stat["compact"].contains("refused")) << stat;
}

}  // namespace
}  // namespace qvdbase::test
