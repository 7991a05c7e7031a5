// How often a survey reads from a file: chains are followed in memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>
#include <vector>

#include "kit/file_image.h"
#include "kit/random_seed.h"
#include "recovery/survey/survey.h"

namespace qvdbase::test {
namespace {

class CountingSource : public survey::MemorySource {
 public:
  explicit CountingSource(const Bytes& bytes)
      : survey::MemorySource(std::as_bytes(std::span(bytes))) {}
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    ++reads;
    return survey::MemorySource::readAt(position, buffer, count);
  }
  mutable int reads = 0;
};

struct Chain {
  FileImage image;
  size_t table = image.addTable("t", 0x11);
  std::vector<int64_t> records;

  Chain() {
    for (uint64_t i = 1; i <= 5000; ++i) records.push_back(image.addRecord(table, i, Bytes(100)));
  }

  // Links the records as they are listed.
  void link() {
    for (size_t i = 0; i < records.size(); ++i) {
      RecordFields& record = image.record(records[i]);
      record.prevRecordPos = i == 0 ? 0 : records[i - 1];
      record.nextRecordPos = i + 1 == records.size() ? 0 : records[i + 1];
    }
    image.slot(table).firstRecordPos = records.front();
    image.slot(table).lastRecordPos = records.back();
  }
};

TEST(ReadsOfASurvey, AreAsManyForAChainThatLeadsToAndFro) {
  Chain chain;
  const Bytes inOrder = chain.image.build();
  std::mt19937_64 random(randomSeed());
  std::ranges::shuffle(chain.records, random);
  chain.link();
  const Bytes shuffled = chain.image.build();

  const CountingSource expected(inOrder);
  EXPECT_TRUE(survey::makeSurvey(expected).tables.at(0).backward.isComplete());
  EXPECT_LT(expected.reads, 100);

  const CountingSource source(shuffled);
  const survey::Survey survey = survey::makeSurvey(source);
  EXPECT_EQ(source.reads, expected.reads);
  const survey::Table& table = survey.tables.at(0);
  ASSERT_EQ(table.forward.blocks.size(), chain.records.size());
  ASSERT_EQ(table.backward.blocks.size(), chain.records.size());
  for (size_t i = 0; i < chain.records.size(); ++i) {
    ASSERT_EQ(survey.blocks[table.forward.blocks[i]].position, chain.records[i]);
    ASSERT_EQ(survey.blocks[table.backward.blocks[i]].position,
              chain.records[chain.records.size() - 1 - i]);
  }
}

// Only what follows the first bytes that are no block is read along the chain.
TEST(ReadsOfASurvey, AreInOrderUpToTheFirstBytesThatAreNoBlock) {
  Chain chain;
  chain.image.addRaw(Bytes(10));
  chain.records.insert(chain.records.begin() + 2500,
                       chain.image.addRecord(chain.table, 9000, Bytes(100)));
  chain.link();
  const Bytes bytes = chain.image.build();
  const CountingSource source(bytes);
  const survey::Survey survey = survey::makeSurvey(source);
  EXPECT_EQ(survey.tables.at(0).forward.blocks.size(), chain.records.size());
  EXPECT_TRUE(survey.tables.at(0).forward.isComplete());
  EXPECT_LT(source.reads, 100);
}

}  // namespace
}  // namespace qvdbase::test
