// Walking a directory path from the root, with and without creating what is missing.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/layers.h"
#include "kit/temp_folder.h"
#include "platform/paths/fs_ref.h"
#include "support/files/fake_root.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

FSRef unwritten() {
  FSRef ref;
  std::memset(&ref, 0x5A, sizeof ref);
  return ref;
}

bool isUnwritten(const FSRef& ref) {
  const FSRef expected = unwritten();
  return std::memcmp(&ref, &expected, sizeof ref) == 0;
}

testing::AssertionResult identifies(const FSRef& ref, const fs::path& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return testing::AssertionFailure() << "no " << path;
  FSRef expected = {};
  expected.device = status.st_dev;
  expected.inode = status.st_ino;
  if (std::memcmp(&ref, &expected, sizeof ref) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "another place than " << path;
}

// Walks to `path` as seen from a root in the folder.
int walkIn(const TempFolder& folder, std::u16string_view path, FSRef* ref) {
  FakeRoot root(folder.path());
  return QVFile().QVGetParentDirectoryFSRef(WideText(path), ref);
}

int createIn(const TempFolder& folder, std::u16string_view path, FSRef* ref) {
  FakeRoot root(folder.path());
  return QVFile().QVCreateAllDirectory(WideText(path), ref);
}

TEST(RootReference, IdentifiesTheRoot) {
  FSRef ref = unwritten();
  ASSERT_EQ(QVFile().GetRootFSRef(&ref), 1);
  EXPECT_TRUE(identifies(ref, "/"));
}

TEST(RootReference, FailsForANullPointer) {
  EXPECT_EQ(QVFile().GetRootFSRef(nullptr), 0);
}

TEST(RootReference, IsNotWrittenWhenTheHostRefuses) {
  FakeHost host;
  FSRef ref = unwritten();
  host.failFrom(FakeHost::Call::open);
  EXPECT_EQ(QVFile().GetRootFSRef(&ref), 0);
  host.heal();
  host.failFrom(FakeHost::Call::status);
  EXPECT_EQ(QVFile().GetRootFSRef(&ref), 0);
  EXPECT_TRUE(isUnwritten(ref));
}

TEST(Walk, ReachesADirectoryByItsFullPath) {
  TempFolder folder;
  fs::create_directories(folder / "a/b");
  FSRef ref = unwritten();
  ASSERT_EQ(QVFile().QVGetParentDirectoryFSRef(folder.wide("a/b"), &ref), 1);
  EXPECT_TRUE(identifies(ref, folder / "a/b"));
}

TEST(Walk, BeginsAtTheRootWithOrWithoutASeparatorInFront) {
  TempFolder folder;
  fs::create_directories(folder / "Users/x");
  for (const char16_t* path : {u"/Users/x", u"Users/x", u"\\Users\\x", u"Users\\x"}) {
    FSRef ref = unwritten();
    ASSERT_EQ(walkIn(folder, path, &ref), 1);
    EXPECT_TRUE(identifies(ref, folder / "Users/x"));
  }
}

TEST(Walk, TakesAnEmptyComponentAsTheDirectoryWhereItIs) {
  TempFolder folder;
  fs::create_directories(folder / "a/b");
  for (const char16_t* path : {u"/a/b/", u"/a//b", u"/a///b", u"//a/b", u"/a/b//", u"\\a\\\\b\\"}) {
    FSRef ref = unwritten();
    ASSERT_EQ(walkIn(folder, path, &ref), 1);
    EXPECT_TRUE(identifies(ref, folder / "a/b"));
  }
  for (const char16_t* path : {u"", u"/", u"//", u"\\"}) {
    FSRef ref = unwritten();
    ASSERT_EQ(walkIn(folder, path, &ref), 1);
    EXPECT_TRUE(identifies(ref, folder.path()));
  }
}

TEST(Walk, FollowsDotsAndSymbolicLinks) {
  TempFolder folder;
  fs::create_directories(folder / "a/b");
  fs::create_directory_symlink("a", folder / "link");
  for (const char16_t* path : {u"/a/./b", u"/a/b/../b", u"/a/../a/b", u"/link/b"}) {
    FSRef ref = unwritten();
    ASSERT_EQ(walkIn(folder, path, &ref), 1);
    EXPECT_TRUE(identifies(ref, folder / "a/b"));
  }
}

TEST(Walk, CleansTheNamesOfDirectories) {
  TempFolder folder;
  fs::create_directories(folder / "My Docs/x");
  for (const char16_t* path : {u"/My  Docs/x", u"/My\tDocs/x", u"/ My Docs /x", u"/\"My Docs\"/x",
                               u"/My \t\" Docs/ x", u"/My Docs/\"x\""}) {
    FSRef ref = unwritten();
    ASSERT_EQ(walkIn(folder, path, &ref), 1);
    EXPECT_TRUE(identifies(ref, folder / "My Docs/x"));
  }
}

TEST(Walk, CannotReachADirectoryWhoseNameDoesNotSurviveCleaning) {
  TempFolder folder;
  for (const char* name : {"My  Docs", "tab\there", "\"quoted\"", " a"}) {
    fs::create_directory(folder / name);
    FSRef ref = unwritten();
    EXPECT_EQ(walkIn(folder, u"/" + fs::path(name).u16string(), &ref), 0) << name;
    EXPECT_TRUE(isUnwritten(ref));
  }
}

TEST(Walk, ConvertsNamesToUtf8) {
  TempFolder folder;
  fs::create_directories(folder / "\xC3\xA4\xE2\x82\xAC\xF0\x9D\x84\x9E");  // ä, the euro, a clef
  FSRef ref = unwritten();
  ASSERT_EQ(walkIn(folder, u"/\u00E4\u20AC\U0001D11E", &ref), 1);
}

TEST(Walk, FailsForANameWithAnUnpairedSurrogate) {
  TempFolder folder;
  for (const char16_t unit : {u'\xD834', u'\xDD1E'}) {
    FSRef ref = unwritten();
    EXPECT_EQ(walkIn(folder, u"/a" + std::u16string(1, unit), &ref), 0);
    EXPECT_EQ(createIn(folder, u"/a" + std::u16string(1, unit), &ref), 0);
    EXPECT_TRUE(isUnwritten(ref));
  }
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(Walk, FailsForAMissingComponent) {
  TempFolder folder;
  fs::create_directories(folder / "a");
  FSRef ref = unwritten();
  EXPECT_EQ(walkIn(folder, u"/a/b", &ref), 0);
  EXPECT_EQ(walkIn(folder, u"/b/a", &ref), 0);
  EXPECT_TRUE(isUnwritten(ref));
  EXPECT_FALSE(fs::exists(folder / "a/b"));
}

TEST(Walk, MayEndOnAFileButNotPassIt) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("x"));
  FSRef ref = unwritten();
  ASSERT_EQ(walkIn(folder, u"/f", &ref), 1);
  EXPECT_TRUE(identifies(ref, folder / "f"));
  ASSERT_EQ(createIn(folder, u"/f", &ref), 1);
  EXPECT_TRUE(identifies(ref, folder / "f"));
  ref = unwritten();
  for (const char16_t* path : {u"/f/", u"/f/.", u"/f/..", u"/f/g", u"/f/g/h"}) {
    EXPECT_EQ(walkIn(folder, path, &ref), 0);
    EXPECT_EQ(createIn(folder, path, &ref), 0);
  }
  EXPECT_TRUE(isUnwritten(ref));
}

