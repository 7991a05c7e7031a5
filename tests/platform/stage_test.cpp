// Stages: reads see what was staged, others see the file, and everything can be taken back.
#include "platform/transfer/stage.h"

#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <optional>
#include <random>

#include "kit/bytes.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"
#include "platform/handles/cutting.h"
#include "platform/handles/open_files.h"
#include "platform/transfer/transfer.h"
#include "support/file_transfers.h"

namespace qvdbase::test {
namespace {

using platform::Stage;
using platform::TransferScope;

constexpr size_t kHead = 200;

Bytes patterned(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

class Stages : public ::testing::Test {
 protected:
  void TearDown() override {
    if (other_ != 0) QVFile().QVCloseFile(other_);
    if (file_ != 0) QVFile().QVCloseFile(file_);
  }

  void open(const Bytes& content, size_t budget = Stage::kBudget) {
    before_ = expected_ = content;
    writeFile(folder / "f", content);
    ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 3, &file_), 1);
    ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 1, &other_), 1);
    const platform::Turn turn(file_);
    stage_ = Stage::begin(openFile(), kHead, budget);
    ASSERT_NE(stage_, nullptr);
  }

  // One call of a layer that uses the stage.
  template <typename Body>
  void inCall(Body body) const {
    const platform::Turn turn(file_);
    ASSERT_TRUE(platform::useStage(file_, stage_.get()));
    {
      TransferScope scope;
      body();
      EXPECT_TRUE(scope.end());
    }
    platform::leaveStage(file_);
  }

  platform::OpenFile& openFile() const { return *platform::findOpenFile(file_); }

  bool write(int64_t position, const Bytes& bytes) {
    uint32_t moved = 0;
    const bool done =
        support::seekTo(file_, position) &&
        support::writeFile(file_, bytes.data(), static_cast<uint32_t>(bytes.size()), &moved);
    if (done) {
      const auto end = static_cast<size_t>(position) + bytes.size();
      if (expected_.size() < end) expected_.resize(end);
      std::copy(bytes.begin(), bytes.end(), expected_.begin() + position);
    }
    return done;
  }
  static Bytes read(int16_t file, int64_t position, uint32_t count) {
    Bytes bytes(count);
    uint32_t moved = 0;
    EXPECT_TRUE(support::seekTo(file, position));
    static_cast<void>(support::readFile(file, bytes.data(), count, &moved));
    bytes.resize(moved);
    return bytes;
  }
  Bytes expected(int64_t position, size_t count) const {
    const auto from = std::min(expected_.size(), static_cast<size_t>(position));
    const auto to = std::min(expected_.size(), from + count);
    return expected_.at(from, to - from);
  }
  void expectAllThere() {
    inCall([&] {
      int64_t length = 0;
      EXPECT_TRUE(platform::fileLength(openFile(), &length));
      EXPECT_EQ(length, static_cast<int64_t>(expected_.size()));
      for (const uint32_t step : {7u, 997u, 100'003u}) {
        for (int64_t at = 0; at <= static_cast<int64_t>(expected_.size()); at += step) {
          ASSERT_EQ(read(file_, at, step), expected(at, step)) << at << " by " << step;
        }
      }
    });
  }

  TempFolder folder;
  int16_t file_ = 0;
  int16_t other_ = 0;
  std::unique_ptr<Stage> stage_;
  Bytes before_;
  Bytes expected_;
};

TEST_F(Stages, NothingReachesTheFileAndOthersReadItAsItIs) {
  open(patterned(5000));
  inCall([&] {
    EXPECT_TRUE(write(100, hex("0102 0304")));
    EXPECT_TRUE(write(3000, hex("1122 3344 5566 7788")));
    EXPECT_TRUE(write(5000, patterned(300)));
    EXPECT_TRUE(write(5100, hex("AABB")));
    EXPECT_EQ(read(file_, 98, 8), expected(98, 8));
    EXPECT_EQ(read(file_, 4990, 200), expected(4990, 200));
  });
  expectAllThere();
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), before_));
  EXPECT_EQ(read(other_, 2990, 30), before_.at(2990, 30));
  EXPECT_EQ(read(file_, 4990, 200), before_.at(4990, 10));  // outside of the stage's calls
}

