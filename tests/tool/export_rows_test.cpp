// qvdb export --sqlite, --parquet and --copy
#include <sys/stat.h>

#ifdef QVDB_HAS_SQLITE
#include <sqlite3.h>
#endif

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolExportRows : public ToolTest {
 protected:
  // Records of both kinds, an empty one, and a name that needs care.
  void make() {
    const int16_t db = create();
    const uint64_t notes = addTable(db, "notes");
    assignRecord(db, notes, 0xA1, bytesOf("one"));
    assignRecord(db, notes, 0xA2, Bytes({0x00, 0xFF, 0x0A}));
    assignRecord(db, notes, 0xA3, {});
    assignRecord(db, addTable(db, "back\\slash\ttab"), 0xB1, bytesOf("x"));
    addTable(db, "empty");
    close(db);
  }

  std::string text(const std::string& name) {
    const Bytes bytes = contents(name);
    return std::string(bytes.begin(), bytes.end());
  }
};

TEST_F(ToolExportRows, WritesTextForCopy) {
  make();
  expectOnlyRead([&] {
    const std::string rows = done({"export", "--copy", "-", "test.qvd"});
    std::istringstream lines(rows);
    std::vector<std::vector<std::string>> fields;
    for (std::string line; std::getline(lines, line);) {
      auto& row = fields.emplace_back();
      std::istringstream parts(line);
      for (std::string part; std::getline(parts, part, '\t');) row.push_back(part);
    }
    ASSERT_EQ(fields.size(), 4u);
    for (const auto& row : fields) ASSERT_EQ(row.size(), 6u);
    EXPECT_EQ(fields[0][0], "1");
    EXPECT_EQ(fields[0][1], "notes");
    EXPECT_EQ(fields[0][2], "0x00000000000000a1");
    EXPECT_EQ(fields[0][5], "\\\\x6f6e65");
    EXPECT_EQ(fields[1][5], "\\\\x00ff0a");
    EXPECT_EQ(fields[2][5], "\\\\x");
    EXPECT_EQ(fields[3][0], "1");
    EXPECT_EQ(fields[3][1], "back\\\\slash\\ttab");
    EXPECT_EQ(line({"export", "--copy", "rows.txt", "test.qvd"}), "exported 4 records");
    EXPECT_EQ(text("rows.txt"), rows);
  });
}

TEST_F(ToolExportRows, ContinuesAfterARecord) {
  make();
  const std::string rows = done({"export", "--copy", "-", "--after", "0xa1", "test.qvd", "notes"});
  EXPECT_TRUE(rows.starts_with("2\tnotes\t0x00000000000000a2\t")) << rows;
  EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 2);
  EXPECT_EQ(done({"export", "--copy", "-", "--after", "0xa3", "test.qvd", "notes"}), "");
  fails({"export", "--copy", "-", "--after", "0xa9", "test.qvd", "notes"}, 1, {"test.qvd", "0x"});
  fails({"export", "--copy", "-", "--after", "0xa1", "test.qvd"}, 2, {"--after", "TABLE"});
  fails({"export", "--after", "0xa1", "test.qvd", "notes", "out"}, 2, {"--after"});
}