TEST(Walk, NeedsNoPlaceForItsResult) {
  TempFolder folder;
  EXPECT_EQ(walkIn(folder, u"/", nullptr), 1);
  EXPECT_EQ(createIn(folder, u"/a", nullptr), 1);
  EXPECT_TRUE(fs::is_directory(folder / "a"));
}

TEST(Walk, FailsForANullPath) {
  FSRef ref = unwritten();
  EXPECT_EQ(QVFile().QVGetParentDirectoryFSRef(nullptr, &ref), 0);
  EXPECT_EQ(QVFile().QVCreateAllDirectory(nullptr, &ref), 0);
  EXPECT_TRUE(isUnwritten(ref));
}

TEST(Walk, DoesNotWriteItsResultWhenIdentifyingFails) {
  TempFolder folder;
  FakeHost host;
  FSRef ref = unwritten();
  host.failFrom(FakeHost::Call::status);
  EXPECT_EQ(QVFile().QVGetParentDirectoryFSRef(folder.wide(""), &ref), 0);
  EXPECT_TRUE(isUnwritten(ref));
}

TEST(Walk, WithoutMemoryForCleaningNeverTakesARawComponentForAPathFromTheRoot) {
  TempFolder folder;
  FakeHost host;
  host.failFrom(FakeHost::Call::allocate);
  EXPECT_EQ(QVFile().QVGetParentDirectoryFSRef(u"/usr/dev"_w, nullptr), 0);
  EXPECT_TRUE(host.failed());
}

