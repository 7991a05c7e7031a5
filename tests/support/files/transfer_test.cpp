// Reading, writing and positions, through handles.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
constexpr int64_t kSmallest = std::numeric_limits<int64_t>::min();

class TransferTest : public testing::Test {
 protected:
  TransferTest() {
    writeFile(folder_ / "f", bytesOf("0123456789"));
    number_ = opened(4);
  }
  ~TransferTest() override { EXPECT_EQ(file_.QVCloseFile(number_), 1); }

  int16_t opened(int permission) {
    int16_t number = 0;
    EXPECT_EQ(file_.QVOpenFile(folder_.wide("f"), permission, &number), 1);
    return number;
  }

  int64_t position() {
    int64_t result = -1;
    EXPECT_EQ(file_.QVGetFilePos(number_, &result), 1);
    return result;
  }

  std::string content() { return readFile(folder_ / "f").str(); }

  TempFolder folder_;
  QVFile file_;
  int16_t number_ = 0;
};

TEST_F(TransferTest, ReadTakesTheBytesAtThePositionAndMovesIt) {
  char bytes[5] = {};
  uint32_t moved = 77;
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 2), 1);
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 4, &moved), 1);
  EXPECT_STREQ(bytes, "2345");
  EXPECT_EQ(moved, 4u);
  EXPECT_EQ(position(), 6);
}

TEST_F(TransferTest, ReadThatMeetsTheEndFailsWithTheBytesThereWere) {
  char bytes[9] = {};
  uint32_t moved = 77;
  ASSERT_EQ(file_.QVSeekFile(number_, 2, -3), 1);
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 8, &moved), 0);
  EXPECT_STREQ(bytes, "789");
  EXPECT_EQ(moved, 3u);
  EXPECT_EQ(position(), 10);
}

TEST_F(TransferTest, ReadAtAndBeyondTheEndFailsWith0Bytes) {
  for (const int64_t start : {int64_t{10}, int64_t{11}, int64_t{1} << 40, kLargest}) {
    char byte = 'x';
    uint32_t moved = 77;
    ASSERT_EQ(file_.QVSeekFile(number_, 1, start), 1);
    EXPECT_EQ(file_.QVReadFile(number_, &byte, 1, &moved), 0);
    EXPECT_EQ(moved, 0u);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(position(), start);
  }
}

TEST_F(TransferTest, WriteOverwritesAndMovesThePosition) {
  uint32_t moved = 77;
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 3), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, "abc", 3, &moved), 1);
  EXPECT_EQ(moved, 3u);
  EXPECT_EQ(position(), 6);
  EXPECT_EQ(content(), "012abc6789");
}

TEST_F(TransferTest, WriteAtTheEndMakesTheFileLonger) {
  ASSERT_EQ(file_.QVSeekFile(number_, 2, -1), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, "abc", 3, nullptr), 1);
  EXPECT_EQ(content(), "012345678abc");
}

TEST_F(TransferTest, WriteBeyondTheEndLeavesAGapOfZeros) {
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 12), 1);
  EXPECT_EQ(content(), "0123456789");  // the position alone changes nothing
  EXPECT_EQ(file_.QVWriteFile(number_, "a", 1, nullptr), 1);
  EXPECT_EQ(content(), std::string("0123456789\0\0a", 13));
}

TEST_F(TransferTest, PositionsPass32Bits) {
  const int64_t far = (int64_t{1} << 33) + 5;
  char byte = 0;
  ASSERT_EQ(file_.QVSeekFile(number_, 1, far), 1);
  ASSERT_EQ(file_.QVWriteFile(number_, "a", 1, nullptr), 1);
  EXPECT_EQ(position(), far + 1);
  ASSERT_EQ(file_.QVSeekFile(number_, 2, -1), 1);
  EXPECT_EQ(position(), far);
  EXPECT_EQ(file_.QVReadFile(number_, &byte, 1, nullptr), 1);
  EXPECT_EQ(byte, 'a');
}

TEST_F(TransferTest, WriteAtTheLargestPositionFails) {
  uint32_t moved = 77;
  ASSERT_EQ(file_.QVSeekFile(number_, 1, kLargest), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, "a", 1, &moved), 0);
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(position(), kLargest);
  EXPECT_EQ(content(), "0123456789");
}

TEST_F(TransferTest, Of0BytesSucceeds) {
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVReadFile(number_, nullptr, 0, &moved), 1);
  EXPECT_EQ(moved, 0u);
  moved = 77;
  EXPECT_EQ(file_.QVWriteFile(number_, nullptr, 0, &moved), 1);
  EXPECT_EQ(moved, 0u);
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 20), 1);
  EXPECT_EQ(file_.QVReadFile(number_, nullptr, 0, nullptr), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, nullptr, 0, nullptr), 1);
  EXPECT_EQ(position(), 20);
  EXPECT_EQ(content(), "0123456789");
}

