// Transfer scopes: what is gathered and served from memory inside one call, and what must
// not be noticed of it.
#include "platform/transfer/transfer.h"
#include "kit/layers.h"

#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <cstring>
#include <optional>
#include <random>

#include "kit/bytes.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "platform/transfer/transfer_counts.h"
#include "support/file_transfers.h"

namespace qvdbase::test {
namespace {

using platform::TransferPause;
using platform::TransferScope;

Bytes patterned(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

class Transfers : public ::testing::Test {
 protected:
  int16_t open(const char* name, const Bytes& content, int permission = 4) {
    writeFile(folder / name, content);
    int16_t file = 0;
    EXPECT_EQ(QVFile().QVOpenFile(folder.wide(name), permission, &file), 1);
    files_.push_back(file);
    return file;
  }

  void TearDown() override {
    for (int16_t file : files_) QVFile().QVCloseFile(file);
  }

  static bool seek(int16_t file, int64_t position) {
    return QVFile().QVSeekFile(file, 1, position) == 1;
  }
  static bool write(int16_t file, const std::string& text) {
    uint32_t moved = 0;
    return QVFile().QVWriteFile(file, text.data(), static_cast<uint32_t>(text.size()), &moved) == 1;
  }
  static bool writeAt(int16_t file, int64_t position, const std::string& text) {
    return seek(file, position) && write(file, text);
  }
  // As the fields of one header with others between them are written.
  static bool writeAfter(int16_t file, uint32_t gap, const std::string& text) {
    return writeFileAfter(file, gap, text.data(), static_cast<uint32_t>(text.size()),
                          &platform::transferCounts().written);
  }
  // The bytes that could be read; fewer than asked for when the read failed.
  static std::string readAt(int16_t file, int64_t position, uint32_t count) {
    std::string text(count, '?');
    uint32_t moved = 0;
    EXPECT_TRUE(seek(file, position));
    QVFile().QVReadFile(file, text.data(), count, &moved);
    text.resize(moved);
    return text;
  }

  TempFolder folder;
  std::vector<int16_t> files_;
};

TEST_F(Transfers, OutsideAScopeEachIsASystemCall) {
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  EXPECT_TRUE(writeAt(file, 0, "ab"));
  EXPECT_TRUE(write(file, "cd"));
  EXPECT_EQ(readAt(file, 0, 1), "a");
  EXPECT_EQ(readAt(file, 1, 1), "b");
  EXPECT_EQ(host.count(Call::write), 2);
  EXPECT_EQ(host.count(Call::read), 2);
}

TEST_F(Transfers, InsideAScopeNeighbouringWritesAreOneSystemCall) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 10, "ab"));
  EXPECT_TRUE(write(file, "cd"));
  EXPECT_TRUE(write(file, "ef"));
  EXPECT_EQ(host.count(Call::write), 0);
  EXPECT_TRUE(scope.end());
  ASSERT_EQ(host.writes().size(), 1u);
  EXPECT_EQ(host.writes()[0].position, 10);
  EXPECT_EQ(host.writes()[0].bytes.str(), "abcdef");
}

TEST_F(Transfers, InsideAScopeNeighbouringReadsAreOneSystemCall) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  TransferScope scope;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(readAt(file, i, 1), std::string(1, static_cast<char>(patterned(100)[size_t(i)])));
  }
  EXPECT_EQ(host.count(Call::read), 1);
}

TEST_F(Transfers, WritesReachTheFileInTheOrderInWhichTheyWereMade) {
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 50, "block"));
  EXPECT_TRUE(writeAt(file, 20, "link"));
  EXPECT_TRUE(writeAt(file, 24, "slot"));
  EXPECT_TRUE(writeAt(file, 20, "LINK"));
  EXPECT_TRUE(scope.end());
  const auto log = ranges(host.writes());
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].bytes.str(), "block");
  EXPECT_EQ(log[1].bytes.str(), "linkslot");
  EXPECT_EQ(log[2].bytes.str(), "LINK");
}

TEST_F(Transfers, WritesReachSeveralFilesInTheOrderInWhichTheyWereMade) {
  RecordedCalls host;
  const int16_t one = open("one", patterned(10));
  const int16_t two = open("two", patterned(10));
  TransferScope scope;
  EXPECT_TRUE(writeAt(one, 0, "a"));
  EXPECT_TRUE(writeAt(two, 0, "b"));
  EXPECT_TRUE(writeAt(one, 1, "c"));
  EXPECT_TRUE(scope.end());
  ASSERT_EQ(host.writes().size(), 3u);
  EXPECT_EQ(host.writes()[0].file, "one");
  EXPECT_EQ(host.writes()[1].file, "two");
  EXPECT_EQ(host.writes()[2].file, "one");
}

