// Mirrors: what is served from them, that they are equal to the file after every kind of write, and
// what happens where they cannot be.
#include "platform/transfer/mirror.h"

#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <optional>
#include <random>

#include "kit/bytes.h"
#include "kit/forked.h"
#include "kit/layers.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"
#include "platform/handles/cutting.h"
#include "platform/handles/open_files.h"
#include "platform/transfer/transfer.h"
#include "support/file_transfers.h"

namespace qvdbase::test {
namespace {

using platform::Mirror;
using platform::PinnedBytes;
using platform::TransferScope;

constexpr size_t kPiece = Mirror::kPiece;
constexpr size_t kRun = Mirror::kRun;

Bytes patterned(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

Bytes copyOf(const uint8_t* bytes, size_t count) {
  Bytes copy(count);
  if (count != 0) std::copy_n(bytes, count, copy.begin());
  return copy;
}

bool hostHasMirrors() {
  void* memory = platform::systemCalls().reserve(kPiece, false);
  if (memory == nullptr) return false;
  platform::systemCalls().unreserve(memory, kPiece);
  return platform::gathersTransfers();
}

class Mirrors : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!hostHasMirrors()) GTEST_SKIP() << "this host, or this build, has no mirrors";
  }
  void TearDown() override {
    if (file_ != 0) QVFile().QVCloseFile(file_);
  }

  // Opens a file of these bytes exclusively, with a mirror.
  void open(const Bytes& content, uint64_t budget) {
    expected_ = content;
    writeFile(folder / "f", content);
    ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 3, &file_), 1);
    ASSERT_TRUE(platform::attachMirror(file_, budget));
  }

  // One call of a layer that uses the mirror.
  template <typename Body>
  void inCall(Body body) const {
    const platform::Turn turn(file_);
    const bool uses = platform::useMirror(file_);
    EXPECT_TRUE(uses);
    {
      TransferScope scope;
      body();
      EXPECT_TRUE(scope.end());
    }
    if (uses) platform::leaveMirror(file_);
  }

  platform::OpenFile& openFile() const { return *platform::findOpenFile(file_); }
  Mirror& mirror() const { return *openFile().entry->mirror; }

  bool write(int64_t position, const Bytes& bytes) {
    uint32_t moved = 0;
    const bool done =
        seekTo(file_, position) &&
        support::writeFile(file_, bytes.data(), static_cast<uint32_t>(bytes.size()), &moved);
    if (done) {
      const auto end = static_cast<size_t>(position) + bytes.size();
      if (expected_.size() < end) expected_.resize(end);
      std::copy(bytes.begin(), bytes.end(), expected_.begin() + position);
    }
    return done;
  }
  Bytes read(int64_t position, uint32_t count) const {
    Bytes bytes(count);
    uint32_t moved = 0;
    EXPECT_TRUE(seekTo(file_, position));
    static_cast<void>(support::readFile(file_, bytes.data(), count, &moved));
    bytes.resize(moved);
    return bytes;
  }
  Bytes expected(int64_t position, size_t count) const {
    const auto from = std::min(expected_.size(), static_cast<size_t>(position));
    const auto to = std::min(expected_.size(), from + count);
    return expected_.at(from, to - from);
  }
  void expectEqualToTheFile() const {
    EXPECT_TRUE(sameBytes(readFile(folder / "f"), expected_));
    inCall([&] {
      for (int64_t at = 0; at < static_cast<int64_t>(expected_.size()); at += 9973) {
        EXPECT_EQ(read(at, 9973), expected(at, 9973)) << at;
      }
    });
  }

  TempFolder folder;
  int16_t file_ = 0;
  Bytes expected_;
};

TEST_F(Mirrors, WhatWasReadOnceIsReadNoMore) {
  open(patterned(3 * kPiece + 100), 10 * kPiece);
  RecordedCalls host;
  for (int i = 0; i < 3; ++i) {
    inCall([&] {
      EXPECT_EQ(read(5, 10), expected(5, 10));
      EXPECT_EQ(read(kPiece - 3, 6), expected(kPiece - 3, 6));
      EXPECT_EQ(read(3 * kPiece + 50, 50), expected(3 * kPiece + 50, 50));
    });
  }
  EXPECT_EQ(host.count(Call::read), 3);
}

TEST_F(Mirrors, OnlyCallsThatAskForOneAreServed) {
  open(patterned(1000), kPiece);
  inCall([&] { EXPECT_EQ(read(0, 10), expected(0, 10)); });
  RecordedCalls host;
  EXPECT_EQ(read(0, 10), expected(0, 10));
  EXPECT_EQ(host.count(Call::read), 1);
}

