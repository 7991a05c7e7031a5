// Creating files and deleting their contents.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/layers.h"
#include "kit/temp_folder.h"
#include "support/files/fake_root.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

bool isEmptyRegularFile(const fs::path& path) {
  return fs::is_regular_file(path) && fs::file_size(path) == 0;
}

TEST(CreateFile, MakesAnEmptyFile) {
  TempFolder folder;
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
}

TEST(CreateFile, MakesAllMissingDirectories) {
  TempFolder folder;
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("a/b/c/f"), 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "a/b/c/f"));
}

TEST(CreateFile, EmptiesAFileThatIsThere) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
}

TEST(CreateFile, SucceedsOverAFileThatIsEmptyAlready) {
  TempFolder folder;
  writeFile(folder / "f", {});
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
}

TEST(CreateFile, TakesAnyFlagBut1As0) {
  TempFolder folder;
  for (const int flag : {-1, 2, 257, 65537}) {
    writeFile(folder / "f", bytesOf("old bytes"));
    EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), flag), 1) << flag;
    EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
  }
}

TEST(CreateFileWithFlag1, FailsOverAFileThatIsThereAndLeavesItsBytes) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 1), 0);
  EXPECT_EQ(readFile(folder / "f").str(), "old bytes");
}

TEST(CreateFileWithFlag1, FailsAlsoForAFileThatItHasJustMade) {
  TempFolder folder;
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("a/f"), 1), 0);
  EXPECT_TRUE(isEmptyRegularFile(folder / "a/f"));
}

TEST(CreateFileWithFlag1, SucceedsForAnEmptyFileThatCannotBeOpened) {
  TempFolder folder;
  writeFile(folder / "f", {});
  ReplacedCalls calls;
  calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
    if ((flags & O_ACCMODE) == O_RDWR) return errno = EACCES, -1;
    return platform::hostSystemCalls().openAt(directory, name, flags, mode);
  };
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 1), 1);
}

TEST(CreateFile, LeavesTheBytesOfAFileThatItMayNotWrite) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  ReplacedCalls calls;
  calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
    if ((flags & O_ACCMODE) != O_RDONLY) return errno = EACCES, -1;
    return platform::hostSystemCalls().openAt(directory, name, flags, mode);
  };
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 0), 0);
  EXPECT_EQ(readFile(folder / "f").str(), "old bytes");
}

TEST(CreateFile, FailsWhenEmptyingFails) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  FakeHost host;
  host.failFrom(FakeHost::Call::truncate);
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f"), 0), 0);
  EXPECT_TRUE(host.failed());
  EXPECT_EQ(readFile(folder / "f").str(), "old bytes");
}

TEST(CreateFile, FailsOverADirectory) {
  TempFolder folder;
  fs::create_directories(folder / "d");
  for (const char* path : {"d", "d/", "d/.", "d/.."}) {
    EXPECT_EQ(QVFile().QVCreateFile(folder.wide(path), 0), 0) << path;
  }
}

TEST(CreateFile, FailsOverAFifoWithoutWaiting) {
  TempFolder folder;
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("fifo"), 0), 0);
  EXPECT_TRUE(fs::is_fifo(folder / "fifo"));
}

TEST(CreateFile, FailsInsideSomethingThatIsNoDirectory) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("f/g"), 0), 0);
  EXPECT_EQ(readFile(folder / "f").str(), "old bytes");
}

TEST(CreateFile, WritesThroughASymbolicLink) {
  TempFolder folder;
  writeFile(folder / "target", bytesOf("old bytes"));
  fs::create_symlink("target", folder / "link");
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("link"), 0), 1);
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_TRUE(isEmptyRegularFile(folder / "target"));
}