TEST_F(Transfers, FieldsOfOneHeaderAreOneSystemCallWhereNoOtherCanWrite) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const Bytes before = patterned(200);
  for (const int permission : {2, 3}) {
    const int16_t file = open("f", before, permission);
    RecordedCalls host;
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 1).size(), 1u);
    EXPECT_TRUE(writeAt(file, 10, "ab"));
    EXPECT_TRUE(writeAfter(file, 16, "cd"));
    EXPECT_TRUE(writeAt(file, 40, "ef"));  // a seek leads anywhere, into another block too
    EXPECT_TRUE(scope.end());
    ASSERT_EQ(host.writes().size(), 2u);
    EXPECT_EQ(host.writes()[0].bytes.str(), "ab" + before.str().substr(12, 16) + "cd");
    EXPECT_EQ(host.writes()[1].bytes.str(), "ef");
    QVFile().QVCloseFile(file);
  }
}

TEST_F(Transfers, FieldsAreWrittenAloneWhereOthersMayWriteBetweenThem) {
  const Bytes before = patterned(200);
  for (const int permission : {0, 4}) {
    const int16_t file = open("f", before, permission);
    RecordedCalls host;
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 1).size(), 1u);
    EXPECT_TRUE(writeAt(file, 10, "ab"));
    EXPECT_TRUE(writeAfter(file, 16, "cd"));
    EXPECT_TRUE(scope.end());
    ASSERT_EQ(host.writes().size(), 2u);
    EXPECT_EQ(host.writes()[0].bytes.str(), "ab");
    EXPECT_EQ(host.writes()[1].position, 28);
    EXPECT_EQ(host.writes()[1].bytes.str(), "cd");
    QVFile().QVCloseFile(file);
  }
}

TEST_F(Transfers, BytesThatWereNotReadAreNotWritten) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(200), 3);
  RecordedCalls host;
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 10, "ab"));
  EXPECT_TRUE(writeAfter(file, 16, "cd"));
  EXPECT_TRUE(scope.end());
  EXPECT_EQ(host.writes().size(), 2u);
}

// A field that is too large to be gathered goes out by itself, and the fields before it without
// the bytes between; so do refused ones, with the position and the count of the one refused.
TEST_F(Transfers, BytesBetweenFieldsAreWrittenOnlyWithTheFieldAfterThem) {
  const std::string large(40000, 'x');
  for (size_t space = 0; space < 20; ++space) {
    SCOPED_TRACE(space);
    const int16_t file = open("f", patterned(200), 3);
    RecordedCalls host;
    host.fullAfter(space);
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 20).size(), 20u);
    EXPECT_FALSE(writeAt(file, 10, "ab") && writeAfter(file, 16, large));
    static_cast<void>(scope.end());
    int64_t position = 0;
    EXPECT_EQ(QVFile().QVGetFilePos(file, &position), 1);
    EXPECT_EQ(position, space < 2 ? 10 + int64_t(space) : 26 + int64_t(space));
    const auto log = host.writes();
    EXPECT_EQ(byteCount(log), space);
    for (const Write& each : log) EXPECT_TRUE(each.position == 10 || each.position == 28);
    QVFile().QVCloseFile(file);
  }
}

TEST_F(Transfers, AfterAGapNothingIsWrittenBeyondTheLargestPosition) {
  const int16_t file = open("f", patterned(10), 3);
  TransferScope scope;
  EXPECT_TRUE(seek(file, INT64_MAX - 3));
  EXPECT_FALSE(writeAfter(file, 4, "x"));
  int64_t position = 0;
  EXPECT_EQ(QVFile().QVGetFilePos(file, &position), 1);
  EXPECT_EQ(position, INT64_MAX - 3);
}

// To write past the limit would end the process.
TEST_F(Transfers, TheProcessesLimitHoldsBetweenTwoFieldsToo) {
  const Bytes before = patterned(100);
  for (uint64_t limit = 10; limit < 36; ++limit) {
    SCOPED_TRACE(limit);
    const int16_t file = open("f", before, 3);
    RecordedCalls host;
    host.setFileSizeLimit(limit);
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 1).size(), 1u);
    const bool all = writeAt(file, 10, "ab") && writeAfter(file, 16, "cdef");
    EXPECT_EQ(all, limit >= 32);
    EXPECT_TRUE(scope.end());
    for (const Write& each : host.writes()) {
      EXPECT_LE(static_cast<uint64_t>(each.position) + each.bytes.size(), limit);
    }
    QVFile().QVCloseFile(file);
  }
}

