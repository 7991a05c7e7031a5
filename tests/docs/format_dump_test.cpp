// The example file of docs/format.md is rebuilt from the rows printed there and read with the
// library, so that the description cannot drift from what the library does.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <fstream>
#include <regex>
#include <string>

#include "support/bytes.h"
#include "support/database_fixture.h"

namespace qvdbase::test {
namespace {

// A row is an offset, two blanks, bytes, and behind two more blanks words about them. A row that
// begins with three dots repeats the bytes before it.
Bytes exampleFile() {
  const std::regex row("([0-9a-f]{8})  ((?:[0-9a-f]{2} ?)+)(?: .*)?");
  const std::regex repetition("\\.\\.\\. the ([0-9]+) bytes above, ([0-9]+) times more.*");
  std::ifstream document(QVDBASE_DOCS "/format.md");
  Bytes file;
  std::string line;
  std::smatch match;
  while (std::getline(document, line)) {
    if (std::regex_match(line, match, row)) {
      EXPECT_EQ(std::stoul(match[1], nullptr, 16), file.size()) << line;
      file.add(hex(match[2].str()));
    } else if (std::regex_match(line, match, repetition)) {
      const Bytes again = file.from(file.size() - std::stoul(match[1]));
      for (unsigned long i = std::stoul(match[2]); i > 0; i--) file.add(again);
    }
  }
  return file;
}

// The number in a database's, table's or record's identity, as the rows show it.
constexpr uint64_t kTable = 0xd2418b1065548a13;
constexpr uint64_t kHello = 0x075ef3a96554f0c4;
constexpr uint64_t kBye = 0x91264d7265563b59;

using FormatDocument = DatabaseTest;

TEST_F(FormatDocument, ShowsAWholeFile) {
  const Bytes file = exampleFile();
  EXPECT_EQ(file.size(), 4777u);
  EXPECT_EQ(describe(checkFile(file)), "");
}

TEST_F(FormatDocument, ShowsATableThatTheLibraryFinds) {
  const int16_t db = put(exampleFile(), kDefaultFile, 1);
  int32_t tables = 0;
  EXPECT_EQ(GetNumberOfTable(db, &tables), 1);
  EXPECT_EQ(tables, 1);
  EXPECT_EQ(FindTableByName(db, "notes"), kTable);
  uint32_t size = 0;
  ASSERT_EQ(GetTableDataSize(db, kTable, &size), 1);
  ASSERT_EQ(size, 2u);
  Bytes data(size);
  EXPECT_EQ(GetTableData(db, kTable, data.data()), 1);
  EXPECT_EQ(data.str(), "v1");
}

TEST_F(FormatDocument, ShowsRecordsThatTheLibraryReads) {
  const int16_t db = put(exampleFile(), kDefaultFile, 1);
  EXPECT_EQ(list(db, kTable), (std::vector<uint64_t>{kHello, kBye}));
  EXPECT_EQ(payload(db, kTable, kHello).str(), "hello");
  EXPECT_EQ(payload(db, kTable, kBye).str(), "bye");
  const oneRecordInfoP1 hello = info(db, kTable, kHello);
  EXPECT_EQ(hello.createTime, 1700000000u);
  EXPECT_EQ(hello.dataCapacity, 8u);
  EXPECT_EQ(hello.recordPos, 4630);
}

// What the library writes for the same calls differs from the example in the identifiers and times
// only, which are its own each time.
TEST_F(FormatDocument, ShowsWhatTheLibraryWrites) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "notes");
  addRecord(db, table, bytesOf("hello"), 8);
  addRecord(db, table, bytesOf("bye"));
  setTableData(db, table, bytesOf("v1"));
  close(db);

  const Bytes example = exampleFile();
  Bytes written = contents();
  ASSERT_EQ(written.size(), example.size());
  const auto takeOver = [&](size_t offset, size_t count) {
    written = written.with(offset, example.at(offset, count));
  };
  takeOver(6, 10);         // the database's identifier
  takeOver(22 + 6, 10);    // the table's, in its slot
  takeOver(4630 + 3, 28);  // the records' table, identifier and times
  takeOver(4694 + 3, 28);
  takeOver(4753 + 3, 10);  // the table's, before its data
  EXPECT_TRUE(sameBytes(written, example));
}

}  // namespace
}  // namespace qvdbase::test
