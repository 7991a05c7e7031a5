// The table "States that a cut-off leaves" of docs/format.md: each operation runs once on a sound
// file, the file is rebuilt without the last of its writes, and a check reports the codes of that
// row.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <span>
#include <string>

#include "kit/bytes.h"
#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {
namespace {

using Codes = std::set<std::string>;

// The second column of the table by the first.
std::map<std::string, Codes> statesInThePage() {
  std::ifstream document(QVDBASE_DOCS "/format.md");
  std::map<std::string, Codes> states;
  bool isThere = false;
  const std::regex row("\\| ([^|]+) \\| ([^|]+) \\|.*");
  const std::regex code("`([A-Z][0-9]+)`");
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("#")) isThere = line == "### States that a cut-off leaves";
    std::smatch match;
    if (!isThere || !std::regex_match(line, match, row)) continue;
    const std::string text = match[2];
    if (text == "what a check reports") continue;
    Codes& codes = states[match[1]];
    for (std::sregex_iterator each(text.begin(), text.end(), code), end; each != end; ++each) {
      codes.insert((*each)[1]);
    }
  }
  return states;
}

class CutOffStates : public DatabaseTest {
 protected:
  using Operation = std::function<int(int16_t db)>;

  CutOffStates() {
    const int16_t db = create();
    table = addTable(db, "tasks");
    setTableData(db, table, bytesOf("v1"));
    for (const char* payload : {"first", "second", "third"}) {
      records.push_back(addRecord(db, table, bytesOf(payload)));
    }
    close(db);
    before = contents();
    allowDamage();
  }

  int modify(int16_t db, size_t record, const Bytes& payload) {
    return ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(payload.size()),
                            records.at(record), nullptr);
  }

  int remove(int16_t db, size_t record) {
    return DeleteOneRecord(db, table, records.at(record), nullptr);
  }

  std::vector<Write> writesOf(const Operation& operation) {
    const int16_t db = put(before);
    std::vector<Write> log;
    {
      RecordedCalls host;
      EXPECT_EQ(operation(db), 1);
      log = host.writes();
    }
    close(db);
    return log;
  }

  // The page's codes are all that is reported, but for what is information and not in the page.
  void expectState(const std::string& name, const Bytes& file) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(page.contains(name)) << "the page has no such row";
    tried.insert(name);
    Codes all;
    Codes grave;
    qvdb::check_image(std::as_bytes(std::span(file.data(), file.size())),
                      [&](const qvdb::Finding& finding) {
                        all.insert(finding.code);
                        if (finding.severity != qvdb::Severity::information) {
                          grave.insert(finding.code);
                        }
                      });
    for (const std::string& code : page[name]) {
      EXPECT_TRUE(all.contains(code)) << code;
      grave.erase(code);
    }
    EXPECT_EQ(grave, Codes());
  }

  // A record that comes in pieces, more than are kept in memory.
  std::vector<Write> writesOfPieces() {
    close(put(before));
    RecordedCalls host;
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    qvdb::RecordWriter writer = database.table("tasks").writer();
    for (int i = 0; i < 3; ++i) writer.write(pattern(200'000));
    writer.finish();
    return host.writes();
  }

  // The operation without as many of its last writes, of which each is one stretch of bytes.
  void expectWithout(size_t missing, const std::string& name, const Operation& operation) {
    expectWithout(missing, name, writesOf(operation));
  }

  void expectWithout(size_t missing, const std::string& name, const std::vector<Write>& log) {
    std::vector<Write> kept = ranges(log);
    ASSERT_GT(kept.size(), missing) << name;
    kept.resize(kept.size() - missing);
    expectState(name, applied(before, log, byteCount(kept)));
  }

  uint64_t table = 0;
  std::vector<uint64_t> records;
  Bytes before;
  std::map<std::string, Codes> page = statesInThePage();
  std::set<std::string> tried;
};

TEST_F(CutOffStates, AreReportedAsThePageSays) {
  const auto add = [&](int16_t db) {
    uint64_t record = 0;
    return AddRecordData(db, table, bytesOf("fourth").data(), 6, 0, &record);
  };
  const auto move = [&](size_t record) {
    return [this, record](int16_t db) { return modify(db, record, bytesOf("a longer payload")); };
  };
  const auto without = [&](size_t record) {
    return [this, record](int16_t db) { return remove(db, record); };
  };
  expectWithout(1, "adding a table, before `tableCount`",
                [](int16_t db) { return AddTable(db, "new") != 0 ? 1 : 0; });
  expectWithout(1, "larger table data, before the slot", [&](int16_t db) {
    return SetTableData(db, table, bytesOf("newer data").data(), 10, 0);
  });
  expectWithout(1, "first table data, before the slot", [](int16_t db) {
    return SetTableData(db, AddTable(db, "new"), bytesOf("data").data(), 4, 0);
  });
  expectState("adding a record, inside the block", applied(before, writesOf(add), 40));
  expectWithout(3, "adding a record in pieces, before its lengths", writesOfPieces());
  expectWithout(2, "adding a record, before the link", writesOfPieces());
  expectWithout(2, "adding a record, before the link", add);
  expectWithout(1, "adding a record, before the slot", add);
  for (const size_t record : {0u, 1u, 2u}) {
    expectWithout(2, "moving a record, before the first link", move(record));
  }
  expectWithout(1, "moving a record, between the links", move(0));
  expectWithout(1, "moving a record, between the links", move(1));
  expectWithout(1, "moving the last record, between link and slot", move(2));
  expectWithout(1, "deleting the first record, before the slot", without(0));
  expectWithout(2, "deleting a record between others, between the links", without(1));
  expectWithout(1, "deleting a record between others, before the slot", without(1));
  expectWithout(1, "deleting the last record, before the slot", without(2));
  const std::vector<Write> inPlace =
      writesOf([&](int16_t db) { return modify(db, 0, bytesOf("1st")); });
  for (size_t count = 0; count <= byteCount(inPlace); ++count) {
    expectState("an in-place change", applied(before, inPlace, count));
  }
  std::set<std::string> named;
  for (const auto& [name, codes] : page) named.insert(name);
  EXPECT_EQ(tried, named);
}

TEST_F(CutOffStates, OfTheOnlyRecordAreReportedAsThePageSays) {
  const int16_t db = put(before);
  ASSERT_EQ(remove(db, 2), 1);
  ASSERT_EQ(remove(db, 1), 1);
  close(db);
  before = contents();
  page["moving the only record"] = {"R7", "R10"};  // in the words below the table
  expectWithout(1, "moving the only record",
                [&](int16_t open) { return modify(open, 0, bytesOf("a longer payload")); });
  EXPECT_EQ(ranges(writesOf([&](int16_t open) { return remove(open, 0); })).size(), 1u);
}

}  // namespace
}  // namespace qvdbase::test