TEST_F(Transfers, WhatWasWrittenIsReadBackAndWithTheSystemByThen) {
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  TransferScope scope;
  EXPECT_EQ(readAt(file, 0, 1).size(), 1u);
  EXPECT_TRUE(writeAt(file, 10, "new"));
  EXPECT_EQ(readAt(file, 11, 2), "ew");
  EXPECT_EQ(host.count(Call::write), 1);
  EXPECT_EQ(readAt(file, 9, 5).substr(1, 3), "new");
}

TEST_F(Transfers, ALengthThatIsAskedCountsWhatWasWritten) {
  const int16_t file = open("f", patterned(100));
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 100, "tail"));
  int64_t position = 0;
  EXPECT_EQ(QVFile().QVSeekFile(file, 2, 0), 1);
  EXPECT_EQ(QVFile().QVGetFilePos(file, &position), 1);
  EXPECT_EQ(position, 104);
}

TEST_F(Transfers, WhatOthersWriteBetweenTwoScopesIsSeen) {
  const int16_t file = open("f", patterned(100));
  {
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 100).size(), 100u);
  }
  writeFile(folder / "f", Bytes(100, 0x55));
  TransferScope scope;
  EXPECT_EQ(readAt(file, 0, 1), "\x55");
}

TEST_F(Transfers, AFileCutShortBetweenTwoScopesMakesReadsFail) {
  const int16_t file = open("f", patterned(100));
  {
    TransferScope scope;
    EXPECT_EQ(readAt(file, 0, 100).size(), 100u);
  }
  std::filesystem::resize_file(folder / "f", 50);
  TransferScope scope;
  EXPECT_EQ(readAt(file, 48, 4).size(), 2u);
  EXPECT_EQ(readAt(file, 60, 4).size(), 0u);
}

TEST_F(Transfers, APausePassesOnWhatWasWrittenAndForgetsWhatWasRead) {
  const int16_t file = open("f", patterned(100));
  TransferScope scope;
  EXPECT_EQ(readAt(file, 50, 10).size(), 10u);
  EXPECT_TRUE(writeAt(file, 0, "mine"));
  {
    TransferPause pause;
    EXPECT_EQ(readFile(folder / "f").str().substr(0, 4), "mine");
    writeFile(folder / "f", Bytes(100, 0x55));
    EXPECT_EQ(readAt(file, 50, 1), "\x55");
    writeFile(folder / "f", Bytes(100, 0x66));
    EXPECT_EQ(readAt(file, 50, 1), "\x66");
  }
  EXPECT_EQ(readAt(file, 50, 1), "\x66");
  EXPECT_TRUE(scope.end());
}

TEST_F(Transfers, AnInnerScopeSeesAndPassesOnLikeACallOfItsOwn) {
  const int16_t file = open("f", patterned(100));
  TransferScope outer;
  EXPECT_EQ(readAt(file, 50, 10).size(), 10u);
  EXPECT_TRUE(writeAt(file, 0, "outer"));
  {
    TransferScope inner;
    EXPECT_EQ(readFile(folder / "f").str().substr(0, 5), "outer");
    EXPECT_TRUE(writeAt(file, 50, "inner"));
    EXPECT_TRUE(inner.end());
    EXPECT_EQ(readFile(folder / "f").str().substr(50, 5), "inner");
  }
  EXPECT_EQ(readAt(file, 50, 5), "inner");
}

TEST_F(Transfers, ARefusedWriteFailsWhereItIsSentAndAtTheEnd) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const Bytes before = patterned(100);
  const int16_t file = open("f", before);
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope scope;
  EXPECT_EQ(readAt(file, 0, 100).size(), 100u);
  EXPECT_TRUE(writeAt(file, 10, "lost"));
  EXPECT_FALSE(writeAt(file, 90, "behind"));  // sends the first one
  EXPECT_FALSE(write(file, "later"));         // though the host would take it now
  EXPECT_EQ(readAt(file, 10, 4), before.str().substr(10, 4));
  EXPECT_FALSE(scope.end());
  EXPECT_TRUE(sameBytes(readFile(folder / "f"), before));
}