// The frame of a Parquet file: "PAR1", the footer, its length (little-endian), "PAR1".
TEST_F(ToolExportRows, WritesAParquetFile) {
  make();
  ASSERT_EQ(::chmod(path().c_str(), 0640), 0);
  EXPECT_EQ(line({"export", "--parquet", "rows.parquet", "test.qvd"}), "exported 4 records");
  const std::string file = text("rows.parquet");
  ASSERT_GT(file.size(), 12u);
  EXPECT_TRUE(file.starts_with("PAR1"));
  EXPECT_TRUE(file.ends_with("PAR1"));
  size_t length = 0;
  for (size_t i = 0; i < 4; ++i) {
    length |= size_t{static_cast<uint8_t>(file[file.size() - 8 + i])} << 8 * i;
  }
  ASSERT_LT(length + 12, file.size());
  const std::string footer = file.substr(file.size() - 8 - length, length);
  // Field 1 (int 32): version 1; field 2: a list of 7 structures, the first of which has a name
  // of 7 bytes in field 4 and 6 children in field 5.
  EXPECT_TRUE(footer.starts_with(std::string("\x15\x02\x19\x7c\x48\x07records\x15\x0c\x00", 15)));
  for (const char* name : {"place", "table_name", "id", "created", "modified", "payload"}) {
    EXPECT_NE(footer.find(name), std::string::npos) << name;
  }
  struct ::stat status = {};
  ASSERT_EQ(::stat(path("rows.parquet").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0640u);
}

TEST_F(ToolExportRows, RefusesToReplaceWithoutForce) {
  make();
  for (const char* option : {"--parquet", "--copy", "--sqlite"}) {
#ifndef QVDB_HAS_SQLITE
    if (std::string(option) == "--sqlite") continue;
#endif
    writeFile(path("out"), bytesOf("precious"));
    fails({"export", option, "out", "test.qvd"}, 1, {"out", "exists"});
    EXPECT_EQ(text("out"), "precious");
    done({"export", option, "out", "--force", "test.qvd"});
    EXPECT_NE(text("out"), "precious");
  }
}

TEST_F(ToolExportRows, NeverReplacesTheDatabaseItself) {
  make();
  std::filesystem::create_symlink("test.qvd", path("link"));
  expectOnlyRead([&] {
    for (const char* option : {"--parquet", "--copy", "--sqlite"}) {
#ifndef QVDB_HAS_SQLITE
      if (std::string(option) == "--sqlite") continue;
#endif
      for (const char* target : {"test.qvd", "./test.qvd", "link"}) {
        fails({"export", option, target, "--force", "test.qvd"}, 1, {target, "database itself"});
      }
    }
  });
}

TEST_F(ToolExportRows, LeavesNothingOfAFileThatCannotBeCompleted) {
  FileImage image;
  const size_t table = image.addTable("notes", 1);
  image.addRecord(table, 11, bytesOf("one"));
  image.record(image.addRecord(table, 12, bytesOf("two"))).blockMark = 0;
  writeFile(path(), image.build());
  allowDamage();
  for (const char* option : {"--parquet", "--copy", "--sqlite"}) {
#ifndef QVDB_HAS_SQLITE
    if (std::string(option) == "--sqlite") continue;
#endif
    fails({"export", option, "out", "test.qvd"}, 1, {"test.qvd"});
    size_t files = 0;
    for (const auto& each : std::filesystem::directory_iterator(folder.path())) {
      static_cast<void>(each);
      ++files;
    }
    EXPECT_EQ(files, 1u) << option;
  }
}

TEST_F(ToolExportRows, SaysWhatCannotBeCombined) {
  make();
  fails({"export", "--copy", "-", "--parquet", "p", "test.qvd"}, 2, {"cannot be combined"});
  fails({"export", "--copy", "-", "test.qvd", "notes", "out"}, 2, {"FOLDER"});
  fails({"export", "test.qvd", "notes"}, 2, {"FOLDER"});
  fails({"export", "test.qvd"}, 2, {"TABLE"});
  fails({"export", "--copy", "-", "test.qvd", "none"}, 1, {"test.qvd", "none"});
  fails({"export", "--copy", "no/folder/out", "test.qvd"}, 1, {"no/folder"});
}

#ifdef QVDB_HAS_SQLITE

TEST_F(ToolExportRows, WritesASqliteDatabase) {
  make();
  ASSERT_EQ(::chmod(path().c_str(), 0600), 0);
  EXPECT_EQ(line({"export", "--sqlite", "rows.sqlite", "test.qvd"}), "exported 4 records");
  sqlite3* connection = nullptr;
  ASSERT_EQ(
      sqlite3_open_v2(path("rows.sqlite").c_str(), &connection, SQLITE_OPEN_READONLY, nullptr),
      SQLITE_OK);
  std::string rows;
  const auto take = [](void* to, int, char** values, char**) {
    *static_cast<std::string*>(to) += std::string(values[0]) + "\n";
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(connection,
                         "select place || '|' || table_name || '|' || id || '|' || hex(payload) || "
                         "'|' || typeof(payload) from records order by table_name, place desc",
                         take, &rows, nullptr),
            SQLITE_OK);
  sqlite3_close(connection);
  EXPECT_EQ(rows,
            "1|back\\slash\ttab|0x00000000000000b1|78|blob\n"
            "3|notes|0x00000000000000a3||blob\n"
            "2|notes|0x00000000000000a2|00FF0A|blob\n"
            "1|notes|0x00000000000000a1|6F6E65|blob\n");
  struct ::stat status = {};
  ASSERT_EQ(::stat(path("rows.sqlite").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
  fails({"export", "--sqlite", "no/folder/out", "test.qvd"}, 1, {"no/folder"});
}

// SQLite would take what is in them for changes of the new database.
TEST_F(ToolExportRows, WritesNoSqliteDatabaseBesideTheJournalOfAnother) {
  make();
  for (const char* suffix : {"-journal", "-wal"}) {
    const std::string journal = std::string("rows.sqlite") + suffix;
    std::filesystem::create_symlink("rows.sqlite", path("link"));
    for (const bool exists : {false, true}) {
      if (exists) writeFile(path("rows.sqlite"), bytesOf("SQLite's"));
      writeFile(path(journal), bytesOf("changes"));
      fails({"export", "--sqlite", "rows.sqlite", "--force", "test.qvd"}, 1,
            {"rows.sqlite", journal, "remove both"});
      if (exists)
        fails({"export", "--sqlite", "link", "--force", "test.qvd"}, 1, {"link", journal});
      EXPECT_EQ(text(journal), "changes");
      EXPECT_EQ(std::filesystem::exists(path("rows.sqlite")), exists);
    }
    writeFile(path(journal), {});  // SQLite leaves an empty one, which means nothing
    done({"export", "--sqlite", "rows.sqlite", "--force", "test.qvd"});
    EXPECT_TRUE(text("rows.sqlite").starts_with("SQLite format 3"));
    for (const auto* name : {"rows.sqlite", "link"}) std::filesystem::remove(path(name));
    std::filesystem::remove(path(journal));
  }
}

// Another program of SQLite's holds a lock on a database that it reads or changes.
TEST_F(ToolExportRows, ReplacesNoSqliteDatabaseThatIsInUse) {
  make();
  done({"export", "--sqlite", "rows.sqlite", "test.qvd"});
  sqlite3* connection = nullptr;
  ASSERT_EQ(sqlite3_open(path("rows.sqlite").c_str(), &connection), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(connection, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  fails({"export", "--sqlite", "rows.sqlite", "--force", "test.qvd"}, 3, {"rows.sqlite", "--wait"});
  EXPECT_EQ(sqlite3_exec(connection, "DROP TABLE records; COMMIT", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(connection);
  done({"export", "--sqlite", "rows.sqlite", "--force", "test.qvd"});
}

#endif

}  // namespace
}  // namespace qvdbase::test
