// Splitting a path in place: the directory part, and the name.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <string>
#include <string_view>

#include "kit/wide.h"

namespace qvdbase::test {
namespace {

std::u16string directoryPart(std::u16string_view whole) {
  WideText path(whole);
  EXPECT_EQ(QVFile().GetFullPathNamePathW(path), 1);
  return path.str();
}

std::u16string namePart(std::u16string_view whole) {
  WideText path(whole);
  EXPECT_EQ(QVFile().GetFullPathNameNameW(path), 1);
  return path.str();
}

TEST(DirectoryPart, EndsBeforeTheLastSeparator) {
  EXPECT_EQ(directoryPart(u"/Users/x/db.dat"), u"/Users/x");
  EXPECT_EQ(directoryPart(u"\\Users\\x\\db.dat"), u"\\Users\\x");
  EXPECT_EQ(directoryPart(u"a\\b/c"), u"a\\b");
  EXPECT_EQ(directoryPart(u"a/b\\c"), u"a/b");
}

TEST(DirectoryPart, OfAFileInTheRootIsEmpty) {
  EXPECT_EQ(directoryPart(u"/name"), u"");
}

TEST(DirectoryPart, OfATrailingSeparatorLosesOnlyThat) {
  EXPECT_EQ(directoryPart(u"/a/b/"), u"/a/b");
  EXPECT_EQ(directoryPart(u"/a//"), u"/a/");
}

TEST(DirectoryPart, WithoutSeparatorIsTheWholePath) {
  EXPECT_EQ(directoryPart(u"name"), u"name");
  EXPECT_EQ(directoryPart(u""), u"");
}

TEST(DirectoryPart, OfANullPathFails) {
  EXPECT_EQ(QVFile().GetFullPathNamePathW(nullptr), 0);
}

TEST(NamePart, BeginsAfterTheLastSeparator) {
  EXPECT_EQ(namePart(u"/Users/x/db.dat"), u"db.dat");
  EXPECT_EQ(namePart(u"\\Users\\x\\db.dat"), u"db.dat");
  EXPECT_EQ(namePart(u"a\\b/c"), u"c");
  EXPECT_EQ(namePart(u"a/b\\c"), u"c");
  EXPECT_EQ(namePart(u"/name"), u"name");
}

TEST(NamePart, OfATrailingSeparatorIsEmpty) {
  EXPECT_EQ(namePart(u"/a/"), u"");
}

TEST(NamePart, IsNotCleaned) {
  EXPECT_EQ(namePart(u"/a/ My  \"Docs\" "), u" My  \"Docs\" ");
}

TEST(NamePart, WithoutSeparatorFailsAndLeavesThePath) {
  WideText path = u"name";
  EXPECT_EQ(QVFile().GetFullPathNameNameW(path), 0);
  EXPECT_EQ(path.str(), u"name");
}

TEST(NamePart, OfANullPathFails) {
  EXPECT_EQ(QVFile().GetFullPathNameNameW(nullptr), 0);
}

TEST(NamePart, MayBeAsLongAsAPathWithItsSeparator) {
  const std::u16string name(2046, u'n');
  EXPECT_EQ(namePart(u"/" + name), name);
}

TEST(PathParts, OfAPathThatIsTooLongFailAndLeaveIt) {
  const std::u16string path = u"/" + std::u16string(2047, u'n');
  WideText text(path);
  EXPECT_EQ(QVFile().GetFullPathNamePathW(text), 0);
  EXPECT_EQ(QVFile().GetFullPathNameNameW(text), 0);
  EXPECT_EQ(text.str(), path);
}

}  // namespace
}  // namespace qvdbase::test
