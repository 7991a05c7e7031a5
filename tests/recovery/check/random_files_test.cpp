// No false alarm: whatever sequence of calls made a file, the check finds no damage in it. And what
// it says about every dead block is what happened to it.
#include <gtest/gtest.h>

#include <qvdbase/qvdb/maintenance.hpp>

#include "kit/old_file.h"
#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"
#include "recovery/survey/survey.h"

namespace qvdbase::test {
namespace {

// The tables of which a pack leaves the data pointing nowhere: those that have records, too.
std::set<std::string> withStaleData(const Bytes& source) {
  std::set<std::string> names;
  for (const ReadTable& table : readDatabase(source).tables) {
    if (!table.records.empty() && table.data) names.insert(table.name);
  }
  return names;
}

// Sound files, made by random sequences of calls, and what packs make of them.
class CheckOfPacks : public testing::Test {
 protected:
  const QVWCHAR* wide(const char* name) { return folder.wide(name); }

  // Nothing but information, except for table data that points nowhere where `stale` says so.
  void expectSound(const char* name, const std::set<std::string>& stale = {}) {
    const Bytes bytes = readFile(folder / name);
    const Checked checked = checkBytes(bytes, {.categories = true});
    for (const qvdb::Finding& each : checked.findings) {
      const bool isStale = each.code[0] == 'T' && stale.contains(each.table);
      EXPECT_TRUE(each.severity == qvdb::Severity::information || isStale) << name << "\n"
                                                                           << checked.text();
    }
    EXPECT_EQ(sum(checked.report.space), bytes.size()) << name;
    if (stale.empty()) {
      EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << name;
      EXPECT_TRUE(checked.report.pack) << name;
      EXPECT_EQ(checked.report.repair, 0) << name;
    }
    ++files;
  }

  void pack() {
    ASSERT_EQ(PackOneDB2NewW(wide("random.qvd"), wide("packed.qvd"), 0, nullptr), 1);
    expectSound("packed.qvd", withStaleData(readFile(folder / "random.qvd")));
  }

  // It fails on every file that has tables, and leaves an empty one.
  void packWithHandle() {
    ASSERT_EQ(tryPackWithHandle(), 0);
    EXPECT_EQ(checkBytes(readFile(folder / "handled.qvd")).codes(), std::set<std::string>{"F1"});
  }

  int tryPackWithHandle() {
    int status = -1;
    uint16_t source = 0;
    uint16_t target = 0;
    return PackOneDB2New_WithHandle(wide("random.qvd"), wide("handled.qvd"), 0, nullptr, &source,
                                    &target, &status);
  }

  void renumber() {
    const int16_t db = OpenDBaseW(wide("random.qvd"), 3);
    ASSERT_NE(db, 0);
    uint16_t source = 0;
    uint16_t target = 0;
    int status = -1;
    EXPECT_EQ(PackOneDB2AllNewUUIDFile(wide("renumbered.qvd"), db, 0, nullptr, &source, &target,
                                       &status, nullptr),
              1);
    CloseDBase(db);
    expectSound("renumbered.qvd", withStaleData(readFile(folder / "random.qvd")));
  }

  void compact() {
    makeOld(folder / "random.qvd");
    qvdb::compact(folder / "random.qvd", folder / "compact.qvd", {}, {.overwrite = true});
    expectSound("compact.qvd");
  }

  TempFolder folder{TempFolder::inMemory()};
  uint64_t files = 0;
};

class CheckOfRandomFiles : public CheckOfPacks, public testing::WithParamInterface<int> {
 protected:
  static constexpr int kShares = 10;

  // Each share has seeds of its own; the first share's first is the one that is printed.
  static uint64_t first() { return firstSeed() + uint64_t(GetParam()) * share(); }
  static uint64_t share() { return seeds(500, 10'000) / kShares; }
};

TEST_P(CheckOfRandomFiles, FindsNoDamageInThemNorInTheirPacks) {
  for (uint64_t seed = first(); seed < first() + share(); ++seed) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed));
    const bool hasCategories = seed % 2 == 0;
    {
      RandomDatabase database(folder, "random.qvd", seed);
      database.run(50);
      if (hasCategories) database.addCategories();
    }
    expectSound("random.qvd");
    pack();
    packWithHandle();
    if (hasCategories) renumber();
    compact();
    if (HasFailure()) return;
  }
  reportCount("sound files of random operations and their packs", files);
}

// What that pack makes of a database without tables: slots as they lie in memory.
TEST_F(CheckOfPacks, NamesTheSlotsOfThePackWithHandles) {
  CloseDBase(CreateDBaseW(wide("random.qvd"), "QVdb", 100));
  ASSERT_EQ(tryPackWithHandle(), 1);
  expectSound("handled.qvd");
  const Checked checked = checkBytes(readFile(folder / "handled.qvd"));
  EXPECT_EQ(checked.report.informations, 32u);
  EXPECT_EQ(checked.codes(), std::set<std::string>{"D10"});
  EXPECT_NE(checked.first("D10").message.find("memory image"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Share, CheckOfRandomFiles, testing::Range(0, 10));

TEST(LabelsOfDeadBlocks, SayWhatHappened) {
  const uint64_t first = firstSeed();
  size_t dead = 0;
  for (uint64_t seed = first; seed < first + seeds(5, 100); ++seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(600);
    database.close();
    const Bytes bytes = readFile(database.path());
    const survey::MemorySource source(std::as_bytes(std::span(bytes.data(), bytes.size())));
    const survey::Survey survey = survey::makeSurvey(source);

    std::map<int64_t, RandomDatabase::Fate> labelled;
    for (const survey::Block& block : survey.blocks) {
      EXPECT_EQ(block.grade, survey::Grade::a);
      if (block.label == survey::Label::live) continue;
      EXPECT_TRUE(block.label == survey::Label::superseded || block.label == survey::Label::deleted)
          << "at " << block.position << ", QVDBASE_TEST_SEED=" << seed;
      labelled[block.position] = block.label == survey::Label::deleted
                                     ? RandomDatabase::Fate::deleted
                                     : RandomDatabase::Fate::superseded;
    }
    EXPECT_EQ(labelled, database.dead()) << "QVDBASE_TEST_SEED=" << seed;
    dead += labelled.size();
  }
  EXPECT_GT(dead, 500u);
}

}  // namespace
}  // namespace qvdbase::test