TEST_F(Mirrors, PiecesArePutSideBySide) {
  open(patterned(4 * kPiece), 10 * kPiece);
  inCall([&] {
    const uint8_t* view = support::viewFile(file_, kPiece - 10, 2 * kPiece);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(copyOf(view, 2 * kPiece), expected(kPiece - 10, 2 * kPiece));
  });
}

TEST_F(Mirrors, WritesAreInTheFileFirstAndThenInTheMirror) {
  open(patterned(2 * kPiece), 10 * kPiece);
  inCall([&] { EXPECT_EQ(read(0, 2 * kPiece).size(), 2 * kPiece); });
  RecordedCalls host;
  inCall([&] {
    EXPECT_TRUE(write(kPiece - 2, bytesOf("abcd")));
    EXPECT_EQ(*mirror().find(kPiece - 2, 1), patterned(2 * kPiece)[kPiece - 2]);
    EXPECT_EQ(read(kPiece - 4, 8), expected(kPiece - 4, 8));  // sends the write first
    EXPECT_EQ(host.count(Call::write), 1);
  });
  EXPECT_EQ(host.count(Call::read), 0);
  expectEqualToTheFile();
}

TEST_F(Mirrors, WritesThroughOtherNumbersOfTheProcessAreSeen) {
  open(patterned(kPiece), kPiece);
  inCall([&] { EXPECT_EQ(read(0, 10), expected(0, 10)); });
  const uint64_t writes = openFile().entry->writes;
  int16_t other = 0;
  ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 4, &other), 1);
  uint32_t moved = 0;
  EXPECT_TRUE(support::writeFile(other, "other", 5, &moved));
  QVFile().QVCloseFile(other);
  inCall([&] { EXPECT_EQ(read(0, 5), bytesOf("other")); });
  EXPECT_EQ(openFile().entry->writes, writes + 1);
}

TEST_F(Mirrors, AppendsAreThereWithoutARead) {
  open(patterned(kPiece), 10 * kPiece);
  RecordedCalls host;
  inCall([&] {
    for (int i = 0; i < 100; ++i) {
      int64_t length = 0;
      EXPECT_TRUE(platform::fileLength(openFile(), &length));
      EXPECT_TRUE(write(length, patterned(1000)));
    }
    EXPECT_EQ(read(kPiece, 100'000), expected(kPiece, 100'000));
  });
  EXPECT_EQ(host.count(Call::read), 0);
  EXPECT_EQ(host.count(Call::length), 0);
  expectEqualToTheFile();
}

TEST_F(Mirrors, AWriteThatTheHostRefusesLeavesNothingThatTheFileDoesNotHave) {
  open(patterned(2 * kPiece), 10 * kPiece);
  inCall([&] { EXPECT_EQ(read(0, 10), expected(0, 10)); });
  {
    RecordedCalls host;
    host.cutWrites();
    const platform::Turn turn(file_);
    ASSERT_TRUE(platform::useMirror(file_));
    TransferScope scope;
    uint32_t moved = 0;
    EXPECT_TRUE(seekTo(file_, 4));
    EXPECT_TRUE(support::writeFile(file_, "lost", 4, &moved));
    EXPECT_FALSE(scope.end());
    platform::leaveMirror(file_);
  }
  expected_ = readFile(folder / "f");
  expectEqualToTheFile();
}

TEST_F(Mirrors, ACutFileIsShorterInTheMirrorToo) {
  open(patterned(3 * kPiece), 10 * kPiece);
  inCall([&] { EXPECT_EQ(read(0, 3 * kPiece).size(), 3 * kPiece); });
  ASSERT_TRUE(platform::cutFile(openFile(), kPiece + 7));
  expected_.resize(kPiece + 7);
  inCall([&] {
    EXPECT_EQ(read(kPiece, 100), expected(kPiece, 100));
    EXPECT_TRUE(write(kPiece + 7, bytesOf("new end")));
  });
  expectEqualToTheFile();
}

TEST_F(Mirrors, BeyondTheBudgetReadsAreSmallOnes) {
  open(patterned(3 * kPiece), 2 * kPiece);
  RecordedCalls host;
  for (int i = 0; i < 2; ++i) {
    inCall([&] {
      EXPECT_EQ(read(0, 10), expected(0, 10));
      EXPECT_EQ(read(kPiece, 10), expected(kPiece, 10));
    });
    inCall([&] { EXPECT_EQ(read(2 * kPiece, 10), expected(2 * kPiece, 10)); });
  }
  EXPECT_EQ(platform::mirroredBytes(file_), 2 * kPiece);
  std::vector<size_t> sizes;
  for (const Event& event : host.events()) {
    if (event.call == Call::read) sizes.push_back(event.count);
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{kPiece, kPiece, 1024, 1024}));
}