TEST_F(Stages, LinksAreKeptWithWhatWasThere) {
  open(patterned(5000));
  inCall([&] {
    EXPECT_TRUE(write(3000, hex("1122 3344 5566 7788")));
    EXPECT_TRUE(write(3000, hex("0000 0000 0000 0009")));
    EXPECT_TRUE(write(3008, hex("0000 0000 0000 0001")));
  });
  ASSERT_EQ(stage_->links().size(), 2u);
  const Stage::Link& link = stage_->links().at(3000);
  EXPECT_EQ(Bytes(link.before.begin(), link.before.end()), before_.at(3000, 8));
  EXPECT_EQ(Bytes(link.after.begin(), link.after.end()), hex("0000 0000 0000 0009"));
  EXPECT_FALSE(stage_->isBroken());
}

TEST_F(Stages, OtherChangesInPlaceAreRefusedAndBreakIt) {
  for (const auto& place : {std::pair{3004, 8}, {2000, 9}, {196, 8}, {4996, 8}}) {
    const auto position = place.first;
    const auto size = place.second;
    open(patterned(5000));
    inCall([&] {
      EXPECT_TRUE(write(3000, hex("1122 3344 5566 7788")));
      EXPECT_FALSE(write(position, patterned(static_cast<size_t>(size))));
    });
    EXPECT_TRUE(stage_->isBroken()) << position;
    TearDown();
    file_ = other_ = 0;
  }
}

TEST_F(Stages, BeyondItsBudgetWhatIsAddedGoesToTheEndOfTheFile) {
  open(patterned(5000), 1000);
  for (int i = 0; i < 40; ++i) {
    inCall([&] { EXPECT_TRUE(write(static_cast<int64_t>(expected_.size()), patterned(77))); });
    EXPECT_LE(stage_->length() - stage_->inFile(), 1000);
    // In what was spilled before, in its beginning and in what is in memory.
    inCall(
        [&] { EXPECT_TRUE(write(static_cast<int64_t>(expected_.size()) - 9, hex("0102 0304"))); });
    inCall([&] { EXPECT_TRUE(write(5000 + i, hex("0506"))); });
  }
  EXPECT_GT(stage_->inFile(), 7000);
  expectAllThere();
  const Bytes present = readFile(folder / "f");
  EXPECT_EQ(present.at(0, 5000), before_);
  EXPECT_EQ(present.at(5000, present.size() - 5000), expected(5000, present.size() - 5000));
}

TEST_F(Stages, WhatIsLargerThanTheBudgetIsNotTakenIntoMemory) {
  open(patterned(5000), 1000);
  inCall([&] { EXPECT_TRUE(write(5000, patterned(10))); });
  inCall([&] { EXPECT_TRUE(write(5010, patterned(100'000))); });
  EXPECT_EQ(stage_->inFile(), 105'010);
  expectAllThere();
}

TEST_F(Stages, TakingItBackCutsOffWhatWasSpilled) {
  open(patterned(5000), 1000);
  inCall([&] { EXPECT_TRUE(write(5000, patterned(2500))); });
  EXPECT_GT(readFile(folder / "f").size(), 5000u);
  const platform::Turn turn(file_);
  EXPECT_TRUE(stage_->discard(openFile()));
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), before_));
}

TEST_F(Stages, WhatOthersHaveAppendedIsNotCutOffAndEndsTheSpilling) {
  open(patterned(5000), 1000);
  inCall([&] { EXPECT_TRUE(write(5000, patterned(1500))); });
  Bytes longer = readFile(folder / "f");
  longer.resize(longer.size() + 10);
  writeFile(folder / "f", longer);
  inCall([&] {
    EXPECT_EQ(read(file_, 6000, 1000), expected(6000, 1000));
    EXPECT_FALSE(write(6500, patterned(1500)));
  });
  EXPECT_TRUE(stage_->isBroken());
  const platform::Turn turn(file_);
  EXPECT_FALSE(stage_->discard(openFile()));
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), longer));
}

