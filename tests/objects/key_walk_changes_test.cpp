// Walks over an index of keys that is emptied, replaced or remapped on the way.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "objects/kept_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;
using qvdb::Table;

class KeyWalkChanges : public KeptTest {
 protected:
  static std::string keyOf(int number) {
    std::string text = std::to_string(number);
    return "key" + std::string(6 - text.size(), '0') + text;
  }

  // So many records, each with its key in order.
  Database make(int count) {
    Database database = createDatabase();
    Table table = database.add_table("t");
    std::vector<std::string> payloads;
    for (int i = 0; i < count; ++i) payloads.push_back(keyOf(i) + ";" + std::string(30, 'p'));
    table.append_all(payloads);
    return database;
  }
};

// Each change leaves an entry that is wrong, until so many are that the index is emptied.
TEST_F(KeyWalkChanges, AWalkThatChangesEveryKeyComesToAll) {
  for (const bool isKept : {false, true}) {
    if (isKept) std::filesystem::remove(path());
    Database database = make(6000);
    Table table = database.table("t");
    {
      const Names names(table, kKey, {.ordered = true, .kept_as = isKept ? "name" : ""});
      std::set<uint64_t> seen;
      for (const auto& [key, record] : names.range("key", "kez")) {
        seen.insert(record.id().value);
        table.modify(record, "a" + key + ";");
        table.modify(record, "b" + key + ";");
      }
      EXPECT_EQ(seen.size(), 6000u) << isKept;
    }
  }
}

TEST_F(KeyWalkChanges, AWalkEndsWithAnErrorWhenTheFileBecomesAnother) {
  for (const bool isReopened : {false, true}) {
    if (isReopened) std::filesystem::remove(path());
    Database database = make(500);
    Table table = database.table("t");
    const Names names(table, kKey, {.ordered = true});
    size_t seen = 0;
    const auto walk = [&] {
      for (const auto& match : names.records()) {
        if (match.key.empty() || ++seen != 100) continue;
        if (isReopened) {
          database.reopen();
        } else {
          database.compact();
        }
      }
    };
    expectError(Reason::changed_meanwhile, walk);
    EXPECT_LT(seen, 500u);
    EXPECT_EQ(std::ranges::distance(names.records()), 500);
  }
}

}  // namespace
}  // namespace qvdbase::test
