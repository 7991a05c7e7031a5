// qvdb sql
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolSql = ToolTest;

#ifdef QVDB_HAS_SQLITE

TEST_F(ToolSql, AnswersFromTheTablesOfTheFile) {
  const Words ids = notes({bytesOf("one"), bytesOf("tab\there"), bytesOf("\xff\xfe")});
  expectOnlyRead([&] {
    EXPECT_EQ(done({"sql", "test.qvd", "select id, text from notes order by rowid desc limit 2"}),
              "id\ttext\n" + ids[2] + "\t\n" + ids[1] + "\ttab\\x09here\n");
    EXPECT_EQ(done({"sql", "test.qvd", "select payload from notes where rowid = 3"}),
              "payload\n\\xff\\xfe\n");
    EXPECT_EQ(done({"sql", "test.qvd", "select name, records from qvdb_tables"}),
              "name\trecords\nnotes\t3\n");
    EXPECT_EQ(done({"sql", "test.qvd", "select count(*) from qvdb_records"}), "count(*)\n3\n");
  });
}

TEST_F(ToolSql, WritesJson) {
  notes({bytesOf("one"), bytesOf("\xff")});
  const auto answer = json(
      {"sql", "--json", "test.qvd",
       "select rowid, text, payload, 1.5 as half, 1 as x, 2 as x from notes order by rowid desc"});
  EXPECT_EQ(answer["columns"], nlohmann::json({"rowid", "text", "payload", "half", "x", "x:2"}));
  ASSERT_EQ(answer["rows"].size(), 2u);
  EXPECT_EQ(answer["rows"][0]["rowid"], 2);
  EXPECT_EQ(answer["rows"][0]["text"], nullptr);
  EXPECT_EQ(answer["rows"][0]["payload_bytes"], "ff");
  EXPECT_EQ(answer["rows"][1]["payload"], "one");
  EXPECT_EQ(answer["rows"][1]["half"], 1.5);
  EXPECT_EQ(answer["rows"][1]["x:2"], 2);
  EXPECT_EQ(json({"sql", "--json", "test.qvd", "select 1 where 0"})["rows"].size(), 0u);
}

TEST_F(ToolSql, ShowsOtherFilesUnderTheirNames) {
  const Words ids = notes({bytesOf("a"), bytesOf("b")});
  std::filesystem::copy_file(path(), path("old file.qvd"));
  done({"rm", "old file.qvd", "notes", ids[0]});
  EXPECT_EQ(done({"sql", "test.qvd", "--attach", "old=old file.qvd",
                  "select text from notes where id not in (select id from old.notes)"}),
            "text\na\n");
  EXPECT_EQ(done({"sql", "test.qvd", "select text from qvdb_records('old file.qvd', 'notes')"}),
            "text\nb\n");
  fails({"sql", "test.qvd", "--attach", "old", "select 1"}, 2, {"--attach", "NAME=FILE"});
  fails({"sql", "test.qvd", "--attach", "old=none.qvd", "select 1"}, 1, {"none.qvd"});
}

TEST_F(ToolSql, RunsSeveralStatements) {
  notes({bytesOf("one")});
  EXPECT_EQ(done({"sql", "test.qvd",
                  "create temp view v as select upper(text) as t from notes; -- a view\n"
                  "select t from v; select 2;"}),
            "t\nONE\n2\n2\n");
  EXPECT_EQ(done({"sql", "test.qvd", "  "}), "");
}

TEST_F(ToolSql, ReadsTheQueryFromStandardInput) {
  notes({bytesOf("one")});
  const std::string query = "-- as in a script\nselect text from notes;\nselect 2 as n\n";
  EXPECT_EQ(done({"sql", "test.qvd", "-"}, query), "text\none\nn\n2\n");
  EXPECT_EQ(done({"sql", "test.qvd", "select 3 as n"}, query), "n\n3\n");
  EXPECT_EQ(done({"sql", "test.qvd", "-"}, ""), "");
  fails({"sql", "test.qvd", "-"}, 1, {"standard input", "zero byte"},
        std::string("select 1\0; select 2", 19));
  fails({"sql", "test.qvd", "-"}, 1, {"test.qvd", "syntax error"}, "selec 1");
  // A file that is not there is noticed before anything is waited for.
  fails({"sql", "none.qvd", "-"}, 1, {"none.qvd", "no such file"}, query);
}

