// The recorder of system calls: what it writes down, and how it makes calls fail.
#include "kit/recorded_calls.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

using platform::systemCalls;

class Recorder : public testing::Test {
 protected:
  int openFile(const char* name = "file") {
    return systemCalls().openAt(AT_FDCWD, (folder / name).c_str(), O_RDWR | O_CREAT, 0666);
  }
  void SetUp() override { descriptor = openFile(); }
  void TearDown() override { systemCalls().close(descriptor); }

  ssize_t write(const char* text, off_t position) {
    return systemCalls().writeAt(descriptor, text, std::strlen(text), position);
  }
  ssize_t read(size_t count, off_t position) {
    return systemCalls().readAt(descriptor, buffer.data(), count, position);
  }
  std::string contents() { return readFile(folder / "file").str(); }

  TempFolder folder;
  RecordedCalls host;
  std::array<char, 100> buffer{};
  int descriptor = -1;
};

TEST_F(Recorder, WritesDownWhatReachedTheFileInOrder) {
  write("abc", 0);
  write("de", 3);
  write("x", 1);
  const std::vector<Write> expected = {
      {0, bytesOf("abc"), "file"}, {3, bytesOf("de"), "file"}, {1, bytesOf("x"), "file"}};
  EXPECT_EQ(host.writes(), expected);
  EXPECT_EQ(host.writes("other"), std::vector<Write>{});
}

TEST_F(Recorder, JoinsConsecutiveNeighboursOfOneFileOnly) {
  const std::vector<Write> log = {{0, bytesOf("abc"), "a"}, {3, bytesOf("d"), "a"},
                                  {4, bytesOf("e"), "b"},   {5, bytesOf("f"), "b"},
                                  {4, bytesOf("g"), "b"},   {9, bytesOf("h"), "b"}};
  const std::vector<Write> expected = {{0, bytesOf("abcd"), "a"},
                                       {4, bytesOf("ef"), "b"},
                                       {4, bytesOf("g"), "b"},
                                       {9, bytesOf("h"), "b"}};
  EXPECT_EQ(ranges(log), expected);
  EXPECT_EQ(byteCount(log), 8u);
}

TEST_F(Recorder, AppliesAnyNumberOfBytesOfALog) {
  const std::vector<Write> log = {{1, bytesOf("xy"), "a"}, {5, bytesOf("z"), "a"}};
  EXPECT_EQ(applied(bytesOf("abc"), log, 0), bytesOf("abc"));
  EXPECT_EQ(applied(bytesOf("abc"), log, 1), bytesOf("axc"));
  EXPECT_EQ(applied(bytesOf("abc"), log, 2), bytesOf("axy"));
  EXPECT_EQ(applied(bytesOf("abc"), log), hex("61 78 79 00 00 7A"));
}

TEST_F(Recorder, WritesDownEveryCallWithItsOutcome) {
  host.forget();
  host.failOnce(Call::truncate);
  read(10, 7);
  systemCalls().truncate(descriptor, 3);
  ASSERT_EQ(host.events().size(), 2u);
  const Event& first = host.events()[0];
  EXPECT_EQ(first.call, Call::read);
  EXPECT_EQ(first.descriptor, descriptor);
  EXPECT_EQ(first.file, "file");
  EXPECT_EQ(first.position, 7);
  EXPECT_EQ(first.count, 10u);
  EXPECT_EQ(first.result, 0);
  EXPECT_FALSE(first.chosen);
  const Event& second = host.events()[1];
  EXPECT_EQ(second.call, Call::truncate);
  EXPECT_EQ(second.position, 3);
  EXPECT_EQ(second.result, -1);
  EXPECT_TRUE(second.chosen);
  EXPECT_EQ(host.count(Call::read), 1);
  EXPECT_EQ(host.count(Call::write), 0);
}

