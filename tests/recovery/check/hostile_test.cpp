// Files that mean harm: random bytes, random changes, and files built to make a reader work long.
// The check ends soon, with findings, and accounts for every byte; and so does a salvage.
#include <gtest/gtest.h>
#include <qvdbase/qvdb/salvage.hpp>

#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"
#include "recovery/salvage/plan.h"

namespace qvdbase::test {
namespace {

void expectSurvived(const Bytes& bytes, const std::string& what) {
  const Checked checked = checkBytes(bytes, {.categories = true, .deep = true, .now = kNow});
  EXPECT_EQ(sum(checked.report.space), bytes.size()) << what;
  const survey::MemorySource source(std::as_bytes(std::span(bytes.data(), bytes.size())));
  for (const bool ignoreDirectory : {false, true}) {
    const survey::Survey survey = survey::makeSurvey(source, {.ignoreDirectory = ignoreDirectory});
    salvage::makePlan(
        survey,
        {.deleted = true, .versions = true, .orphans = true, .lowest_grade = qvdb::BlockGrade::c});
  }
}

TEST(CheckOfHostileFiles, SurvivesRandomChanges) {
  const uint64_t first = firstSeed();
  const std::vector<BaseFile>& bases = baseFiles();
  for (uint64_t seed = first; seed < first + seeds(400, 20'000); ++seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    Bytes bytes = bases[seed % bases.size()].bytes;
    const auto changes = static_cast<uint32_t>(1 + random() % 40);
    for (uint32_t i = 0; i < changes; ++i) {
      const size_t at = random() % bytes.size();
      if (random() % 4 == 0 && at + 8 < bytes.size()) {
        bytes.putBe(at, 8, random() % 3 == 0 ? random() % bytes.size() : uint64_t{random()} << 32);
      } else {
        bytes[at] = static_cast<uint8_t>(random());
      }
    }
    if (random() % 5 == 0) bytes.resize(random() % bytes.size());
    expectSurvived(bytes, "QVDBASE_TEST_SEED=" + std::to_string(seed));
    if (HasFailure()) return;
  }
}

TEST(CheckOfHostileFiles, SurvivesRandomBytes) {
  const uint64_t first = firstSeed();
  for (uint64_t seed = first; seed < first + seeds(20, 1000); ++seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    Bytes bytes(random() % 30'000);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    expectSurvived(bytes, "random bytes, QVDBASE_TEST_SEED=" + std::to_string(seed));
    Bytes headed = FileImage().build().add(bytes);
    headed.putBe(16, 2, 31);
    expectSurvived(headed, "random bytes after a directory");
  }
}

// Each block claims everything that follows, and an end mark is at the end.
TEST(CheckOfHostileFiles, IsLinearInBlocksThatCoverEachOther) {
  constexpr size_t kCount = 50'000;
  FileImage image;
  image.addTable("notes", 0x11);
  Bytes bytes = image.build();
  const size_t end = bytes.size() + kCount * 56;
  RecordFields record;
  record.tableID = identifier(0x11);
  for (size_t i = 0; i < kCount; ++i) {
    record.recordID = identifier(i + 1);
    Bytes block = record.encode();
    block.putBe(51, 4, end - bytes.size() - 56);
    bytes.add(block);
  }
  expectSurvived(bytes, "covering blocks");
}

// Every slot claims the same long chain, which loops at its end.
TEST(CheckOfHostileFiles, IsLinearInAChainThatManySlotsClaim) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  for (uint64_t i = 1; i <= 20'000; ++i) image.addRecord(table, i, {});
  image.record(image.slot(table).lastRecordPos).nextRecordPos = image.slot(table).firstRecordPos;
  image.slot(table).recordCount = 0xFFFFFFFF;
  for (size_t i = 1; i < 31; ++i) image.slot(i) = image.slot(table);
  image.header().tableCount = 31;
  expectSurvived(image.build(), "a shared loop");
}

TEST(CheckOfHostileFiles, IsLinearInNestedHeaders) {
  FileImage image;
  image.addTable("notes", 0x11);
  const Bytes head = image.build();
  Bytes bytes = head;
  for (int i = 0; i < 20'000; ++i) bytes.add(head.cut(22));
  for (int i = 0; i < 100; ++i) bytes.add(head);
  expectSurvived(bytes, "nested headers");
}

// Blocks of as many tables as there are blocks, outside of payloads and inside of one.
TEST(CheckOfHostileFiles, IsLinearInTablesThatTheDirectoryDoesNotHave) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  Bytes blocks;
  RecordFields record;
  for (uint64_t i = 0; i < 40'000; ++i) {
    record.tableID = identifier(0x10000 + i);
    record.recordID = identifier(i + 1);
    blocks.add(record.encode());
  }
  image.addRecord(table, 0xA1, blocks);
  image.addRaw(blocks);
  expectSurvived(image.build(), "a table for each block");
}

// A record of which each version holds the whole database up to then is stored over and over.
TEST(CheckOfHostileFiles, IsLinearInCopiesOfTheDatabaseItself) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  FileImage earlier;
  earlier.addTable("notes", 0x11);
  earlier.addRaw(pattern(77));  // what stood there before a pack
  for (uint64_t i = 1; i <= 20; ++i) {
    image.addRecord(table, i, bytesOf("text"));
    earlier.addRecord(table, i, bytesOf("text"));
  }
  const Bytes copy = earlier.build();
  RecordFields version;
  version.tableID = identifier(0x11);
  version.recordID = identifier(0xFF);
  version.room = copy;
  version.dataLength = version.dataCapacity = static_cast<uint32_t>(copy.size());
  for (int i = 0; i < 1000; ++i) image.addDeadRecord(version);
  const Bytes bytes = image.build();
  expectSurvived(bytes, "copies");
  EXPECT_EQ(checkBytes(bytes).report.blocks, 1020u);
}

TEST(CheckOfHostileFiles, DoesNotBelieveASlotCount) {
  for (const uint64_t count : {0u, 1u, 127u, 128u, 0x7FFFu, 0xFFFFu}) {
    Bytes bytes = usedFile().bytes;
    bytes.putBe(18, 2, count);
    bytes.putBe(16, 2, count);
    expectSurvived(bytes, "slot count");
    bytes.putBe(20, 2, 4096);
    expectSurvived(bytes.zeros(600'000), "slot count and size");
  }
}

}  // namespace
}  // namespace qvdbase::test
