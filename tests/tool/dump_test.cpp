// qvdb dump and qvdb load: what the lines are, that a dump that is loaded is the same again, and
// what is refused.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kit/file_image.h"
#include "kit/file_reader.h"
#include "kit/unprivileged.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::Database;
using qvdb::Id;
using qvdb::NewRecord;
using qvdb::NewTable;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

class ToolDump : public ToolTest {
 protected:
  // A database with one of everything.
  void makeDatabase() {
    auto database = Database::create(path(), {.id = Id{0x1122334455667788}});
    NewTable given("notes");
    given.id = Id{0xA1};
    given.flags_1 = 3;
    given.flags_2 = 65535;
    auto table = database.add_table(given);
    add(table, 1, "one\tline \"quoted\"\n", 40);
    add(table, 2, std::string("\0\xFF", 2), 0);
    add(table, 3, "", 5);
    add(table, 4, "h\xC3\xA9 \xE2\x80\x8E", 0);
    table.remove(Id{3});
    table.set_data("the data", 20);
  }

  static void add(qvdb::Table& table, uint64_t id, const std::string& payload, uint32_t capacity) {
    NewRecord record(payload, capacity, Id{id});
    record.create_time = 100 + static_cast<uint32_t>(id);
    record.modify_time = 4294967295u;
    table.add(record);
  }

  // The dump of the database, loaded, and dumped again.
  std::string dumpedAgain(const std::string& dump) {
    done({"load", "again.qvd"}, dump);
    const std::string again = done({"dump", "again.qvd"});
    fs::remove(path("again.qvd"));
    return again;
  }

  // Loads these lines, which must be refused with one line that holds the parts; nothing is left.
  void refuses(const std::vector<std::string>& lines, const std::vector<std::string>& parts) {
    SCOPED_TRACE(joined(lines).substr(0, 300));
    refusesText(joined(lines), parts);
  }
  void refusesText(const std::string& text, const std::vector<std::string>& parts) {
    fails({"load", "refused.qvd"}, 1, parts, text);
    for (const auto& entry : fs::directory_iterator(folder.path())) {
      const std::string name = entry.path().filename().native();
      EXPECT_EQ(name.find("refused"), std::string::npos) << name;
      EXPECT_FALSE(name.starts_with(".qvdb-")) << name;
    }
  }

  // Lines of a small dump, to be changed.
  static std::vector<std::string> small() {
    return {
        R"({"qvdb":"dump","format":1,"signature":"QVdb","version":100,"id":"0x0000000000000001"})",
        R"({"table":"t","id":"0x00000000000000a1","version":100,"flags":[0,0],"former_records":0,"former_data":0})",
        R"({"record":"0x0000000000000002","created":5,"modified":6,"text":"hello"})",
        R"({"end":"table","records":1})", R"({"end":"dump","tables":1,"records":1})"};
  }
  static std::vector<std::string> with(size_t index, const std::string& line) {
    std::vector<std::string> lines = small();
    lines[index] = line;
    return lines;
  }
};

TEST_F(ToolDump, WritesTheLinesThatTheManualDescribes) {
  makeDatabase();
  expectOnlyRead([&] {
    EXPECT_EQ(
        done({"dump", kDefaultFile}),
        R"({"qvdb":"dump","format":1,"signature":"QVdb","version":100,"id":"0x1122334455667788"})"
        "\n"
        R"({"table":"notes","id":"0x00000000000000a1","version":100,"flags":[3,65535],"former_records":1,"former_data":0})"
        "\n"
        R"({"data":true,"capacity":20,"text":"the data"})"
        "\n"
        R"({"record":"0x0000000000000001","created":101,"modified":4294967295,"capacity":40,"text":"one\tline \"quoted\"\n"})"
        "\n"
        R"({"record":"0x0000000000000002","created":102,"modified":4294967295,"base64":"AP8="})"
        "\n"
        R"({"record":"0x0000000000000004","created":104,"modified":4294967295,"text":"h)"
        "\xC3\xA9"
        R"( \u200e"})"
        "\n"
        R"({"end":"table","records":3})"
        "\n"
        R"({"end":"dump","tables":1,"records":3})"
        "\n");
  });
}

TEST_F(ToolDump, LoadsBackTheSame) {
  makeDatabase();
  const std::string dump = done({"dump", kDefaultFile});
  EXPECT_EQ(dumpedAgain(dump), dump);
  EXPECT_EQ(done({"load", "again.qvd"}, dump), "3 records in 1 table\n");
  const ReadDatabase read = readDatabase(path("again.qvd"));
  EXPECT_EQ(identifierNumber(read.header.databaseID), 0x1122334455667788u);
  const ReadTable& table = read.tables.at(0);
  EXPECT_EQ(table.slot.recordWriteCount, 4u);
  EXPECT_EQ(table.slot.dataWriteCount, 1u);
  EXPECT_EQ(table.slot.tableFlags2, 65535u);
  EXPECT_EQ(table.data->dataCapacity, 20u);
  EXPECT_EQ(table.records.at(0).fields.dataCapacity, 40u);
  EXPECT_EQ(table.records.at(1).fields.data(), hex("00FF"));
}