TEST_F(Recorder, FailsOneCallAndLetsTheOthersThrough) {
  host.failOnce(Call::write, 1, ENOSPC);
  EXPECT_EQ(write("a", 0), 1);
  EXPECT_FALSE(host.failed());
  EXPECT_EQ(write("b", 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_TRUE(host.failed());
  EXPECT_EQ(write("c", 1), 1);
  EXPECT_EQ(contents(), "ac");
}

TEST_F(Recorder, FailsAllCallsFromOneOnUntilItIsHealed) {
  host.failFrom(Call::read, 1);
  EXPECT_EQ(read(1, 0), 0);
  EXPECT_EQ(read(1, 0), -1);
  EXPECT_EQ(read(1, 0), -1);
  host.heal();
  EXPECT_EQ(read(1, 0), 0);
}

TEST_F(Recorder, CutsOneTransfer) {
  host.cutOnce(Call::write, halfOf());
  EXPECT_EQ(write("abcd", 0), 2);
  EXPECT_EQ(write("efgh", 2), 4);
  host.cutOnce(Call::read, allBut(1));
  EXPECT_EQ(read(4, 0), 3);
  EXPECT_EQ(read(4, 0), 4);
  host.cutOnce(Call::write, noneOf());
  EXPECT_EQ(write("x", 0), 0);
  host.cutOnce(Call::write, exactly(3));
  EXPECT_EQ(write("x", 0), 1);
  EXPECT_EQ(contents(), "xbefgh");
}

TEST_F(Recorder, CutsATransferAndFailsWhatFollows) {
  host.cutFrom(Call::write, exactly(1), 1);
  EXPECT_EQ(write("ab", 0), 2);
  EXPECT_EQ(write("cd", 2), 1);
  EXPECT_EQ(write("d", 3), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(contents(), "abc");
}

TEST_F(Recorder, TakesOnlySoManyBytes) {
  host.fullAfter(3);
  EXPECT_EQ(write("ab", 0), 2);
  EXPECT_EQ(write("cd", 2), 1);
  EXPECT_EQ(write("d", 3), -1);
  EXPECT_TRUE(host.failed());
  host.heal();
  EXPECT_EQ(write("d", 3), 1);
  EXPECT_EQ(contents(), "abcd");
}

TEST_F(Recorder, SetsTheClocksAndLetsThemFail) {
  host.setTime(77);
  host.setMicroseconds(5);
  host.setProcessClock(6);
  host.setFileSizeLimit(7);
  EXPECT_EQ(systemCalls().time(), 77);
  EXPECT_EQ(systemCalls().microseconds(), 5u);
  EXPECT_EQ(systemCalls().processClock(), 6);
  EXPECT_EQ(systemCalls().fileSizeLimit(), 7u);
  host.failOnce(Call::time);
  EXPECT_EQ(systemCalls().time(), -1);
}

TEST_F(Recorder, CountsWhatIsHeld) {
  EXPECT_EQ(host.openDescriptors(), 1u);
  const int second = openFile("second");
  EXPECT_EQ(host.openDescriptors(), 2u);
  host.failOnce(Call::close);
  EXPECT_EQ(systemCalls().close(second), -1);
  EXPECT_EQ(host.openDescriptors(), 1u);

  void* block = systemCalls().allocate(10);
  EXPECT_EQ(host.heldBlocks(), 1u);
  systemCalls().release(block);
  EXPECT_EQ(host.heldBlocks(), 0u);
  host.failOnce(Call::allocate);
  EXPECT_EQ(systemCalls().allocate(10), nullptr);
  EXPECT_EQ(host.heldBlocks(), 0u);
}

// The addresses of a table's functions.
std::array<uintptr_t, kCallCount> functionsOf(const platform::SystemCalls& table) {
  return std::bit_cast<std::array<uintptr_t, kCallCount>>(table);
}

TEST_F(Recorder, ComesBeforeEveryCallOfTheTable) {
  const auto recorded = functionsOf(systemCalls());
  const auto real = functionsOf(platform::hostSystemCalls());
  for (size_t i = 0; i < kCallCount; ++i) {
    EXPECT_NE(recorded[i], real[i]) << nameOf(static_cast<Call>(i));
  }
}

TEST_F(Recorder, FailsCallsOnNamesAndRightsWithoutEffect) {
  host.forget();
  for (const Call call : {Call::rename, Call::renameNew, Call::link, Call::remove, Call::changeMode,
                          Call::changeOwner, Call::listAttributes, Call::readAttribute,
                          Call::writeAttribute, Call::removeAttribute}) {
    host.failFrom(call, 0, EPERM);
  }
  const std::string from = folder / "file", to = folder / "other";
  EXPECT_EQ(systemCalls().renameAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()), -1);
  EXPECT_EQ(systemCalls().renameNewAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()), -1);
  EXPECT_EQ(systemCalls().linkAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), 0), -1);
  EXPECT_EQ(systemCalls().removeAt(AT_FDCWD, from.c_str(), 0), -1);
  EXPECT_EQ(systemCalls().changeMode(descriptor, 0400), -1);
  EXPECT_EQ(systemCalls().changeOwner(descriptor, 0, 0), -1);
  EXPECT_EQ(systemCalls().listAttributes(descriptor, buffer.data(), buffer.size()), -1);
  EXPECT_EQ(systemCalls().readAttribute(descriptor, "user.a", buffer.data(), buffer.size()), -1);
  EXPECT_EQ(systemCalls().writeAttribute(descriptor, "user.a", "b", 1), -1);
  EXPECT_EQ(systemCalls().removeAttribute(descriptor, "user.a"), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(std::filesystem::exists(from));
  EXPECT_FALSE(std::filesystem::exists(to));
  ASSERT_EQ(host.events().size(), 10u);
  EXPECT_EQ(host.events()[0].file, "file");
  EXPECT_EQ(host.events()[4].position, 0400);

  host.heal();
  EXPECT_EQ(systemCalls().renameAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()), 0);
  EXPECT_EQ(systemCalls().linkAt(AT_FDCWD, to.c_str(), AT_FDCWD, from.c_str(), 0), 0);
  EXPECT_EQ(systemCalls().removeAt(AT_FDCWD, to.c_str(), 0), 0);
  EXPECT_EQ(contents(), "");
  EXPECT_FALSE(std::filesystem::exists(to));
}