TEST_F(Mirrors, TheEndOfTheFileTakesThePlaceOfALargeRun) {
  open(patterned(3 * kRun), 2 * kRun);
  inCall([&] {
    for (size_t at = 0; at < 2 * kRun; at += kPiece) read(static_cast<int64_t>(at), 1);
  });
  EXPECT_EQ(platform::mirroredBytes(file_), 2 * kRun);
  RecordedCalls host;
  inCall([&] { EXPECT_TRUE(write(3 * kRun, patterned(100))); });
  EXPECT_EQ(host.count(Call::discard), 1);
  EXPECT_EQ(platform::mirroredBytes(file_), kRun + kPiece);
  inCall([&] { EXPECT_EQ(read(3 * kRun, 100), expected(3 * kRun, 100)); });
  EXPECT_EQ(host.count(Call::read), 0);
  expectEqualToTheFile();
}

TEST_F(Mirrors, ASmallerBudgetGivesMemoryBackAtOnce) {
  open(patterned(4 * kRun), 4 * kRun);
  inCall([&] {
    for (size_t at = 0; at < 4 * kRun; at += kPiece) read(static_cast<int64_t>(at), 1);
  });
  ASSERT_TRUE(platform::attachMirror(file_, kRun));
  EXPECT_LE(platform::mirroredBytes(file_), kRun);
  expectEqualToTheFile();
}

TEST_F(Mirrors, PinnedBytesStayAsTheyAre) {
  open(patterned(3 * kPiece), 10 * kPiece);
  inCall([&] { EXPECT_EQ(read(0, 3 * kPiece).size(), 3 * kPiece); });
  const Bytes before = expected_;
  PinnedBytes pinned(mirror(), 100, 2 * kPiece);
  ASSERT_EQ(pinned.size(), 2 * kPiece);
  inCall([&] {
    EXPECT_TRUE(write(200, bytesOf("changed")));
    EXPECT_EQ(read(200, 7), bytesOf("changed"));
  });
  EXPECT_EQ(copyOf(pinned.data(), 2 * kPiece), before.at(100, 2 * kPiece));
  EXPECT_EQ(mirror().find(200, 7), nullptr);
  pinned.release();
  expectEqualToTheFile();
  EXPECT_NE(mirror().find(200, 7), nullptr);
}

TEST_F(Mirrors, PinnedBytesOutliveTheMirrorAndTheFile) {
  open(patterned(kPiece), kPiece);
  inCall([&] { read(0, 1); });
  PinnedBytes pinned(mirror(), 0, kPiece);
  platform::detachMirror(file_);
  QVFile().QVCloseFile(file_);
  file_ = 0;
  EXPECT_EQ(copyOf(pinned.data(), kPiece), expected_);
}

TEST_F(Mirrors, PinnedRunsAreNotGivenBack) {
  open(patterned(2 * kRun), 2 * kRun);
  inCall([&] {
    for (size_t at = 0; at < 2 * kRun; at += kPiece) read(static_cast<int64_t>(at), 1);
  });
  PinnedBytes pinned(mirror(), kRun, kRun);
  ASSERT_TRUE(platform::attachMirror(file_, 0));
  EXPECT_EQ(platform::mirroredBytes(file_), kRun);
  EXPECT_EQ(copyOf(pinned.data(), kRun), expected(kRun, kRun));
}

TEST_F(Mirrors, AFileThatAnotherProgramCutsShortIsReadAsFarAsItGoes) {
  open(patterned(3 * kPiece), 10 * kPiece);
  inCall([&] { read(0, 1); });
  std::filesystem::resize_file(folder / "f", kPiece + 5);
  inCall([&] {
    EXPECT_EQ(read(kPiece, 100).size(), 5u);
    EXPECT_EQ(read(2 * kPiece, 100).size(), 0u);
    EXPECT_EQ(support::viewFile(file_, 2 * kPiece, 10), nullptr);
  });
  expected_.resize(kPiece + 5);
  expectEqualToTheFile();
}

// A mirror has addresses for its file and 4 GiB of growth. Beyond that the next call has a new one,
// with the same budget.
TEST_F(Mirrors, AFileThatOutgrowsItsAddressesGetsOthers) {
  constexpr int64_t kFar = int64_t{5} << 30;
  open(patterned(kPiece), 2 * kPiece);
  inCall([&] { EXPECT_EQ(read(0, 10), expected(0, 10)); });
  inCall([&] {
    uint32_t moved = 0;
    EXPECT_TRUE(seekTo(file_, kFar));
    EXPECT_TRUE(support::writeFile(file_, "end", 3, &moved));
  });
  EXPECT_TRUE(mirror().isOutgrown());
  EXPECT_EQ(mirror().find(0, 10), nullptr);
  for (int i = 0; i < 2; ++i) {
    RecordedCalls host;
    inCall([&] {
      EXPECT_EQ(read(kFar, 3), bytesOf("end"));
      EXPECT_EQ(read(5, 10), expected(5, 10));
    });
    EXPECT_EQ(host.count(Call::reserve), i == 0 ? 1 : 0);
    EXPECT_EQ(host.count(Call::unreserve), i == 0 ? 1 : 0);
    EXPECT_EQ(host.count(Call::read), i == 0 ? 2 : 0);
  }
  EXPECT_FALSE(mirror().isOutgrown());
  EXPECT_EQ(mirror().budget(), 2 * kPiece);
  EXPECT_EQ(platform::mirroredBytes(file_), 2 * kPiece);
}

