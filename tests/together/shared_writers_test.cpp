// Several processes that write to one database at once: nothing that was acknowledged is lost.
#include <gtest/gtest.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <array>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Mode;

// Another process: adds records in each of the ways, and a table of its own. Prints what was
// acknowledged, each identifier in 8 bytes.
int addInTurns(const std::filesystem::path& path, const std::string& name, int rounds, int out) {
  qvdb::Database database = qvdb::Database::open(path, Mode::shared);
  qvdb::Table table = database.table("t");
  qvdb::Table own = database.add_table(name);
  std::optional<qvdb::RecordIndex> index;
  if (name != "a") index.emplace(table.index());  // one of them walks to what it changes
  for (int i = 0; i < rounds; ++i) {
    std::vector<uint64_t> added = {table.add("single").value};
    qvdb::BulkAppender appender = table.appender();
    for (int k = 0; k < 3; ++k) added.push_back(appender.add(qvdb::NewRecord("batch")).value);
    appender.finish();
    const qvdb::Id passing = own.add("passing");
    own.add("staying");
    table.modify(qvdb::Id{added[1]}, "longer than it was before");
    if (!own.remove(passing)) return 2;
    const auto size = static_cast<ssize_t>(added.size() * sizeof added[0]);
    if (::write(out, added.data(), static_cast<size_t>(size)) != size) return 1;
  }
  return 0;
}

std::set<uint64_t> readIds(int in) {
  std::set<uint64_t> ids;
  uint64_t id = 0;
  while (::read(in, &id, sizeof id) == sizeof id) ids.insert(id);
  return ids;
}

TEST_F(LayerTest, ThreeProcessesThatShareADatabaseLoseNothing) {
  const int rounds = testEverything() ? 4'000 : 150;
  const std::array<std::string, 3> names = {"a", "b", "c"};
  int acknowledged[2];
  ASSERT_EQ(::pipe(acknowledged), 0);
  std::vector<ForkedLater> writers;
  for (const std::string& name : names) {
    writers.emplace_back([&] { return addInTurns(path(), name, rounds, acknowledged[1]); });
  }
  createDatabase().add_table("t");
  for (ForkedLater& writer : writers) writer.begin();
  ::close(acknowledged[1]);
  const std::set<uint64_t> expected = readIds(acknowledged[0]);
  ::close(acknowledged[0]);
  for (ForkedLater& writer : writers) EXPECT_EQ(writer.end(), 0);
  reportCount("records of three shared writers", expected.size());
  const qvdb::Database database = openDatabase();
  const std::vector<uint64_t> found = idsOf(database.table("t"));
  EXPECT_EQ(found.size(), 4u * static_cast<size_t>(rounds) * names.size());
  EXPECT_EQ(std::set<uint64_t>(found.begin(), found.end()), expected);
  for (const std::string& name : names) {
    EXPECT_EQ(idsOf(database.table(name)).size(), static_cast<size_t>(rounds)) << name;
  }
}

}  // namespace
}  // namespace qvdbase::test