// The disk is full after n bytes: whatever the library has gathered by then, position and counts
// are those of the write that did not get all of its bytes.
TEST_F(Transfers, ARefusedRunEndsAsItsWritesWouldHaveOneByOne) {
  for (const int permission : {3, 4}) {
    for (uint32_t n = 0; n < 9; ++n) {
      SCOPED_TRACE(n);
      const int16_t file = open("f", patterned(100), permission);
      RecordedCalls host;
      host.fullAfter(n);
      std::optional<platform::Turn> turn(file);
      TransferScope scope;
      bool all = true;
      uint32_t place = 10;
      for (const char* const text : {"ab", "cdef", "ghi"}) {
        Bytes read(place);
        all =
            all && seek(file, 50) &&
            qvdbase::support::readFile(file, read.data(), place, &platform::transferCounts().read);
        const auto size = static_cast<uint32_t>(std::strlen(text));
        all = all && seek(file, place) &&
              qvdbase::support::writeFile(file, text, size, &platform::transferCounts().written);
        place += size;
      }
      EXPECT_FALSE(scope.end() && all);
      turn.reset();
      int64_t position = 0;
      EXPECT_EQ(QVFile().QVGetFilePos(file, &position), 1);
      EXPECT_EQ(position, 10 + n);
      EXPECT_EQ(gbl_realWriten, n < 2 ? n : n < 6 ? n - 2 : n - 6);
      EXPECT_EQ(gbl_realReaden, n < 2 ? 10u : n < 6 ? 12u : 16u);
      QVFile().QVCloseFile(file);
    }
  }
}

TEST_F(Transfers, AWriteRefusedAtTheEndOfAScopeFailsTheScope) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 0, "lost"));
  EXPECT_FALSE(scope.end());
}

TEST_F(Transfers, AReadThatNeedsARefusedWriteFails) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 0, "lost"));
  EXPECT_EQ(readAt(file, 2, 1), "");
  EXPECT_FALSE(scope.end());
}

TEST_F(Transfers, ALengthThatNeedsARefusedWriteIsNotReported) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 10, "lost"));
  EXPECT_EQ(QVFile().QVSeekFile(file, 2, 0), 0);
  EXPECT_FALSE(scope.end());
}

TEST_F(Transfers, AViewShowsTheBytesOfTheFileAndMovesNothing) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const Bytes before = patterned(100);
  const int16_t file = open("f", before);
  EXPECT_EQ(viewFile(file, 10, 4), nullptr);  // outside a scope nothing is kept
  TransferScope scope;
  ASSERT_TRUE(writeAt(file, 10, "new"));
  const unsigned char* view = viewFile(file, 8, 8);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(std::string(view, view + 8),
            before.str().substr(8, 2) + "new" + before.str().substr(13, 3));
  EXPECT_EQ(readFile(folder / "f").str().substr(10, 3), "new");
  int64_t position = 0;
  EXPECT_EQ(QVFile().QVGetFilePos(file, &position), 1);
  EXPECT_EQ(position, 13);
  EXPECT_EQ(viewFile(file, 96, 5), nullptr);
  EXPECT_EQ(viewFile(file, -1, 1), nullptr);
  EXPECT_TRUE(scope.end());
}

TEST_F(Transfers, AWriteRefusedAtAViewIsMissedWhenTheWritesAreToBeComplete) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const Bytes before = patterned(100);
  const int16_t file = open("f", before);
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope scope;
  EXPECT_TRUE(TransferScope::completeWrites());
  EXPECT_TRUE(writeAt(file, 10, "lost"));
  EXPECT_EQ(viewFile(file, 8, 8), nullptr);
  EXPECT_FALSE(TransferScope::completeWrites());
  EXPECT_EQ(readAt(file, 10, 4), before.str().substr(10, 4));
  EXPECT_FALSE(TransferScope::completeWrites());
  EXPECT_FALSE(scope.end());
}

TEST_F(Transfers, ReadingAheadIsServedFromAndNeverStale) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const Bytes before = patterned(8000);
  const int16_t file = open("f", before);
  RecordedCalls host;
  TransferScope scope;
  readAhead(file, 1000, 5000);
  EXPECT_EQ(readAt(file, 5000, 500), before.str().substr(5000, 500));
  EXPECT_EQ(readAt(file, 1000, 10), before.str().substr(1000, 10));
  EXPECT_EQ(host.count(Call::read), 1);
  EXPECT_TRUE(writeAt(file, 7000, "new"));
  readAhead(file, 6500, 1000);  // not before the write is with the system
  EXPECT_EQ(readAt(file, 7000, 3), "new");
  EXPECT_TRUE(scope.end());
}

