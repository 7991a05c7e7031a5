// The example files of docs/format-examples.md are rebuilt from the rows printed there and compared
// with the files of docs/conformance that they show; the first one is read with the library as
// well, so that the description cannot drift from what the library does. And docs/format.md names
// every code that a check reports, and no other; the invariants of docs/architecture.md and the
// tests' own checker have the same codes.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/check.hpp>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "kit/bytes.h"
#include "kit/database_fixture.h"

namespace qvdbase::test {
namespace {

// The examples in the page, each between two fences.
std::vector<std::vector<std::string>> examples() {
  std::ifstream document(QVDBASE_DOCS "/format-examples.md");
  std::vector<std::vector<std::string>> all;
  bool isInside = false;
  for (std::string line; std::getline(document, line);) {
    if (line == "```") {
      isInside = !isInside;
      if (isInside) all.emplace_back();
    } else if (isInside) {
      all.back().push_back(line);
    }
  }
  return all;
}

// A row is an offset, two blanks, bytes, and after two more blanks words about them. A row that
// begins with three dots repeats the bytes before it, or says how many free slots there are.
Bytes fileIn(const std::vector<std::string>& rows) {
  const std::regex row("([0-9a-f]{8})  ((?:[0-9a-f]{2} ?)+)(?: .*)?");
  const std::regex repetition("\\.\\.\\. the ([0-9]+) bytes above, ([0-9]+) times more.*");
  const std::regex slots("\\.\\.\\. ([0-9]+) free slots, ([0-9]+) bytes, as in the first example");
  Bytes file;
  std::smatch match;
  for (const std::string& line : rows) {
    if (std::regex_match(line, match, row)) {
      EXPECT_EQ(std::stoul(match[1], nullptr, 16), file.size()) << line;
      file.add(hex(match[2].str()));
    } else if (std::regex_match(line, match, repetition)) {
      const Bytes again = file.from(file.size() - std::stoul(match[1]));
      for (unsigned long i = std::stoul(match[2]); i > 0; i--) file.add(again);
    } else if (std::regex_match(line, match, slots)) {
      const size_t before = file.size();
      for (unsigned long i = std::stoul(match[1]); i > 0; i--) file.add(freeSlot().encode());
      EXPECT_EQ(file.size() - before, std::stoul(match[2])) << line;
    } else {
      EXPECT_TRUE(line.starts_with("# ")) << line;
    }
  }
  return file;
}

Bytes exampleFile(size_t index = 0) {
  return fileIn(examples().at(index));
}

// The number in a database's, table's or record's identity, as the rows show it.
constexpr uint64_t kTable = 0xd2418b1065548a13;
constexpr uint64_t kHello = 0x075ef3a96554f0c4;
constexpr uint64_t kBye = 0x91264d7265563b59;

std::set<std::string> knownCodes() {
  std::set<std::string> codes;
  for (const qvdb::FindingCode& each : qvdb::finding_codes()) codes.emplace(each.code);
  return codes;
}

using FormatDocument = DatabaseTest;

TEST_F(FormatDocument, ShowsTwoOfTheConformanceFiles) {
  ASSERT_EQ(examples().size(), 2u);
  EXPECT_TRUE(sameBytes(exampleFile(0), readFile(QVDBASE_DOCS "/conformance/notes.qvd")));
  EXPECT_TRUE(sameBytes(exampleFile(1), readFile(QVDBASE_DOCS "/conformance/changes.qvd")));
}

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

// The same for the second example: each block's identifiers and times are the library's own.
TEST_F(FormatDocument, ShowsHowTheLibraryChangesAFile) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "tasks");
  const uint64_t plants = addRecord(db, table, bytesOf("water the plants"));
  const uint64_t bread = addRecord(db, table, bytesOf("buy bread"));
  const uint64_t call = addRecord(db, table, bytesOf("call"));
  addRecord(db, table, bytesOf("pay rent"));
  ASSERT_EQ(DeleteOneRecord(db, table, bread, nullptr), 1);
  const auto modify = [&](uint64_t record, const Bytes& payload) {
    return ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(payload.size()),
                            record, nullptr);
  };
  ASSERT_EQ(modify(plants, bytesOf("water")), 1);
  ASSERT_EQ(modify(call, bytesOf("call the bank")), 1);
  close(db);

  const Bytes example = exampleFile(1).cut(4960);  // without the append that was cut off
  Bytes written = contents();
  ASSERT_EQ(written.size(), example.size());
  written = written.with(6, example.at(6, 10)).with(22 + 6, example.at(22 + 6, 10));
  for (const size_t block : {4630u, 4702u, 4767u, 4827u, 4891u}) {
    written = written.with(block + 3, example.at(block + 3, 28));
  }
  EXPECT_TRUE(sameBytes(written, example));
}

TEST_F(FormatDocument, NamesEveryCodeOfACheckAndNoOther) {
  std::ifstream document(QVDBASE_DOCS "/format.md");
  const std::string text{std::istreambuf_iterator<char>(document), {}};
  const std::regex code("`([A-Z][0-9]{1,2})`");
  std::set<std::string> named;
  for (std::sregex_iterator each(text.begin(), text.end(), code), end; each != end; ++each) {
    named.insert((*each)[1]);
  }
  EXPECT_EQ(named, knownCodes());
}

// The codes in front of the rules of docs/architecture.md: "- **D1**, **D2** The slots in use ...".
TEST_F(FormatDocument, SharesItsCodesWithTheInvariantsOfTheLibrary) {
  std::ifstream document(QVDBASE_DOCS "/architecture.md");
  const std::regex code("\\*\\*([A-Z][0-9]{1,2})\\*\\*");
  const std::set<std::string> known = knownCodes();
  std::size_t rules = 0;
  for (std::string line; std::getline(document, line);) {
    for (std::sregex_iterator each(line.begin(), line.end(), code), end; each != end; ++each) {
      EXPECT_TRUE(known.contains((*each)[1])) << line;
      ++rules;
    }
  }
  EXPECT_GT(rules, 20u);
}

TEST_F(FormatDocument, SharesItsCodesWithTheTestsOwnChecker) {
  std::ifstream source(QVDBASE_DOCS "/../tests/kit/file_checker.cpp");
  const std::string text{std::istreambuf_iterator<char>(source), {}};
  const std::regex report("report\\(\"([A-Z][0-9]{1,2})\"");
  const std::set<std::string> known = knownCodes();
  std::set<std::string> codes;
  for (std::sregex_iterator each(text.begin(), text.end(), report), end; each != end; ++each) {
    codes.insert((*each)[1]);
    EXPECT_TRUE(known.contains((*each)[1])) << (*each)[0];
  }
  EXPECT_GT(codes.size(), 30u);
}

TEST_F(FormatDocument, NumbersItsRules) {
  std::ifstream document(QVDBASE_DOCS "/format.md");
  const std::regex rule("\\| ([0-9]+) \\| `[A-Z][0-9].*");
  std::smatch match;
  int last = 0;
  for (std::string line; std::getline(document, line);) {
    if (!std::regex_match(line, match, rule)) continue;
    EXPECT_EQ(std::stoi(match[1]), last + 1) << line;
    last = std::stoi(match[1]);
    EXPECT_EQ(std::count(line.begin(), line.end(), '|'), 6) << line;
  }
  EXPECT_GT(last, 40);
}

}  // namespace
}  // namespace qvdbase::test