TEST_F(ToolSql, SaysWhatIsWrong) {
  notes({bytesOf("one")});
  fails({"sql", "test.qvd", "selec 1"}, 1, {"test.qvd", "selec"});
  fails({"sql", "test.qvd", "select * from letters"}, 1, {"test.qvd", "no such table: letters"});
  fails({"sql", "test.qvd", "delete from notes"}, 1, {"may not be modified"});
  fails({"sql", "missing.qvd", "select 1"}, 1, {"missing.qvd"});
  fails({"sql", "test.qvd", "select * from qvdb_records('missing.qvd')"}, 1, {"missing.qvd"});
  fails({"sql", "test.qvd", "create view v as select * from notes; select * from v"}, 1,
        {"unsafe use", "CREATE TEMP VIEW"});
  fails({"sql", "test.qvd"}, 2, {"QUERY"});
}

// SQLite would forget them, and the user would take that for a change of the file.
TEST_F(ToolSql, DropsNoTableOfTheDatabase) {
  notes({bytesOf("one")});
  for (const char* table : {"notes", "main.notes", "qvdb_tables", "other.notes"}) {
    fails({"sql", "test.qvd", "--attach", "other=test.qvd", std::string("drop table ") + table}, 1,
          {"test.qvd", "may not be modified"});
  }
  fails({"sql", "test.qvd", "alter table notes rename to x"}, 1, {"may not be modified"});
  EXPECT_EQ(done({"sql", "test.qvd",
                  "create temp view v as select text from notes; drop view v;"
                  "create virtual table temp.mine using qvdb_records('test.qvd'); drop table mine;"
                  "create temp table t as select text from notes; drop table t"}),
            "");
  fails({"sql", "test.qvd", "select load_extension('none')"}, 1, {"not authorized"});
}

TEST_F(ToolSql, SaysHowAnotherDatabaseIsAttached) {
  notes({bytesOf("one")});
  fails({"sql", "test.qvd", "attach 'test.qvd' as other; select * from other.notes"}, 1,
        {"not a database", "--attach NAME=FILE"});
}

TEST_F(ToolSql, ReachesTablesWhoseNamesSqlCannotHave) {
  const int16_t db = create();
  addRecord(db, addTable(db, "Notes"), bytesOf("A"));
  addRecord(db, addTable(db, "notes"), bytesOf("b"));
  addRecord(db, addTable(db, "sqlite_x"), bytesOf("c"));
  addRecord(db, addTable(db, "it's \"quoted\""), bytesOf("d"));
  close(db);
  const Outcome outcome = run({"sql", "test.qvd",
                               "select text from notes; select text from qvdb_records;"
                               "select text from \"it's \"\"quoted\"\"\""});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "text\nA\ntext\nA\nb\nc\nd\ntext\nd\n");
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 2) << outcome;
  EXPECT_NE(outcome.err.find("use qvdb_records"), std::string::npos) << outcome;
}

TEST_F(ToolSql, EndsAJsonListThatDamageCutsShort) {
  FileImage image;
  const size_t table = image.addTable("notes", 1);
  image.addRecord(table, 11, bytesOf("one"));
  image.record(image.addRecord(table, 12, bytesOf("two"))).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  const Outcome outcome = run({"sql", "--json", "test.qvd", "select text from notes"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  const auto answer = parsedJson(outcome.out);
  EXPECT_EQ(answer["rows"].size(), 1u);
  EXPECT_NE(answer["error"].get<std::string>().find("test.qvd"), std::string::npos);
}

TEST_F(ToolSql, ReadsBesideAWriter) {
  notes({bytesOf("one")});
  const int16_t db = open();
  EXPECT_EQ(done({"sql", "test.qvd", "select text from notes"}), "text\none\n");
  close(db);
}

#else

TEST_F(ToolSql, SaysWhatIsMissing) {
  notes({bytesOf("one")});
  fails({"sql", "test.qvd", "select 1"}, 1, {"built without SQLite", "libsqlite3-dev"});
}

#endif

}  // namespace
}  // namespace qvdbase::test