TEST_F(TransferTest, NeedsNoPlaceForTheCount) {
  char byte = 0;
  EXPECT_EQ(file_.QVReadFile(number_, &byte, 1, nullptr), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, "a", 1, nullptr), 1);
  EXPECT_EQ(content(), "0a23456789");
}

TEST_F(TransferTest, WithoutABufferFails) {
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVReadFile(number_, nullptr, 1, &moved), 0);
  EXPECT_EQ(file_.QVWriteFile(number_, nullptr, 1, &moved), 0);
  EXPECT_EQ(moved, 77u);
  EXPECT_EQ(position(), 0);
  EXPECT_EQ(content(), "0123456789");
}

TEST_F(TransferTest, WriteOnAHandleForReadingFails) {
  const int16_t reader = opened(1);
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVWriteFile(reader, "a", 1, &moved), 0);
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(file_.QVWriteFile(reader, "a", 0, &moved), 0);
  int64_t at = -1;
  EXPECT_EQ(file_.QVGetFilePos(reader, &at), 1);
  EXPECT_EQ(at, 0);
  EXPECT_EQ(file_.QVCloseFile(reader), 1);
  EXPECT_EQ(content(), "0123456789");
}

TEST_F(TransferTest, EachHandleHasItsOwnPositionAndAllSeeTheSameBytes) {
  const int16_t second = opened(1);
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 4), 1);
  EXPECT_EQ(file_.QVWriteFile(number_, "abc", 3, nullptr), 1);
  char bytes[8] = {};
  EXPECT_EQ(file_.QVReadFile(second, bytes, 7, nullptr), 1);
  EXPECT_STREQ(bytes, "0123abc");
  EXPECT_EQ(position(), 7);
  EXPECT_EQ(file_.QVCloseFile(second), 1);
}

TEST_F(TransferTest, SeesWhatAnotherProgramWroteInBetween) {
  char bytes[4] = {};
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 3, nullptr), 1);
  patchFile(folder_ / "f", 0, bytesOf("new"));
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 0), 1);
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 3, nullptr), 1);
  EXPECT_STREQ(bytes, "new");
}

TEST_F(TransferTest, ReadsFailOfAFileThatAnotherProgramCutShort) {
  char bytes[8] = {};
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 4, nullptr), 1);
  fs::resize_file(folder_ / "f", 2);
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 4, &moved), 0);
  EXPECT_EQ(moved, 0u);
  ASSERT_EQ(file_.QVSeekFile(number_, 2, 0), 1);
  EXPECT_EQ(position(), 2);
}

TEST_F(TransferTest, GoesOnWhereTheHostMovesFewerBytesOrIsInterrupted) {
  static bool interrupted;
  interrupted = false;
  ReplacedCalls host;
  host->readAt = [](int descriptor, void* buffer, size_t, off_t at) {
    interrupted = !interrupted;
    if (interrupted) return errno = EINTR, ssize_t{-1};
    return platform::hostSystemCalls().readAt(descriptor, buffer, 1, at);
  };
  host->writeAt = [](int descriptor, const void* buffer, size_t, off_t at) {
    interrupted = !interrupted;
    if (interrupted) return errno = EINTR, ssize_t{-1};
    return platform::hostSystemCalls().writeAt(descriptor, buffer, 1, at);
  };
  char bytes[4] = {};
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 3, &moved), 1);
  EXPECT_STREQ(bytes, "012");
  EXPECT_EQ(moved, 3u);
  EXPECT_EQ(file_.QVWriteFile(number_, "abc", 3, &moved), 1);
  EXPECT_EQ(moved, 3u);
  EXPECT_EQ(content(), "012abc6789");
}

TEST_F(TransferTest, ReadThatTheHostBreaksOffReportsWhatItGot) {
  static int calls;
  calls = 0;
  ReplacedCalls host;
  host->readAt = [](int descriptor, void* buffer, size_t, off_t at) {
    if (++calls == 3) return errno = EIO, ssize_t{-1};
    return platform::hostSystemCalls().readAt(descriptor, buffer, 1, at);
  };
  char bytes[4] = {};
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVReadFile(number_, bytes, 3, &moved), 0);
  EXPECT_EQ(moved, 2u);
  EXPECT_EQ(position(), 2);
}

TEST_F(TransferTest, WriteThatIsCutShortReportsWhatItWrote) {
  FakeHost host;
  uint32_t moved = 77;
  host.cutWrites();
  EXPECT_EQ(file_.QVWriteFile(number_, "abcd", 4, &moved), 0);
  EXPECT_EQ(moved, 2u);
  EXPECT_EQ(position(), 2);
  EXPECT_EQ(content(), "ab23456789");
}

