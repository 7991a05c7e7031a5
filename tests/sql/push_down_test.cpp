// What the virtual tables pass down to the database: which rows are read, and which payloads, seen
// by the calls to the host.
#include <gtest/gtest.h>

#ifdef QVDB_HAS_SQLITE

#include <qvdbase/qvdb.hpp>

#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"
#include "sql/module.h"

namespace qvdbase::test {
namespace {

constexpr uint32_t kPayload = 100'000;  // far more than a walk over headers reads ahead of itself
constexpr int kRecords = 300;

class SqlPushDown : public DatabaseTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &connection_), SQLITE_OK);
    ASSERT_EQ(qvdb::sql::addModules(connection_), SQLITE_OK);
  }
  void TearDown() override {
    sqlite3_close(connection_);
    DatabaseTest::TearDown();
  }

  // A table of records with the same large payload; returns their identifiers.
  std::vector<qvdb::Id> fill(int records = kRecords, uint32_t payload = kPayload) {
    auto database = qvdb::Database::create(path());
    auto table = database.add_table("notes");
    auto appender = table.appender();
    std::vector<qvdb::Id> ids;
    for (int i = 0; i < records; ++i) ids.push_back(appender.add(std::string(payload, 'x')));
    appender.finish();
    EXPECT_EQ(sqlite3_exec(connection_,
                           ("CREATE VIRTUAL TABLE notes USING qvdb_records('" + path().string() +
                            "', notes)")
                               .c_str(),
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    return ids;
  }

  // The values of all rows, each followed by a blank.
  std::string answer(const std::string& query) {
    std::string text;
    char* message = nullptr;
    const auto take = [](void* result, int count, char** values, char**) {
      for (int i = 0; i < count; ++i) {
        *static_cast<std::string*>(result) += (values[i] != nullptr ? values[i] : "NULL");
        *static_cast<std::string*>(result) += ' ';
      }
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(connection_, query.c_str(), take, &text, &message), SQLITE_OK)
        << query << ": " << (message != nullptr ? message : "");
    sqlite3_free(message);
    return text;
  }

  // What the query reads of the host. The file is open already, as it is after the first query.
  struct Reads {
    size_t calls = 0;
    uint64_t bytes = 0;
    size_t payloads = 0;  // transfers as large as a payload
  };
  Reads readsOf(const std::string& query, const std::string& expected) {
    EXPECT_EQ(answer("select 1 from notes limit 1"), "1 ");
    RecordedCalls host;
    EXPECT_EQ(answer(query), expected);
    Reads reads;
    for (const Event& event : host.events()) {
      if (event.call != Call::read || event.result <= 0) continue;
      ++reads.calls;
      reads.bytes += static_cast<uint64_t>(event.result);
      if (event.result >= kPayload / 2) ++reads.payloads;
    }
    return reads;
  }

  std::string idText(qvdb::Id id) { return "'" + to_string(id) + "'"; }

  sqlite3* connection_ = nullptr;
};

TEST_F(SqlPushDown, ReadsNoPayloadForAQueryThatUsesNone) {
  fill();
  const Reads reads =
      readsOf("select count(*), sum(size), max(created) > 0 from notes", "300 30000000 1 ");
  EXPECT_EQ(reads.payloads, 0u);
  EXPECT_LT(reads.bytes, 10'000'000u);
}

TEST_F(SqlPushDown, ReadsThePayloadsOfTheRowsThatAQueryUses) {
  fill();
  EXPECT_EQ(
      readsOf("select length(payload) from notes where rowid % 100 = 0", "100000 100000 100000 ")
          .payloads,
      3u);
  EXPECT_EQ(readsOf("select text is null from notes limit 2", "0 0 ").payloads, 2u);
}

TEST_F(SqlPushDown, ReadsTheLastRecordsFromTheEnd) {
  fill();
  const Reads all = readsOf("select count(*) from notes", "300 ");
  const Reads last = readsOf("select rowid from notes order by rowid desc limit 3", "300 299 298 ");
  EXPECT_LT(last.calls * 5, all.calls);
}

TEST_F(SqlPushDown, StartsAtARowidFromTheNearerEnd) {
  fill();
  const Reads all = readsOf("select count(*) from notes", "300 ");
  const auto expectFew = [&](const char* query, const char* expected) {
    EXPECT_LT(readsOf(query, expected).calls * 5, all.calls) << query;
  };
  expectFew("select rowid from notes where rowid > 298", "299 300 ");
  expectFew("select rowid from notes where rowid >= 299 and rowid < 300", "299 ");
  expectFew("select rowid from notes where rowid < 3 order by rowid desc", "2 1 ");
  expectFew("select rowid from notes where rowid <= 2", "1 2 ");
  expectFew("select rowid from notes where rowid = 299", "299 ");
  expectFew("select rowid from notes where rowid = 301", "");
  expectFew("select rowid from notes where rowid < 1", "");
  expectFew("select rowid from notes where rowid between 2 and 1", "");
}

TEST_F(SqlPushDown, FindsIdentifiersWithoutReadingTheRest) {
  const auto ids = fill();
  const Reads all = readsOf("select count(*) from notes", "300 ");
  const std::string third = idText(ids[2]);
  const Reads byId = readsOf("select size from notes where id = " + third, "100000 ");
  EXPECT_LT(byId.calls * 5, all.calls);
  const std::string number = std::to_string(static_cast<int64_t>(ids[2].value));
  const Reads byNumber = readsOf("select size from notes where number = " + number, "100000 ");
  EXPECT_LT(byNumber.calls * 5, all.calls);
}

// The third lookup builds an index; those after it read one record each.
TEST_F(SqlPushDown, BuildsAnIndexForManyLookups) {
  const auto ids = fill();
  const Reads all = readsOf("select count(*) from notes", "300 ");
  std::string list;
  for (size_t i = 0; i < ids.size(); i += 3) list += (list.empty() ? "" : ",") + idText(ids[i]);
  const Reads many = readsOf("select count(*) from notes where id in (" + list + ")", "100 ");
#if defined(QVDBASE_PLAIN_TRANSFERS)
  constexpr int kOfALookup = 40;  // headers are read field by field
#else
  constexpr int kOfALookup = 8;
#endif
  EXPECT_LT(many.calls, all.calls * 3 + 100 * kOfALookup);
}

TEST_F(SqlPushDown, AnswersAsWithoutPushingDown) {
  const auto ids = fill(5, 10);
  const std::string third = idText(ids[2]);
  const std::string number = std::to_string(static_cast<int64_t>(ids[2].value));
  EXPECT_EQ(answer("select rowid from notes where id = " + third), "3 ");
  EXPECT_EQ(answer("select rowid from notes where id = upper(" + third + ")"), "3 ");
  EXPECT_EQ(answer("select rowid from notes where id = 17"), "");
  EXPECT_EQ(answer("select rowid from notes where id = 'no identifier'"), "");
  EXPECT_EQ(answer("select rowid from notes where id is null or number is null"), "");
  EXPECT_EQ(answer("select rowid from notes where number = '" + number + "'"), "3 ");
  EXPECT_EQ(answer("select rowid from notes where rowid = 3.0"), "3 ");
  EXPECT_EQ(answer("select rowid from notes where rowid > 3.5 order by rowid desc"), "5 4 ");
  EXPECT_EQ(answer("select rowid from notes where rowid = '3'"), "3 ");
  EXPECT_EQ(answer("select rowid from notes where rowid = null"), "");
  EXPECT_EQ(answer("select rowid from notes where rowid < 9223372036854775807"), "1 2 3 4 5 ");
  EXPECT_EQ(answer("select rowid from notes where rowid > -9223372036854775808"), "1 2 3 4 5 ");
  EXPECT_EQ(answer("select rowid from notes where rowid = 1 or rowid = 5 or id = " + third +
                   " order by 1"),
            "1 3 5 ");
  EXPECT_EQ(answer("select rowid from notes order by size, rowid desc"), "5 4 3 2 1 ");
  EXPECT_EQ(answer("select rowid from notes where table_name = 'NOTES'"), "");
  EXPECT_EQ(answer("select count(*) from notes where table_name = 'NOTES' collate nocase"), "5 ");
  EXPECT_EQ(answer("select count(*) from notes a join notes b using (id)"), "5 ");
}

// After some rows the payloads are loaded ahead; the rows stay the same, in both orders.
TEST_F(SqlPushDown, LoadsPayloadsAheadWithoutChangingTheRows) {
  {
    auto database = qvdb::Database::create(path());
    for (const char* name : {"a", "b"}) {
      auto appender = database.add_table(name).appender();
      for (int i = 1; i <= 200; ++i) appender.add(std::to_string(i));
      appender.finish();
    }
  }
  const std::string records = "qvdb_records('" + path().string() + "')";
  EXPECT_EQ(answer("select count(*), sum(text = (rowid & 0xffffffff)), sum(rowid >> 32)"
                   " from " +
                   records),
            "400 400 200 ");
  EXPECT_EQ(answer("select group_concat(text) = (with recursive n(i) as"
                   " (select 200 union all select i - 1 from n where i > 1)"
                   " select group_concat(i) from n) from"
                   " (select text from " +
                   records +
                   " where table_name = 'b'"
                   " order by rowid desc)"),
            "1 ");
  EXPECT_EQ(answer("select count(*) from (select text from " + records +
                   " where rowid <= 150 order by rowid desc)"),
            "150 ");
  EXPECT_EQ(answer("select count(*) from (select case when rowid < 80 or rowid > 120 then text end"
                   " from " +
                   records + ")"),
            "400 ");
}

TEST_F(SqlPushDown, TurnsFailuresOfTheHostIntoErrors) {
  fill(5, 10);
  for (int step = 0;; ++step) {
    RecordedCalls host;
    host.failFrom(Call::read, step);
    char* message = nullptr;
    const int result = sqlite3_exec(connection_, "select sum(length(payload)) from notes", nullptr,
                                    nullptr, &message);
    host.heal();
    const std::string text = message != nullptr ? message : "";
    sqlite3_free(message);
    if (result == SQLITE_OK) break;
    EXPECT_NE(text.find("test.qvd"), std::string::npos) << text;
    ASSERT_LT(step, 1000);
  }
}

}  // namespace
}  // namespace qvdbase::test

#endif