TEST(CreateFile, FailsThroughASymbolicLinkWithoutTarget) {
  TempFolder folder;
  fs::create_symlink("missing", folder / "link");
  EXPECT_EQ(QVFile().QVCreateFile(folder.wide("link"), 0), 0);
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST(CreateFile, TakesTheNameAsItIs) {
  TempFolder folder;
  const std::u16string name = u" My\t \"Docs\"  ";
  EXPECT_EQ(QVFile().QVCreateFile(WideText(folder.u16("") + name), 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / " My\t \"Docs\"  "));
}

TEST(CreateFile, FailsForANameThatIsNoText) {
  TempFolder folder;
  const WideText path(folder.u16("f") + std::u16string(1, u'\xD800'));
  EXPECT_EQ(QVFile().QVCreateFile(path, 0), 0);
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(CreateFile, FailsForANullPath) {
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVCreateFile(nullptr, 0), 0);
  EXPECT_EQ(QVFile().QVCreateAndOpenFile(nullptr, 3, &number, 0), 0);
  EXPECT_EQ(number, 77);
}

TEST(CreateFile, WithoutAnySeparatorMakesTheNameInADirectoryOfThatName) {
  TempFolder folder;
  FakeRoot root(folder.path());
  EXPECT_EQ(QVFile().QVCreateFile(u"db"_w, 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "db/db"));
}

TEST(CreateFile, InTheRootNeedsNoDirectoryPart) {
  TempFolder folder;
  FakeRoot root(folder.path());
  EXPECT_EQ(QVFile().QVCreateFile(u"/name"_w, 0), 1);
  EXPECT_EQ(QVFile().QVCreateFile(u"\\second"_w, 0), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "name"));
  EXPECT_TRUE(isEmptyRegularFile(folder / "second"));
}

TEST(CreateAndOpen, LeavesTheNewFileWhenOpeningFails) {
  TempFolder folder;
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVCreateAndOpenFile(folder.wide("f"), 5, &number, 0), 0);
  EXPECT_EQ(number, 77);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
}

TEST(CreateAndOpen, WithFlag1FailsAndOpensNothing) {
  TempFolder folder;
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVCreateAndOpenFile(folder.wide("f"), 3, &number, 1), 0);
  EXPECT_EQ(number, 77);
  EXPECT_EQ(QVFile().QVCloseFile(1), 0);
}

TEST(DeleteFile, LeavesAnEmptyFileOfThatName) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  EXPECT_EQ(QVFile().QVDeleteFile(folder.wide("f")), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
  EXPECT_EQ(QVFile().QVDeleteFile(folder.wide("f")), 1);
  EXPECT_TRUE(isEmptyRegularFile(folder / "f"));
}

TEST(DeleteFile, FailsForWhatIsNoFile) {
  TempFolder folder;
  fs::create_directories(folder / "d");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  for (const char* path : {"missing", "missing/f", "d", "d/", "fifo"}) {
    EXPECT_EQ(QVFile().QVDeleteFile(folder.wide(path)), 0) << path;
  }
  EXPECT_EQ(QVFile().QVDeleteFile(nullptr), 0);
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST(DeleteFile, FailsWhenTheHostRefuses) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("old bytes"));
  FakeHost host;
  for (const auto call : {FakeHost::Call::truncate, FakeHost::Call::lock}) {
    host.failFrom(call);
    EXPECT_EQ(QVFile().QVDeleteFile(folder.wide("f")), 0);
    EXPECT_TRUE(host.failed());
    host.heal();
  }
  EXPECT_EQ(readFile(folder / "f").str(), "old bytes");
}

TEST(LongFilePaths, Of2047CharactersWorkAndOf2048Fail) {
  TempFolder folder;
  std::u16string path = folder.u16("");
  while (path.size() < 2040) path += u"./";
  path += std::u16string(2047 - path.size(), u'f');
  const WideText longest(path);
  const WideText tooLong(path + u"f");
  int16_t number = 77;
  QVFile file;

  EXPECT_EQ(file.QVCreateAndOpenFile(tooLong, 3, &number, 0), 0);
  EXPECT_EQ(file.QVCreateFile(tooLong, 0), 0);
  EXPECT_EQ(number, 77);
  EXPECT_TRUE(fs::is_empty(folder.path()));

  ASSERT_EQ(file.QVCreateAndOpenFile(longest, 3, &number, 0), 1);
  EXPECT_EQ(file.QVCloseFile(number), 1);
  EXPECT_EQ(file.QVOpenFile(longest, 1, &number), 1);
  EXPECT_EQ(file.QVCloseFile(number), 1);
  EXPECT_EQ(file.QVDeleteFile(longest), 1);
  number = 77;
  EXPECT_EQ(file.QVOpenFile(tooLong, 1, &number), 0);
  EXPECT_EQ(file.QVDeleteFile(tooLong), 0);
  EXPECT_EQ(number, 77);
}

}  // namespace
}  // namespace qvdbase::test
