// Length, copying and comparison of 16-bit strings.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include "kit/layers.h"
#include "kit/wide.h"
#include "support/strings/guarded_text.h"

using namespace qvdbase::test;

namespace {

const WideText kAbc = u"abc";

TEST(TextLength, CountsTheCharactersBeforeTheTerminator) {
  EXPECT_EQ(QVWString().wcslen(u""_w), 0);
  EXPECT_EQ(QVWString().wcslen(u"abc"_w), 3);
  EXPECT_EQ(QVWString().wcslen(u"\u4e2d\xffff"_w), 2);
}

TEST(LimitedTextLength, IsAtMostTheLimit) {
  EXPECT_EQ(QVWString().wcsnlen(kAbc, 2), 2);
  EXPECT_EQ(QVWString().wcsnlen(kAbc, 3), 3);
  EXPECT_EQ(QVWString().wcsnlen(kAbc, 10), 3);
  EXPECT_EQ(QVWString().wcsnlen(kAbc, 0), 0);
  EXPECT_EQ(QVWString().wcsnlen(kAbc, 0xffffffffu), 3);
}

TEST(LimitedTextLength, NeedsNoTerminatorWithinTheLimit) {
  const std::vector<QVWCHAR> open = {'a', 'b'};
  EXPECT_EQ(QVWString().wcsnlen(open.data(), 2), 2);
}

TEST(CopyText, CopiesThroughTheTerminatorAndReturnsTheDestination) {
  GuardedText out(5);
  EXPECT_EQ(QVWString().wcscpy(out, kAbc), out.data());
  EXPECT_EQ(out.all(), u"abc" + kZero + kUntouched);
  QVWString().wcscpy(out, u""_w);
  EXPECT_EQ(out.all(), kZero + u"bc" + kZero + kUntouched);
}

TEST(CopyCountedText, FillsTheRestWithZeros) {
  GuardedText out(6);
  EXPECT_EQ(QVWString().wcsncpy(out, kAbc, 5), out.data());
  EXPECT_EQ(out.all(), u"abc" + kZero + kZero + kUntouched);
}

TEST(CopyCountedText, WritesNoTerminatorWhenTheSourceIsAsLongAsTheCount) {
  GuardedText out(4);
  QVWString().wcsncpy(out, kAbc, 3);
  EXPECT_EQ(out.all(), std::u16string(u"abc") + kUntouched);
  QVWString().wcsncpy(out, u"xyz"_w, 2);
  EXPECT_EQ(out.all(), std::u16string(u"xyc") + kUntouched);
}

TEST(CopyCountedText, WritesNothingForACountOfZero) {
  GuardedText out(1);
  EXPECT_EQ(QVWString().wcsncpy(out, kAbc, 0), out.data());
  EXPECT_EQ(out.all(), std::u16string(1, kUntouched));
}

TEST(CopyCountedText, LooksAtNoMoreThanTheCount) {
  const std::vector<QVWCHAR> open = {'a', 'b'};
  GuardedText out(2);
  QVWString().wcsncpy(out, open.data(), 2);
  EXPECT_EQ(out.all(), u"ab");
}

TEST(AppendText, BeginsAtTheTerminatorAndReturnsTheDestination) {
  GuardedText out(u"ab", 3);
  EXPECT_EQ(QVWString().wcscat(out, kAbc), out.data());
  EXPECT_EQ(out.all(), u"ababc" + kZero);
  GuardedText empty(1);
  empty.data()[0] = 0;
  QVWString().wcscat(empty, u""_w);
  EXPECT_EQ(empty.all(), kZero);
}

TEST(SetText, SetsEveryCharacterBeforeTheTerminator) {
  GuardedText out(u"abc", 1);
  EXPECT_EQ(QVWString().wcsset(out, 'x'), out.data());
  EXPECT_EQ(out.all(), u"xxx" + kZero + kUntouched);
  QVWString().wcsset(out, 0x1abcd);
  EXPECT_EQ(out.all(), u"\xabcd\xabcd\xabcd" + kZero + kUntouched);
}

TEST(SetText, StopsAtTheOldTerminatorWhenItSetsZeros) {
  GuardedText out(u"abc");
  QVWString().wcsset(out, 0x10000);
  EXPECT_EQ(out.all(), kZero + kZero + kZero + kZero);
}

TEST(CompareText, GivesTheSignOnly) {
  EXPECT_EQ(QVWString().wcscmp(u"b"_w, u"a"_w), 1);
  EXPECT_EQ(QVWString().wcscmp(u"a"_w, u"c"_w), -1);
  EXPECT_EQ(QVWString().wcscmp(u"z"_w, u"a"_w), 1);
  EXPECT_EQ(QVWString().wcscmp(kAbc, u"abc"_w), 0);
  EXPECT_EQ(QVWString().wcscmp(u""_w, u""_w), 0);
}

TEST(CompareText, TakesTheShorterTextAsTheSmaller) {
  EXPECT_EQ(QVWString().wcscmp(u"ab"_w, kAbc), -1);
  EXPECT_EQ(QVWString().wcscmp(kAbc, u"ab"_w), 1);
}

TEST(CompareText, TakesCharactersAsUnsigned) {
  EXPECT_EQ(QVWString().wcscmp(u"\xffff"_w, u"a"_w), 1);
  EXPECT_EQ(QVWString().wcsncmp(u"\xffff"_w, u"\x0001"_w, 1), 0xfffe);
  EXPECT_EQ(QVWString().wcsicmp(u"\x8000"_w, u""_w), 0x8000);
  EXPECT_EQ(QVWString().wcsnicmp(u"a"_w, u"\xffff"_w, 1), 'a' - 0xffff);
}

TEST(CompareCountedText, GivesTheDifference) {
  EXPECT_EQ(QVWString().wcsncmp(u"a"_w, u"c"_w, 1), -2);
  EXPECT_EQ(QVWString().wcsncmp(u"xe"_w, u"xa"_w, 5), 4);
  EXPECT_EQ(QVWString().wcsncmp(kAbc, u"abc"_w, 10), 0);
  EXPECT_EQ(QVWString().wcsncmp(u"ab"_w, kAbc, 3), -'c');
  EXPECT_EQ(QVWString().wcsncmp(kAbc, u"ab"_w, 3), 'c');
}

TEST(CompareCountedText, LooksAtNoMoreThanTheCount) {
  EXPECT_EQ(QVWString().wcsncmp(u"abX"_w, u"abY"_w, 2), 0);
  EXPECT_EQ(QVWString().wcsncmp(u"abX"_w, u"abY"_w, 3), -1);
  const std::vector<QVWCHAR> open = {'a', 'b'};
  EXPECT_EQ(QVWString().wcsncmp(open.data(), open.data(), 2), 0);
}

TEST(CompareCountedText, FindsAnyTwoTextsAlikeForACountOfZero) {
  EXPECT_EQ(QVWString().wcsncmp(u"a"_w, u"z"_w, 0), 0);
  EXPECT_EQ(QVWString().wcsncmp(u""_w, u"z"_w, 0), 0);
}

TEST(CompareFolded, TakesTheTwentySixLettersAsSmall) {
  EXPECT_EQ(QVWString().wcsicmp(u"ABC"_w, u"abc"_w), 0);
  EXPECT_EQ(QVWString().wcsicmp(u"ABCDEFGHIJKLMNOPQRSTUVWXYZ"_w, u"abcdefghijklmnopqrstuvwxyz"_w),
            0);
  EXPECT_EQ(QVWString().wcsicmp(u"A"_w, u"C"_w), -2);
}

TEST(CompareFolded, GivesTheDifferenceOfTheFoldedCharacters) {
  EXPECT_EQ(QVWString().wcsicmp(u"A"_w, u"_"_w), 'a' - '_');
  EXPECT_EQ(QVWString().wcsicmp(u"aB"_w, u"A"_w), 'b');
  EXPECT_EQ(QVWString().wcsicmp(u"a"_w, u"AB"_w), -'b');
}

TEST(CompareFolded, FoldsNothingButLetters) {
  EXPECT_EQ(QVWString().wcsicmp(u"["_w, u"{"_w), '[' - '{');
  EXPECT_EQ(QVWString().wcsicmp(u"@"_w, u"`"_w), '@' - '`');
  EXPECT_EQ(QVWString().wcsicmp(u"\u00c4"_w, u"\u00e4"_w), 0xc4 - 0xe4);
  EXPECT_EQ(QVWString().wcsicmp(u"\u0410"_w, u"\u0430"_w), 0x410 - 0x430);
}

TEST(CompareCountedFolded, StopsAfterTheCount) {
  EXPECT_EQ(QVWString().wcsnicmp(u"abcX"_w, u"ABCY"_w, 3), 0);
  EXPECT_EQ(QVWString().wcsnicmp(u"abcX"_w, u"ABCY"_w, 4), -1);
  EXPECT_EQ(QVWString().wcsnicmp(u"ab"_w, u"AB"_w, 100), 0);
  EXPECT_EQ(QVWString().wcsnicmp(u"a"_w, u"AB"_w, 2), -'b');
  const std::vector<QVWCHAR> open = {'a', 'B'};
  EXPECT_EQ(QVWString().wcsnicmp(open.data(), open.data(), 2), 0);
}

TEST(CompareCountedFolded, HasNoLimitForACountOfZero) {
  EXPECT_EQ(QVWString().wcsnicmp(u"abcX"_w, u"ABCY"_w, 0), -1);
  EXPECT_EQ(QVWString().wcsnicmp(u"abc"_w, u"ABC"_w, 0), 0);
}

}  // namespace