TEST_F(Mirrors, AForkEndsIt) {
  open(patterned(kPiece), kPiece);
  inCall([&] { read(0, 1); });
  EXPECT_EQ(inForkedChild([] { return 0; }), 0);
  const platform::Turn turn(file_);
  EXPECT_FALSE(platform::useMirror(file_));
}

TEST_F(Mirrors, AnOpenerThatIsNotExclusiveHasNone) {
  writeFile(folder / "f", patterned(10));
  for (const int permission : {1, 4}) {
    int16_t file = 0;
    ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), permission, &file), 1);
    EXPECT_FALSE(platform::attachMirror(file, kPiece));
    QVFile().QVCloseFile(file);
  }
  EXPECT_FALSE(platform::attachMirror(0, kPiece));
}

TEST_F(Mirrors, WithoutAddressesThereIsNone) {
  writeFile(folder / "f", patterned(10));
  ASSERT_EQ(QVFile().QVOpenFile(folder.wide("f"), 3, &file_), 1);
  RecordedCalls host;
  host.failFrom(Call::reserve);
  EXPECT_FALSE(platform::attachMirror(file_, kPiece));
  host.heal();
  host.failFrom(Call::allocate);
  EXPECT_FALSE(platform::attachMirror(file_, kPiece));
  EXPECT_EQ(host.count(Call::reserve), 2);
  EXPECT_EQ(host.count(Call::unreserve), 1);
}

// Reads, writes, cuts, pins and budgets in any order, against the bytes in memory.
TEST_F(Mirrors, AreEqualToTheFileAfterRandomOperations) {
  std::mt19937_64 random(randomSeed());
  const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
  open(patterned(5 * kPiece + 1234), 40 * kPiece);
  std::vector<std::pair<PinnedBytes, Bytes>> pinned;
  for (int i = 0; i < 2000; ++i) {
    const auto place = static_cast<int64_t>(below(expected_.size()));
    switch (below(12)) {
      case 0:
        inCall([&] { EXPECT_TRUE(write(place, Bytes(below(2 * kPiece) + 1, uint8_t(i)))); });
        break;
      case 1:
      case 2:
        inCall([&] {
          EXPECT_TRUE(write(place, Bytes(below(300) + 1, uint8_t(i))));
          EXPECT_TRUE(write(static_cast<int64_t>(expected_.size()), Bytes(below(900), uint8_t(i))));
        });
        break;
      case 3:
        EXPECT_TRUE(write(place, Bytes(below(300) + 1, uint8_t(i))));
        break;
      case 4: {
        if (expected_.size() < 4 * kPiece) break;
        const size_t length = expected_.size() - below(kPiece);
        ASSERT_TRUE(platform::cutFile(openFile(), static_cast<int64_t>(length)));
        expected_.resize(length);
        break;
      }
      case 5: {
        PinnedBytes bytes(mirror(), place, below(3 * kPiece));
        const Bytes copy = copyOf(bytes.data(), bytes.size());
        EXPECT_EQ(copy, expected(place, copy.size()));
        pinned.emplace_back(std::move(bytes), copy);
        break;
      }
      case 6:
        if (!pinned.empty())
          pinned.erase(pinned.begin() + static_cast<ptrdiff_t>(below(pinned.size())));
        break;
      case 7:
        if (below(10) == 0) {
          ASSERT_TRUE(platform::attachMirror(file_, below(60) * kPiece));
        }
        break;
      default:
        inCall([&] {
          for (int n = 0; n < 5; ++n) {
            const auto from = static_cast<int64_t>(below(expected_.size() + 10));
            const size_t count = below(n == 0 ? 3 * kPiece : 500);
            EXPECT_EQ(read(from, static_cast<uint32_t>(count)), expected(from, count));
          }
        });
    }
    for (const auto& [bytes, copy] : pinned) {
      ASSERT_TRUE(std::equal(copy.begin(), copy.end(), bytes.data()));
    }
    ASSERT_FALSE(HasFailure()) << "step " << i;
  }
  expectEqualToTheFile();
}

}  // namespace
}  // namespace qvdbase::test