// Pieces of a mebibyte, in which no character is cut.
TEST_F(ToolDump, WritesLongPayloadsOnSeveralLines) {
  std::string text(1048575, 'a');
  for (int i = 0; i < 400'000; ++i) text += "\xC3\xA9";
  text += '\0';
  {
    auto database = Database::create(path());
    auto table = database.add_table("t");
    add(table, 1, text, 3'000'000);
    add(table, 2, std::string(1048576, 'b'), 0);
    add(table, 3, std::string(1048577, '\xFF'), 0);
    table.set_data(std::string(2'000'000, 'd'));
  }
  const std::string dump = done({"dump", kDefaultFile});
  const auto lines = linesOf(dump);
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_TRUE(lines[2].starts_with(R"({"data":true,"size":2000000,"text":"ddd)"));
  EXPECT_TRUE(lines[3].starts_with(R"({"more":2,"text":"ddd)"));
  const auto first = parsedJson(lines[4]);
  EXPECT_EQ(first["size"], text.size());
  EXPECT_EQ(first["text"], std::string(1048575, 'a'));
  EXPECT_TRUE(parsedJson(lines[5]).contains("base64"));
  EXPECT_EQ(lines[6].find("\"size\""), std::string::npos);
  EXPECT_EQ(parsedJson(lines[8])["base64"], "/w==");
  EXPECT_EQ(dumpedAgain(dump), dump);

  auto missing = lines;
  missing.erase(missing.begin() + 5);
  refuses(missing, {"line 6: ", "bytes of a payload are missing before it"});
  auto exchanged = lines;
  exchanged[5] = R"({"more":3,"text":"x"})";
  refuses(exchanged, {"line 6: ", "piece 2 of a payload is missing"});
  exchanged[5] = R"({"more":2,"text":""})";
  refuses(exchanged, {"line 6: ", "does not agree"});
  exchanged[5] = R"({"more":2,"text":")" + std::string(900'000, 'x') + "\"}";
  refuses(exchanged, {"line 6: ", "does not agree"});
}

TEST_F(ToolDump, TellsTheRecordThatWasWrittenLastByItsPlace) {
  makeDatabase();
  {
    auto database = Database::open(path(), qvdb::Mode::exclusive);
    auto table = database.table("notes");
    table.set_last_written(*table.find(Id{2}));
  }
  const std::string dump = done({"dump", kDefaultFile});
  EXPECT_NE(dump.find(R"("records":3,"last_written":2})"), std::string::npos) << dump;
  EXPECT_EQ(dumpedAgain(dump), dump);
}

TEST_F(ToolDump, DecodesListsOfImportedFiles) {
  makeDatabase();
  fs::create_directories(path("in/deep"));
  std::ofstream(path("in/deep/a.txt")) << "text";
  std::ofstream(path("in/\xFF")) << "x";
  fs::create_symlink("deep/a.txt", path("in/link"));
  done({"import", kDefaultFile, "files", "in/"});
  done({"rm", kDefaultFile, "files", "deep/a.txt"});
  const std::string dump = done({"dump", "--table", "files", kDefaultFile});
  EXPECT_NE(dump.find(R"("files":4,"list":2,"known_since":0})"), std::string::npos) << dump;
  EXPECT_NE(dump.find(R"({"entry":"removed","name":"deep/a.txt")"), std::string::npos) << dump;
  EXPECT_NE(dump.find(R"("name_base64":"/w==")"), std::string::npos) << dump;
  EXPECT_NE(dump.find(R"("target":"deep/a.txt")"), std::string::npos) << dump;
  const std::string whole = done({"dump", kDefaultFile});
  EXPECT_EQ(dumpedAgain(whole), whole);
}

TEST_F(ToolDump, DumpsAPart) {
  makeDatabase();
  EXPECT_EQ(linesOf(done({"dump", "--table", "0xa1", kDefaultFile})).size(), 8u);
  const auto after = linesOf(done({"dump", "--table", "notes", "--after", "0x2", kDefaultFile}));
  ASSERT_EQ(after.size(), 6u);
  EXPECT_NE(after[0].find(R"("part":true)"), std::string::npos);
  EXPECT_TRUE(after[3].starts_with(R"({"record":"0x0000000000000004")"));
  EXPECT_EQ(after[1].find("former"), std::string::npos);
  EXPECT_EQ(linesOf(done({"dump", "--since", "@4294967296", kDefaultFile})).size(), 5u);
  EXPECT_EQ(linesOf(done({"dump", "--since", "@4294967295", kDefaultFile})).size(), 8u);
  EXPECT_EQ(done({"load", "part.qvd"}, joined(after)), "1 record in 1 table\n");
}

TEST_F(ToolDump, WritesToAFile) {
  makeDatabase();
  EXPECT_EQ(done({"dump", "-o", "out.jsonl", kDefaultFile}), "");
  const std::string dump = done({"dump", "-o", "-", kDefaultFile});
  EXPECT_EQ(readFile(path("out.jsonl")), bytesOf(dump));
  fails({"dump", "-o", "out.jsonl", kDefaultFile}, 1, {"out.jsonl", "--force"});
  done({"dump", "--force", "-o", "out.jsonl", kDefaultFile});
  EXPECT_EQ(done({"load", "again.qvd", "out.jsonl"}), "3 records in 1 table\n");
}

TEST_F(ToolDump, WritesTheRowsThatExportWritesForCopy) {
  makeDatabase();
  const std::string rows = done({"export", "--copy", "-", kDefaultFile});
  EXPECT_EQ(linesOf(rows).size(), 3u);
  EXPECT_EQ(done({"dump", "--copy", kDefaultFile}), rows);
  EXPECT_EQ(done({"dump", "--copy", "-o", "rows.txt", kDefaultFile}), "");
  EXPECT_EQ(contents("rows.txt"), bytesOf(rows));
  fails({"dump", "--copy", "-o", "rows.txt", kDefaultFile}, 1, {"rows.txt", "exists"});
  fails({"load", "rows.qvd", "rows.txt"}, 1, {"rows.txt: line 1"});
  // A part keeps the places that its records have in the table.
  const std::vector<std::string> last = {linesOf(rows)[2]};
  EXPECT_EQ(done({"dump", "--copy", "--table", "notes", "--after", "0x2", kDefaultFile}),
            joined(last));
  Database::open(path(), qvdb::Mode::exclusive)
      .table("notes")
      .add(NewRecord(std::string_view("old"), 0, Id{5}));
  const std::string since = done({"dump", "--copy", "--since", "@4294967295", kDefaultFile});
  EXPECT_EQ(since, rows);
}

TEST_F(ToolDump, LoadsNothingOverAFileThatExists) {
  makeDatabase();
  const std::string dump = done({"dump", kDefaultFile});
  expectUnchanged([&] {
    fails({"load", kDefaultFile}, 1, {kDefaultFile, "exists already", "remove it first"}, dump);
  });
  writeFile(path("empty.qvd"), {});
  done({"load", "empty.qvd"}, dump);
}

TEST_F(ToolDump, RefusesWrongUsage) {
  makeDatabase();
  fails({"dump", "--after", "0x1", kDefaultFile}, 2, {"--after needs --table"});
  fails({"dump", "--table", "notes", "--after", "one", kDefaultFile}, 2, {"is not an identifier"});
  fails({"dump", "--since", "soon", kDefaultFile}, 2, {"is no time"});
  fails({"dump", "--table", "none", kDefaultFile}, 1, {"there is no table 'none'"});
  fails({"dump", "missing.qvd"}, 1, {"missing.qvd"});
  fails({"load", "new.qvd", "missing.jsonl"}, 1, {"missing.jsonl"});
  fails({"load", "new.qvd", "."}, 1, {"."});
  fails({"load"}, 2, {"FILE"});
  fails({"load", "none/new.qvd"}, 1, {"--parents"}, joined(small()));
  done({"load", "--parents", "none/new.qvd"}, joined(small()));
}

TEST_F(ToolDump, WorksWhileTheDatabaseIsInUse) {
  makeDatabase();
  const auto writer = Database::open(path(), qvdb::Mode::exclusive);
  EXPECT_EQ(linesOf(done({"dump", kDefaultFile})).size(), 8u);
}

TEST_F(ToolDump, RefusesHostileLines) {
  done({"load", "good.qvd"}, joined(small()));
  const auto record = [](const std::string& members) {
    return R"({"record":"0x2","created":5,"modified":6,)" + members + "}";
  };
  refuses({}, {"line 1: ", "the dump ends before its last line"});
  refuses({""}, {"line 1: ", "not valid JSON"});
  refuses({"[]"}, {"line 1: ", "not a JSON object"});
  refuses({"{}"}, {"line 1: ", "a dump begins with"});
  refuses(with(0, R"({"qvdb":"dump","format":2})"), {"line 1: ", "format 2 is not known"});
  refuses(with(0, std::string(100'000, '[')), {"line 1: ", "nested too deeply"});
  refuses(with(2, record("\"text\":" + std::string(100'000, '['))), {"line 3: ", "too deeply"});
  refuses(with(2, record("\"capacity\":99999999999999999999,\"text\":\"\"")),
          {"line 3: ", "whole number"});
  refuses(with(2, record("\"capacity\":1e400,\"text\":\"\"")), {"line 3: "});
  refuses(with(2, record("\"capacity\":4294967296,\"text\":\"\"")), {"line 3: ", "is more than"});
  refuses(with(2, record("\"capacity\":-1,\"text\":\"\"")), {"line 3: ", "not a whole number"});
  refuses(with(2, record("\"capacity\":1,\"text\":\"two\"")), {"line 3: ", "less than the size"});
  refuses(with(2, record("\"capacity\":null,\"text\":\"two\"")), {"line 3: ", "null"});
  refuses(with(2, record("\"text\":\"\xFF\"")), {"line 3: ", "UTF-8"});
  refuses(with(2, record(std::string("\"text\":\"\0\"", 10))), {"line 3: ", "not valid JSON"});
  refuses(with(2, record("\"text\":\"\\ud800\"")), {"line 3: "});
  refuses(with(2, record("\"text\":\"\\udc00\"")), {"line 3: "});
  refuses(with(2, record("\"text\":\"a\",\"text\":\"b\"")), {"line 3: ", "twice"});
  refuses(with(2, record("\"text\":\"a\",\"base64\":\"\"")), {"line 3: ", "exclude"});
  refuses(with(2, record("\"base64\":\"AA\"")), {"line 3: ", "not base64"});
  refuses(with(2, record("\"base64\":\"AB==\"")), {"line 3: ", "not base64"});
  refuses(with(2, record("\"base64\":\"A===\"")), {"line 3: ", "not base64"});
  refuses(with(2, record("\"text\":5")), {"line 3: ", "not text"});
  refuses(with(2, record("\"text\":\"\",\"more\":1")), {"line 3: ", "\"more\" is not known"});
  refuses(with(2, record("\"size\":5,\"text\":\"12345\"")), {"line 3: ", "\"size\" is not more"});
  refuses(with(2, R"({"record":2,"created":5,"modified":6,"text":""})"), {"line 3: ", "as text"});
  refuses(with(2, R"({"record":"2","created":5,"modified":6,"text":""})"), {"line 3: ", "0x"});
  refuses(with(2, R"({"record":"0x2","modified":6,"text":""})"),
          {"line 3: ", "\"created\" is missing"});
  refuses(with(2, R"({"data":true,"files":2})"), {"line 4: ", "2 entries of the list"});
  refuses(with(1, R"({"table":"\u0000","id":"0xa1","version":100,"flags":[0,0]})"),
          {"line 2: ", "name"});
  refuses(with(1, R"({"table":"t","id":"0x0","version":100,"flags":[0,0]})"),
          {"line 2: ", "identifier 0"});
  refuses(with(1, R"({"table":"t","id":"0x1","version":100,"flags":[0]})"),
          {"line 2: ", "two numbers"});
  refuses(with(3, R"({"end":"table","records":2})"), {"line 4: ", "another number of records"});
  refuses(with(3, R"({"end":"table","records":1,"last_written":2})"), {"line 4: ", "last_written"});
  refuses(with(3, R"({"end":"dump","tables":1,"records":1})"), {"line 4: ", "end of a table"});
  refuses(with(4, R"({"end":"dump","tables":2,"records":1})"), {"line 5: ", "tables"});
  auto lines = small();
  lines.push_back("{}");
  refuses(lines, {"line 6: ", "nothing may follow"});
  lines.resize(4);
  refuses(lines, {"line 5: ", "the rest is missing"});
  lines.insert(lines.begin() + 3, R"({"data":true,"text":"x"})");
  refuses(lines, {"line 4: ", "before its records"});
  lines = small();
  const std::vector<std::string> table(lines.begin() + 1, lines.begin() + 4);
  lines.insert(lines.begin() + 4, table.begin(), table.end());
  refuses(lines, {"line 5: ", "has the identifier"});
  const std::string text = joined(small());
  refusesText(text.substr(0, text.size() - 1), {"line 5: ", "not ended"});
  refusesText(text.substr(0, text.size() - 20), {"line 5: ", "not ended"});
  refusesText(std::string(9 << 20, 'x'), {"line 1: ", "8 MiB"});
}

TEST_F(ToolDump, RefusesWhatNoDumpCouldRestore) {
  FileImage image;
  image.addTable("one", 0x1101);
  image.addTable("two", 0x1101);
  expectDamage();
  writeFile(path(), image.build());
  fails({"dump", kDefaultFile}, 1, {"two tables have the identifier 0x0000000000001101"});
}

}  // namespace
}  // namespace qvdbase::test