TEST(CreateDirectories, MakesEachThatIsMissing) {
  TempFolder folder;
  fs::create_directories(folder / "a");
  FSRef ref = unwritten();
  ASSERT_EQ(createIn(folder, u"a/b\\c//d/", &ref), 1);
  EXPECT_TRUE(identifies(ref, folder / "a/b/c/d"));
}

TEST(CreateDirectories, CleansTheNamesItGives) {
  TempFolder folder;
  ASSERT_EQ(createIn(folder, u"/ My\t\tDocs /\"x\"", nullptr), 1);
  EXPECT_TRUE(fs::is_directory(folder / "My Docs/x"));
}

TEST(CreateDirectories, LeavesThoseItMadeWhenALaterOneFails) {
  TempFolder folder;
  const std::u16string tooLongForTheHost(300, u'n');
  FSRef ref = unwritten();
  EXPECT_EQ(createIn(folder, u"/a/b/" + tooLongForTheHost + u"/c", &ref), 0);
  EXPECT_TRUE(fs::is_directory(folder / "a/b"));
  EXPECT_TRUE(fs::is_empty(folder / "a/b"));
  EXPECT_TRUE(isUnwritten(ref));
}

TEST(CreateDirectories, PassesWhereCreatingIsRefusedAndTheDirectoryIsThere) {
  TempFolder folder;
  fs::create_directories(folder / "a");
  FakeHost host;
  host.failFrom(FakeHost::Call::makeDirectory);
  EXPECT_EQ(QVFile().QVCreateAllDirectory(folder.wide("a"), nullptr), 1);
  EXPECT_EQ(QVFile().QVCreateAllDirectory(folder.wide("a/b"), nullptr), 0);
  EXPECT_FALSE(fs::exists(folder / "a/b"));
}

TEST(CreateDirectories, FailsAtASymbolicLinkWithoutTarget) {
  TempFolder folder;
  fs::create_directory_symlink("missing", folder / "link");
  EXPECT_EQ(createIn(folder, u"/link/a", nullptr), 0);
  EXPECT_EQ(createIn(folder, u"/link", nullptr), 0);
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

// A path of exactly `length` characters in components of at most 200.
std::u16string pathOfLength(size_t length) {
  std::u16string path;
  while (path.size() < length) {
    const size_t left = length - path.size();
    const size_t name = left <= 201 ? left - 1 : (left == 202 ? 100 : 200);
    path += u'/';
    path.append(name, u'n');
  }
  return path;
}

TEST(LongPaths, Of2047CharactersAreWalkedAndCreated) {
  TempFolder folder;
  const std::u16string path = pathOfLength(2047);
  ASSERT_EQ(path.size(), 2047u);
  EXPECT_EQ(createIn(folder, path, nullptr), 1);
  EXPECT_EQ(walkIn(folder, path, nullptr), 1);
}

TEST(LongPaths, Of2048CharactersFailBeforeAnythingIsCreated) {
  TempFolder folder;
  EXPECT_EQ(createIn(folder, pathOfLength(2048), nullptr), 0);
  EXPECT_TRUE(fs::is_empty(folder.path()));
  EXPECT_EQ(walkIn(folder, std::u16string(2048, u'/'), nullptr), 0);
  EXPECT_EQ(walkIn(folder, std::u16string(2047, u'/'), nullptr), 1);
}

TEST(LongPaths, MayPassTheHostsLimitOnOnePathString) {
  TempFolder folder;
  std::u16string path;
  for (int i = 0; i < 20; ++i) path += u"/" + std::u16string(80, u'\u20AC');  // 3 bytes each
  path += u"/f";                                                              // 4,822 bytes
  FakeRoot root(folder.path());
  int16_t number = 0;
  ASSERT_EQ(QVFile().QVCreateAndOpenFile(WideText(path), 3, &number, 0), 1);
  EXPECT_EQ(QVFile().QVWriteFile(number, "x", 1, nullptr), 1);
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  EXPECT_EQ(QVFile().QVDeleteFile(WideText(path)), 1);
}

}  // namespace
}  // namespace qvdbase::test