TEST_F(Transfers, AFailureOfAnOuterScopeDoesNotFailTheInnerOne) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.failOnce(Call::write);
  TransferScope outer;
  EXPECT_TRUE(writeAt(file, 0, "lost"));
  TransferScope inner;
  EXPECT_TRUE(writeAt(file, 5, "kept"));
  EXPECT_TRUE(inner.end());
  EXPECT_FALSE(outer.end());
  EXPECT_EQ(readFile(folder / "f").str().substr(5, 4), "kept");
}

#ifdef NDEBUG
TEST_F(Transfers, AScopeThatEndsTooEarlyTakesThoseWithinItAlong) {
  const int16_t file = open("f", patterned(10));
  std::optional<TransferScope> outer(std::in_place);
  std::optional<TransferScope> inner(std::in_place);
  EXPECT_TRUE(writeAt(file, 0, "in"));
  EXPECT_TRUE(outer->end());
  EXPECT_EQ(readFile(folder / "f").str().substr(0, 2), "in");
  outer.reset();
  inner.reset();
  EXPECT_TRUE(writeAt(file, 4, "out"));
  EXPECT_EQ(readFile(folder / "f").str().substr(4, 3), "out");
}
#else
TEST_F(Transfers, AScopeThatEndsTooEarlyIsAMistake) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  TransferScope outer;
  TransferScope inner;
  EXPECT_DEATH(static_cast<void>(outer.end()), "ends before one within it");
}

TEST_F(Transfers, AScopeThatOutlivesThePauseInWhichItBeganIsAMistake) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  std::optional<TransferPause> pause(std::in_place);
  TransferScope late;
  EXPECT_DEATH(pause.reset(), "outlives the pause");
  EXPECT_TRUE(late.end());
}

TEST_F(Transfers, AScopeThatEndsWhileItIsPausedIsAMistake) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  EXPECT_DEATH(
      {
        std::optional<TransferScope> scope(std::in_place);
        TransferPause pause;
        scope.reset();
      },
      "ends while it is paused");
}

TEST_F(Transfers, AClosingThatForgetsGatheredWritesIsAMistake) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  TransferScope scope;
  EXPECT_TRUE(write(file, "ab"));
  EXPECT_DEATH(
      {
        *platform::findOpenFile(file) = {};
        static_cast<void>(scope.end());
      },
      "closed before its writes were sent");
}

TEST_F(Transfers, AWindowThatDiffersFromTheWritesIsAMistake) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  const int16_t file = open("f", patterned(10));
  TransferScope scope;
  EXPECT_EQ(readAt(file, 0, 1).size(), 1u);
  EXPECT_TRUE(writeAt(file, 2, "ab"));
  EXPECT_DEATH(
      {
        const platform::FileEntry* entry = platform::findOpenFile(file)->entry;
        platform::callState().windows.overwrite(entry, 3, "x", 1);
        static_cast<void>(scope.end());
      },
      "holds bytes that were overwritten");
  EXPECT_TRUE(scope.end());
}
#endif

TEST_F(Transfers, AFileClosedInsideAScopeHasItsWrites) {
  const int16_t file = open("f", patterned(10));
  TransferScope scope;
  EXPECT_TRUE(writeAt(file, 0, "last"));
  EXPECT_EQ(QVFile().QVCloseFile(file), 1);
  EXPECT_EQ(readFile(folder / "f").str().substr(0, 4), "last");
  EXPECT_TRUE(scope.end());
}

TEST_F(Transfers, AFailingReadFailsAndMovesNothing) {
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.failFrom(Call::read);
  TransferScope scope;
  EXPECT_EQ(readAt(file, 3, 2), "");
  int64_t position = 0;
  QVFile().QVGetFilePos(file, &position);
  EXPECT_EQ(position, 3);
  host.heal();
  EXPECT_EQ(readAt(file, 3, 2).size(), 2u);
}

