// Frame duplication: its required outcome, which is a failure that leaves an empty file.
#include "kit/maintenance_fixture.h"

namespace qvdbase::test {
namespace {

class FrameDuplication : public MaintenanceTest {
 protected:
  FrameDuplication() { allowDamage(kTarget); }

  int duplicate() {
    status = 4711;
    return DupFrameForRzbd3W(wide(kSource), wide(kTarget), &status);
  }

  // The numbers that are in use, all closed afterwards: the operation reports none.
  static std::vector<int16_t> closeWhatIsOpen() {
    std::vector<int16_t> files;
    for (int16_t file = 1; file < 20; ++file) {
      if (position(file) != -1) files.push_back(file);
    }
    for (const int16_t file : files) CloseDBase(file);
    return files;
  }

  int status = 0;
};

TEST_F(FrameDuplication, FailsAndLeavesAnEmptyFileAndTheSourceOpenAsRequired) {
  LivelyDatabase lively;
  allowDamage(kSource);
  putSource(lively.image);
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(fileSize(kTarget), 0u);
  EXPECT_EQ(closeWhatIsOpen(), std::vector<int16_t>{1});  // the source was opened first
  EXPECT_TRUE(sameBytes(contents(kSource), lively.image.build()));
}

TEST_F(FrameDuplication, EmptiesATargetThatIsThere) {
  putSource(FileImage());
  writeFile(path(kTarget), bytesOf("old contents"));
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(fileSize(kTarget), 0u);
  closeWhatIsOpen();
}

TEST_F(FrameDuplication, FailsAtTheHeaderEvenForADirectoryWithoutSlots) {
  FileImage source;
  source.header().slotCount = 0;
  allowDamage(kSource);
  putSource(source);
  EXPECT_EQ(duplicate(), 0);
  closeWhatIsOpen();
}

TEST_F(FrameDuplication, FailsAtTheFirstSlotWithoutMemoryForTheHeader) {
  putSource(FileImage());
  RecordedCalls host;
  int failures = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::allocate, step);
    EXPECT_EQ(duplicate(), 0);
    host.heal();
    closeWhatIsOpen();
    if (!host.failed()) break;
    EXPECT_TRUE(!targetExists() || fileSize(kTarget) == 0);
    ++failures;
  }
  EXPECT_GT(failures, 0);
}

TEST_F(FrameDuplication, LeavesTheHeaderOutOnPurposeWithoutMemoryForIt) {
  // Then only the slots are left to fail, and a directory without slots has none.
  FileImage source;
  source.header().slotCount = 0;
  allowDamage(kSource);
  putSource(source);
  RecordedCalls host;
  int successes = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::allocate, step);
    const int result = duplicate();
    host.heal();
    closeWhatIsOpen();
    if (!host.failed()) break;
    successes += result;
  }
  EXPECT_EQ(successes, 1);
}

TEST_F(FrameDuplication, RefusesNullPathsWithStatus100) {
  putSource(FileImage());
  EXPECT_EQ(DupFrameForRzbd3W(nullptr, wide(kTarget), &status), 0);
  EXPECT_EQ(status, 100);
  status = 0;
  EXPECT_EQ(DupFrameForRzbd3W(wide(kSource), nullptr, &status), 0);
  EXPECT_EQ(status, 100);
  EXPECT_FALSE(targetExists());
}

TEST_F(FrameDuplication, RefusesASourceThatIsNotThereOrNoDatabaseWithStatus100AndNoFile) {
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 100);
  for (const int version : {99, 200}) {
    FileImage source;
    source.header().version = static_cast<uint16_t>(version);
    allowDamage(kSource);
    putSource(source);
    EXPECT_EQ(duplicate(), 0);
    EXPECT_EQ(status, 100);
  }
  putSource(bytesOf("no database"));
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 100);
  EXPECT_FALSE(targetExists());
  // The fixture sees that nothing stayed open.
}

TEST_F(FrameDuplication, HasStatus100AndClosesTheSourceWhenTheTargetCannotBeMade) {
  putSource(FileImage());
  std::filesystem::create_directory(path(kTarget));
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 100);
}

TEST_F(FrameDuplication, SharesTheSourceWithAWriter) {
  putSource(FileImage());
  ASSERT_EQ(OpenDBaseW(wide(kSource), 3), 1);
  EXPECT_EQ(duplicate(), 0);
  EXPECT_EQ(status, 0);  // it came as far as ever
  EXPECT_EQ(closeWhatIsOpen(), (std::vector<int16_t>{1, 2}));
}

TEST_F(FrameDuplication, RefusesItsSourceAsTarget) {
  const FileImage source;
  putSource(source);
  EXPECT_EQ(DupFrameForRzbd3W(wide(kSource), wide(kSource), &status), 0);
  EXPECT_EQ(status, 100);
  EXPECT_TRUE(sameBytes(contents(kSource), source.build()));
}

}  // namespace
}  // namespace qvdbase::test
