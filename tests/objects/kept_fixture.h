// The fixture for tests of indexes that are kept in a file beside the database.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "objects/layer_fixture.h"

namespace qvdbase::test {

using Names = qvdb::KeyIndex<std::string>;

inline std::string textOf(const qvdb::Record& record) {
  const auto* text = reinterpret_cast<const char*>(record.loaded().data());
  return record.loaded().empty() ? std::string() : std::string(text, record.loaded().size());
}

// A payload begins with its key, ended by a semicolon.
inline constexpr auto kKey = [](std::string_view text) { return text.substr(0, text.find(';')); };

// The ids that have each key, by a walk; nothing where the chain is damaged.
inline std::optional<std::multimap<std::string, uint64_t>> walkKeys(const qvdb::Table& table) {
  std::multimap<std::string, uint64_t> keys;
  try {
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      keys.emplace(kKey(textOf(record)), record.id().value);
    }
  } catch (const qvdb::Error&) {
    return std::nullopt;
  }
  return keys;
}

class KeptTest : public LayerTest {
 protected:
  std::string indexPath() const { return path("test.qvdx").native(); }
  bool hasIndexFile() const { return std::filesystem::exists(indexPath()); }

  static Names namesOf(const qvdb::Table& table, bool ordered = true) {
    return Names(table, kKey, {.ordered = ordered, .kept_as = "name 1"});
  }

  // A database of so many records, whose indexes are kept; closed.
  std::vector<qvdb::Id> makeKept(int count, bool ordered = true) {
    qvdb::Database database = createDatabase();
    qvdb::Table table = database.add_table("t");
    std::vector<qvdb::Id> ids;
    qvdb::BulkAppender bulk = table.appender();
    for (int i = 0; i < count; ++i) ids.push_back(bulk.add("key" + std::to_string(i) + ";payload"));
    bulk.finish();
    const qvdb::RecordIndex index = table.index({.kept = true});
    const Names names = namesOf(table, ordered);
    EXPECT_FALSE(index.is_from_file());
    EXPECT_FALSE(names.is_from_file());
    database.close();
    return ids;
  }
};

}  // namespace qvdbase::test