// Reads forwards and backwards around a place that cannot be read: on hosts that give what lies
// before it, and on those that give nothing when it is among the bytes asked for.
TEST_F(Transfers, WhatTheHostCanDeliverIsReadWhateverLiesAround) {
  constexpr int64_t kBad = 150'000;
  constexpr int64_t kBadEnd = kBad + 4096;
  static bool failsWhole;
  const Bytes before = patterned(300'000);
  for (const bool whole : {false, true}) {
    failsWhole = whole;
    const int16_t file = open("f", before);
    ReplacedCalls calls;
    calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) -> ssize_t {
      const off_t end = position + static_cast<off_t>(count);
      if (position < kBadEnd && end > kBad) {
        errno = EIO;
        if (failsWhole || position >= kBad) return -1;
        count = static_cast<size_t>(kBad - position);
      }
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    TransferScope scope;
    const auto expectAt = [&](int64_t position) {
      const bool isGood = position + 20 <= kBad || position >= kBadEnd;
      const auto held = static_cast<size_t>(std::max<int64_t>(kBad - position, 0));
      const size_t size = isGood ? 20 : position >= kBad || failsWhole ? 0 : held;
      EXPECT_EQ(readAt(file, position, 20),
                before.str().substr(static_cast<size_t>(position), size))
          << position;
    };
    for (int64_t position = 299'000; position > 0; position -= 700) expectAt(position);
    for (int64_t position = 100; position < 299'000; position += 500) expectAt(position);
    EXPECT_TRUE(scope.end());
  }
}

TEST_F(Transfers, ACutReadIsGoneOnWith) {
  const int16_t file = open("f", patterned(100));
  RecordedCalls host;
  host.cutOnce(Call::read, exactly(3));
  TransferScope scope;
  EXPECT_EQ(readAt(file, 10, 50), patterned(100).str().substr(10, 50));
}

TEST_F(Transfers, AWriteStopsAtTheProcessesLimit) {
  const int16_t file = open("f", patterned(10));
  RecordedCalls host;
  host.setFileSizeLimit(14);
  TransferScope scope;
  uint32_t moved = 0;
  ASSERT_TRUE(seek(file, 10));
  EXPECT_EQ(QVFile().QVWriteFile(file, "beyond", 6, &moved), 0);
  EXPECT_EQ(moved, 4u);
  static_cast<void>(scope.end());
  EXPECT_EQ(readFile(folder / "f").str().substr(10), "beyo");
}

TEST_F(Transfers, AtTheLargestPositionNothingIsReadAndNothingWraps) {
  const int16_t file = open("f", patterned(10));
  TransferScope scope;
  for (int64_t back : {0, 1, 100, 200000}) {
    EXPECT_EQ(readAt(file, INT64_MAX - back, 20), "");
  }
  EXPECT_FALSE(writeAt(file, INT64_MAX - 2, "abcd"));
}

// Small and large transfers at random places, forwards, backwards and across the end, against the
// same on an array of bytes.
TEST_F(Transfers, InAScopeAreWhatTheyAreWithoutOne) {
  const auto seed = static_cast<unsigned>(randomSeed());
  std::mt19937 random(seed);
  const auto below = [&](size_t limit) { return random() % limit; };
  Bytes model = patterned(300000);
  const int16_t file = open("f", model);
  size_t place = 0;
  for (int round = 0; round < 20; ++round) {
    TransferScope scope;
    for (int step = 0; step < 200; ++step) {
      const size_t count = below(20) == 0 ? below(200000) : 1 + below(200);
      switch (below(4)) {
        case 0:
          place = below(model.size() + 1000);
          break;
        case 1:
          place = place > count ? place - count : 0;
          break;
        default:
          break;
      }
      if (below(3) != 0) {
        const size_t end = std::min(place + count, model.size());
        const std::string expected =
            place < end ? std::string(model.begin() + static_cast<std::ptrdiff_t>(place),
                                      model.begin() + static_cast<std::ptrdiff_t>(end))
                        : std::string();
        ASSERT_EQ(readAt(file, static_cast<int64_t>(place), static_cast<uint32_t>(count)),
                  expected);
      } else {
        const std::string text(count, static_cast<char>(random()));
        ASSERT_TRUE(writeAt(file, static_cast<int64_t>(place), text));
        if (model.size() < place + count) model.resize(place + count);
        std::copy(text.begin(), text.end(), model.begin() + static_cast<std::ptrdiff_t>(place));
      }
      place = std::min(place + count, model.size() + 500);
    }
    ASSERT_TRUE(scope.end());
    ASSERT_TRUE(sameBytes(readFile(folder / "f"), model));
  }
}

}  // namespace
}  // namespace qvdbase::test