TEST_F(Stages, ARefusedWriteBreaksIt) {
  open(patterned(5000), 1000);
  RecordedCalls host;
  host.failOnce(Call::write, 0, ENOSPC);
  inCall([&] { EXPECT_FALSE(write(5000, patterned(1500))); });
  host.heal();
  EXPECT_TRUE(stage_->isBroken());
  const platform::Turn turn(file_);
  static_cast<void>(stage_->discard(openFile()));
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), before_));
}

TEST_F(Stages, FilesAreCutInTheStageOnly) {
  open(patterned(5000), 1000);
  inCall([&] { EXPECT_TRUE(write(5000, patterned(600))); });
  inCall([&] { EXPECT_TRUE(platform::cutFile(openFile(), 5100)); });
  expected_.resize(5100);
  expectAllThere();
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), before_));
  inCall([&] { EXPECT_FALSE(platform::cutFile(openFile(), 4999)); });
}

// A random sequence of changes, and of operations that are taken back as a whole.
TEST_F(Stages, ReadsAndTakingBackAreRightAfterRandomChanges) {
  std::mt19937_64 random(randomSeed());
  const auto below = [&](size_t n) { return static_cast<int64_t>(random() % n); };
  const auto bytes = [&](size_t n) {
    Bytes made(n);
    for (uint8_t& byte : made) byte = static_cast<uint8_t>(random());
    return made;
  };
  for (int round = 0; round < 20; ++round) {
    open(bytes(3000 + static_cast<size_t>(below(3000))), static_cast<size_t>(below(4)) * 700 + 1);
    const auto base = static_cast<int64_t>(before_.size());
    for (int operation = 0; operation < 40; ++operation) {
      const Bytes then = expected_;
      {
        const platform::Turn turn(file_);
        stage_->save();
      }
      inCall([&] {
        for (int64_t change = below(5); change >= 0; --change) {
          const auto end = static_cast<int64_t>(expected_.size());
          switch (below(5)) {
            case 0:
              EXPECT_TRUE(write(below(kHead - 20), bytes(1 + random() % 20)));
              break;
            case 1:  // places of eight bytes
              EXPECT_TRUE(write(static_cast<int64_t>(kHead) + 8 * below((before_.size() - 208) / 8),
                                bytes(8)));
              break;
            case 2:
              EXPECT_TRUE(write(end, bytes(1 + random() % 400)));
              break;
            case 3:
              if (end > base) {
                const int64_t from = base + below(static_cast<size_t>(end - base));
                const auto most = std::min<int64_t>(end - from, 30);
                // Not across what is in the file and what is not.
                const int64_t border = stage_->inFile();
                const int64_t until = from < border ? std::min(from + most, border) : from + most;
                EXPECT_TRUE(write(from, bytes(static_cast<size_t>(until - from))));
              }
              break;
            default: {
              const int64_t from = below(expected_.size());
              EXPECT_EQ(read(file_, from, 500), expected(from, 500));
            }
          }
        }
      });
      if (below(3) == 0) {
        const platform::Turn turn(file_);
        EXPECT_TRUE(stage_->restore(openFile()));
        expected_ = then;
      }
    }
    EXPECT_FALSE(stage_->isBroken());
    expectAllThere();
    EXPECT_EQ(readFile(folder / "f").at(0, before_.size()), before_);
    TearDown();
    file_ = other_ = 0;
  }
}

}  // namespace
}  // namespace qvdbase::test