TEST_F(TransferTest, WriteThatMovesNothingFailsInsteadOfTryingForEver) {
  ReplacedCalls host;
  host->writeAt = [](int, const void*, size_t, off_t) { return ssize_t{0}; };
  uint32_t moved = 77;
  EXPECT_EQ(file_.QVWriteFile(number_, "abcd", 4, &moved), 0);
  EXPECT_EQ(moved, 0u);
}

TEST_F(TransferTest, WriteStopsAtTheProcessesLimitWithoutASignal) {
  struct rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  struct rlimit limit = before;
  limit.rlim_cur = 12;
  uint32_t moved = 77;
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 8), 1);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const int first = file_.QVWriteFile(number_, "abcdef", 6, &moved);
  const uint32_t firstMoved = moved;
  const int second = file_.QVWriteFile(number_, "x", 1, &moved);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(firstMoved, 4u);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(content(), "01234567abcd");
}

TEST_F(TransferTest, SeekCountsFromWhereItsModeSays) {
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 6), 1);
  EXPECT_EQ(position(), 6);
  EXPECT_EQ(file_.QVSeekFile(number_, 0, 3), 1);
  EXPECT_EQ(position(), 6);
  EXPECT_EQ(file_.QVSeekFile(number_, 3, -2), 1);
  EXPECT_EQ(position(), 4);
  EXPECT_EQ(file_.QVSeekFile(number_, 3, 20), 1);
  EXPECT_EQ(position(), 24);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, 0), 1);
  EXPECT_EQ(position(), 10);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, -10), 1);
  EXPECT_EQ(position(), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, 5), 1);
  EXPECT_EQ(position(), 15);
  EXPECT_EQ(file_.QVSeekFile(number_, 0, kSmallest), 1);
  EXPECT_EQ(position(), 15);
}

TEST_F(TransferTest, SeekToTheLargestPositionIsTheLast) {
  EXPECT_EQ(file_.QVSeekFile(number_, 1, kLargest), 1);
  EXPECT_EQ(position(), kLargest);
  EXPECT_EQ(file_.QVSeekFile(number_, 3, 1), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, kLargest - 9), 0);
  EXPECT_EQ(position(), kLargest);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, kLargest - 10), 1);
  EXPECT_EQ(position(), kLargest);
}

TEST_F(TransferTest, SeekBeforeTheStartIsRefused) {
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 4), 1);
  EXPECT_EQ(file_.QVSeekFile(number_, 1, -1), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 1, kSmallest), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, -11), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, kSmallest), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 3, -5), 0);
  EXPECT_EQ(file_.QVSeekFile(number_, 3, kSmallest), 0);
  EXPECT_EQ(position(), 4);
}

TEST_F(TransferTest, SeekWithAnotherModeIsRefused) {
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 4), 1);
  for (const int mode : {4, 5, 255, 256, 257, 65535}) {
    EXPECT_EQ(file_.QVSeekFile(number_, static_cast<uint16_t>(mode), 0), 0) << mode;
  }
  EXPECT_EQ(position(), 4);
}

TEST_F(TransferTest, SeekFromTheEndFailsWhenTheLengthCannotBeObtained) {
  ASSERT_EQ(file_.QVSeekFile(number_, 1, 4), 1);
  FakeHost host;
  host.failFrom(FakeHost::Call::length);
  EXPECT_EQ(file_.QVSeekFile(number_, 2, 0), 0);
  EXPECT_EQ(position(), 4);
}

TEST_F(TransferTest, PositionNeedsAPlace) {
  EXPECT_EQ(file_.QVGetFilePos(number_, nullptr), 0);
}

TEST_F(TransferTest, OnANumberThatIsNotOpenFailsAndTouchesNothing) {
  for (const int value : {0, -1, -32768, 2, 500, 32767}) {
    const auto number = static_cast<int16_t>(value);
    char byte = 'x';
    uint32_t moved = 77;
    int64_t at = 77;
    EXPECT_EQ(file_.QVReadFile(number, &byte, 1, &moved), 0);
    EXPECT_EQ(file_.QVReadFile(number, &byte, 0, &moved), 0);
    EXPECT_EQ(file_.QVWriteFile(number, &byte, 1, &moved), 0);
    EXPECT_EQ(file_.QVWriteFile(number, &byte, 0, &moved), 0);
    EXPECT_EQ(file_.QVSeekFile(number, 0, 0), 0);
    EXPECT_EQ(file_.QVSeekFile(number, 1, 0), 0);
    EXPECT_EQ(file_.QVGetFilePos(number, &at), 0);
    EXPECT_EQ(file_.QVCloseFile(number), 0);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(moved, 77u);
    EXPECT_EQ(at, 77);
  }
}

}  // namespace
}  // namespace qvdbase::test
