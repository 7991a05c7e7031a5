// No false alarm: whatever sequence of calls made a file, the check finds no damage in it. And what
// it says about every dead block is what happened to it.
#include <gtest/gtest.h>

#include "check/base_files.h"
#include "check/random_database.h"
#include "qvdb/raw/survey.h"

namespace qvdbase::test {
namespace {

void expectNoDamage(const std::filesystem::path& path, std::uint64_t seed) {
  const Checked checked = checkBytes(readFile(path), {});
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << "QVDBASE_TEST_SEED=" << seed << "\n"
                                                           << checked.text();
  EXPECT_EQ(sum(checked.report.space), checked.report.file_size);
}

TEST(CheckOfRandomFiles, FindsNoDamage) {
  const std::uint64_t first = firstSeed();
  const std::uint64_t count = seeds(100, 10'000);
  RecordProperty("seed", std::to_string(first));
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(50);
    database.close();
    expectNoDamage(database.path(), seed);
    if (HasFailure()) return;
  }
}

TEST(LabelsOfDeadBlocks, SayWhatHappened) {
  const std::uint64_t first = firstSeed();
  std::size_t dead = 0;
  for (std::uint64_t seed = first; seed < first + seeds(5, 100); ++seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(600);
    database.close();
    const Bytes bytes = readFile(database.path());
    const raw::MemorySource source(std::as_bytes(std::span(bytes.data(), bytes.size())));
    const raw::Survey survey = raw::makeSurvey(source);

    std::map<std::int64_t, RandomDatabase::Fate> labelled;
    for (const raw::Block& block : survey.blocks) {
      EXPECT_EQ(block.grade, raw::Grade::a);
      if (block.label == raw::Label::live) continue;
      EXPECT_TRUE(block.label == raw::Label::superseded || block.label == raw::Label::deleted)
          << "at " << block.position << ", QVDBASE_TEST_SEED=" << seed;
      labelled[block.position] = block.label == raw::Label::deleted
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
