// The loadable module in SQLite's own shell.
#include "tool/tool_fixture.h"

#ifdef SQL_MODULE

namespace qvdbase::test {
namespace {

class SqlShell : public ToolTest {
 protected:
  Outcome shell(const std::string& statements) {
    ProgramCall call;
    call.program = SQLITE_SHELL;
    call.arguments = {"-batch", "-bail", "-cmd", ".load " SQL_MODULE, ":memory:"};
    call.input = statements;
    call.folder = folder.path();
    return runProgram(call);
  }

  std::string answer(const std::string& statements) {
    const Outcome outcome = shell(statements);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // Fails, with this in its message.
  void expectFailure(const std::string& statements, const std::string& part) {
    const Outcome outcome = shell(statements);
    EXPECT_NE(outcome.status, 0) << outcome;
    EXPECT_NE(outcome.err.find(part), std::string::npos) << outcome;
  }
};

TEST_F(SqlShell, ReadsTablesAndRecordsByFunctionsInTheFromClause) {
  const Words ids = notes({bytesOf("one"), bytesOf("three")});
  expectOnlyRead([&] {
    EXPECT_EQ(answer("select name, records, records_ever_added, version, data_size is null"
                     " from qvdb_tables('test.qvd');"),
              "notes|2|2|100|1\n");
    EXPECT_EQ(
        answer("select rowid, id, table_name, size, capacity, text, hex(payload)"
               " from qvdb_records('test.qvd', 'notes');"),
        "1|" + ids[0] + "|notes|3|3|one|6F6E65\n2|" + ids[1] + "|notes|5|5|three|7468726565\n");
  });
}

TEST_F(SqlShell, ShowsTheIdentifierAsTextAndAsTheSameInteger) {
  const Words ids = notes({bytesOf("one")});
  EXPECT_EQ(answer("select printf('0x%016x', number) = id, id from qvdb_records('test.qvd');"),
            "1|" + ids[0] + "\n");
}

TEST_F(SqlShell, ReadsTablesThatCreateVirtualTableNames) {
  notes({bytesOf("one"), bytesOf("three")});
  EXPECT_EQ(answer("create virtual table temp.n using qvdb_records('test.qvd', \"notes\");"
                   "create virtual table t using qvdb_tables(test.qvd);"
                   "select text from n order by rowid desc; select name from t;"),
            "three\none\nnotes\n");
  expectFailure("create virtual table n using qvdb_records('test.qvd', 'notes', 'more');",
                "too many arguments");
  expectFailure("create virtual table n using qvdb_tables('test.qvd', 'notes');",
                "too many arguments");
}

TEST_F(SqlShell, JoinsTwoFiles) {
  const Words ids = notes({bytesOf("a"), bytesOf("b"), bytesOf("c")});
  std::filesystem::copy_file(path(), path("other.qvd"));
  done({"set", "other.qvd", "notes", ids[1]}, "B");
  EXPECT_EQ(answer("select o.text, n.text from qvdb_records('test.qvd', 'notes') o"
                   " join qvdb_records('other.qvd', 'notes') n on n.id = o.id"
                   " where o.text <> n.text;"),
            "b|B\n");
}

TEST_F(SqlShell, IsRefusedToViewsThatAreStoredButNotToTemporaryOnes) {
  notes({bytesOf("one")});
  expectFailure("create view v as select text from qvdb_records('test.qvd'); select * from v;",
                "unsafe use of virtual table");
  EXPECT_EQ(answer("create temp view v as select text from qvdb_records('test.qvd');"
                   "select * from v;"),
            "one\n");
}

TEST_F(SqlShell, WritesNothing) {
  notes({bytesOf("one")});
  expectOnlyRead([&] {
    for (const char* statement :
         {"delete from n;", "update n set text = 'x';", "insert into n(text) values ('x');"}) {
      expectFailure(
          std::string("create virtual table n using qvdb_records('test.qvd', notes);") + statement,
          "may not be modified");
    }
    answer("create virtual table n using qvdb_records('test.qvd', notes); drop table n;");
  });
}

TEST_F(SqlShell, ReportsWhatTheLibraryReports) {
  notes({bytesOf("one")});
  expectFailure("select * from qvdb_records('missing.qvd');", "missing.qvd");
  expectFailure("select * from qvdb_records('test.qvd', 'letters');", "letters");
  expectFailure("select * from qvdb_records;", "no file is named");
  expectFailure("select * from qvdb_tables;", "no file is named");
  writeFile(path("text.txt"), bytesOf("no database at all, whatever its length is"));
  expectFailure("select * from qvdb_tables('text.txt');", "text.txt");
  allowDamage();
}

TEST_F(SqlShell, SaysWhichPayloadIsTooLargeForSqlite) {
  const Words ids = notes({Bytes(2000, 'x')});
  done({"data", "test.qvd", "notes", "--set", "-"}, std::string(3000, 'd'));
  expectFailure(".limit length 1500\nselect text from qvdb_records('test.qvd');",
                "the payload of record " + ids[0] +
                    " has 2000 bytes, and SQLite takes at most 1500; 'qvdb get' prints it");
  expectFailure(".limit length 1500\nselect data from qvdb_tables('test.qvd');",
                "has 3000 bytes, and SQLite takes at most 1500; 'qvdb data' prints it");
}

TEST_F(SqlShell, DeliversTheRecordsBeforeTheDamageAndThenFails) {
  FileImage image;
  const size_t table = image.addTable("notes", 1);
  image.addRecord(table, 11, bytesOf("one"));
  image.record(image.addRecord(table, 12, bytesOf("two"))).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  const Outcome outcome = shell("select text from qvdb_records('test.qvd', 'notes');");
  EXPECT_EQ(outcome.out, "one\n") << outcome;
  EXPECT_NE(outcome.status, 0);
  EXPECT_NE(outcome.err.find("test.qvd"), std::string::npos) << outcome;
}

TEST_F(SqlShell, ReadsBesideAWriter) {
  const Words ids = notes({bytesOf("one")});
  const int16_t db = open();
  EXPECT_EQ(answer("select text from qvdb_records('test.qvd');"), "one\n");
  addRecord(db, FindTableByName(db, "notes"), bytesOf("two"));
  EXPECT_EQ(answer("select text from qvdb_records('test.qvd');"), "one\ntwo\n");
  close(db);
}

TEST_F(SqlShell, OpensTheNewFileAfterACompaction) {
  notes({bytesOf("one"), bytesOf("two")});
  const std::string tool = std::string(".shell " QVDB_TOOL) + " compact test.qvd > /dev/null\n";
  EXPECT_EQ(answer("create virtual table n using qvdb_records('test.qvd', notes);\n"
                   "select count(*) from n;\n" +
                   tool + "select count(*), max(text) from n;\n"),
            "2\n2|two\n");
}

TEST_F(SqlShell, RunsTheExampleOfJsonPayloads) {
  const int16_t db = create("letters.qvd");
  const uint64_t table = addTable(db, "letters");
  addRecord(db, table,
            bytesOf(R"({"from":"Ada","subject":"Engine","pages":3,"tags":["old","kept"]})"));
  addRecord(db, table, bytesOf(R"({"from":"Emmy","subject":"Rings","pages":12,"tags":["kept"]})"));
  addRecord(db, table, bytesOf("not JSON"));
  close(db);
  EXPECT_EQ(answer(std::string(".read ") + EXAMPLES_FOLDER + "/json_payloads.sql\n"),
            "Rings|Emmy|12\n"
            "Engine|Ada|3\n"
            "kept|2\n"
            "old|1\n");
}

}  // namespace
}  // namespace qvdbase::test

#endif