TEST_F(Recorder, FailsQuestionsAboutLocksAndHoles) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  host.failOnce(Call::findLock, 0, EINVAL);
  EXPECT_EQ(systemCalls().findLock(descriptor, &lock), -1);
  EXPECT_EQ(systemCalls().findLock(descriptor, &lock), 0);
  EXPECT_EQ(lock.l_type, F_UNLCK);
  write("abc", 0);
  host.failOnce(Call::nextHole);
  host.failOnce(Call::nextStored);
  host.forget();
  EXPECT_EQ(systemCalls().nextHole(descriptor, 1), -1);
  EXPECT_EQ(systemCalls().nextStored(descriptor, 2), -1);
  EXPECT_EQ(systemCalls().nextHole(descriptor, 1),
            platform::hostSystemCalls().nextHole(descriptor, 1));
  ASSERT_EQ(host.events().size(), 3u);
  EXPECT_EQ(host.events()[1].position, 2);
}

// A host without these calls refuses them itself.
TEST_F(Recorder, FailsAndNotesWhatMovesBytesWithinTheHost) {
  write("abcdef", 0);
  const std::string other = folder / "copy";
  const int copy = systemCalls().openAt(AT_FDCWD, other.c_str(), O_RDWR | O_CREAT, 0600);
  host.forget();
  host.failOnce(Call::cloneFile, 0, EPERM);
  host.failOnce(Call::copyRange, 0, EPERM);
  host.failOnce(Call::punchHole, 0, EPERM);
  EXPECT_EQ(systemCalls().cloneFile(copy, descriptor), -1);
  EXPECT_EQ(systemCalls().copyRange(copy, descriptor, 0, 6), -1);
  EXPECT_EQ(systemCalls().punchHole(descriptor, 0, 6), -1);
  EXPECT_EQ(errno, EPERM);
  host.cutOnce(Call::copyRange, exactly(2));
  if (systemCalls().copyRange(copy, descriptor, 1, 3) == 2) {
    EXPECT_EQ(host.writes(), (std::vector<Write>{{1, bytesOf("bc"), "copy"}}));
  }
  EXPECT_EQ(systemCalls().close(copy), 0);
}

TEST_F(Recorder, RunsTheTestsFunctionBeforeEachCall) {
  std::string seen;
  host.observe([&](Call call) { seen += std::string(nameOf(call)) + " " + contents() + ";"; });
  write("a", 0);
  write("b", 1);
  host.observe(nullptr);
  write("c", 2);
  EXPECT_EQ(seen, "write ;write a;");
}

}  // namespace
}  // namespace qvdbase::test
