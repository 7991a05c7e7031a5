// Searching in 16-bit strings.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include "kit/wide.h"

using namespace qvdbase::test;

namespace {

TEST(FindCharacter, GivesTheFirstOne) {
  const WideText text = u"abcabc";
  EXPECT_EQ(QVWString().wcschr(text, 'b'), text.data() + 1);
  EXPECT_EQ(QVWString().wcschr(text, 'x'), nullptr);
  EXPECT_EQ(QVWString().wcschr(u""_w, 'x'), nullptr);
}

TEST(FindLastCharacter, GivesTheLastOne) {
  const WideText text = u"abcabc";
  EXPECT_EQ(QVWString().wcsrchr(text, 'b'), text.data() + 4);
  EXPECT_EQ(QVWString().wcsrchr(text, 'x'), nullptr);
  EXPECT_EQ(QVWString().wcsrchr(u""_w, 'x'), nullptr);
}

TEST(FindCharacter, FindsTheTerminator) {
  const WideText text = u"abc";
  EXPECT_EQ(QVWString().wcschr(text, 0), text.data() + 3);
  EXPECT_EQ(QVWString().wcsrchr(text, 0), text.data() + 3);
}

TEST(FindCharacter, TakesTheCharacterAsSixteenBits) {
  const WideText text = u"ab\x8001";
  EXPECT_EQ(QVWString().wcschr(text, 0x10000 + 'b'), text.data() + 1);
  EXPECT_EQ(QVWString().wcsrchr(text, 0x10000 + 'b'), text.data() + 1);
  EXPECT_EQ(QVWString().wcschr(text, -0x7fff), text.data() + 2);
  EXPECT_EQ(QVWString().wcschr(text, 0x10000), text.data() + 3);
  EXPECT_EQ(QVWString().wcsrchr(text, 0x10000), text.data() + 3);
}

TEST(FindPart, GivesTheFirstOccurrence) {
  const WideText text = u"aabab";
  EXPECT_EQ(QVWString().wcsstr(text, u"ab"_w), text.data() + 1);
  EXPECT_EQ(QVWString().wcsstr(text, u"bab"_w), text.data() + 2);
  EXPECT_EQ(QVWString().wcsstr(text, u"aabab"_w), text.data());
  EXPECT_EQ(QVWString().wcsstr(text, u"abb"_w), nullptr);
  EXPECT_EQ(QVWString().wcsstr(text, u"ababa"_w), nullptr);
  EXPECT_EQ(QVWString().wcsstr(u""_w, u"a"_w), nullptr);
}

TEST(FindPart, FindsAnEmptyPartAtTheStart) {
  const WideText text = u"abc";
  const WideText empty;
  EXPECT_EQ(QVWString().wcsstr(text, u""_w), text.data());
  EXPECT_EQ(QVWString().wcsstr(empty, u""_w), empty.data());
}

TEST(LeadingRun, CountsCharactersOfTheSet) {
  EXPECT_EQ(QVWString().wcsspn(u"abcxab"_w, u"cba"_w), 3u);
  EXPECT_EQ(QVWString().wcsspn(u"abc"_w, u"abc"_w), 3u);
  EXPECT_EQ(QVWString().wcsspn(u"xabc"_w, u"abc"_w), 0u);
  EXPECT_EQ(QVWString().wcsspn(u""_w, u"abc"_w), 0u);
  EXPECT_EQ(QVWString().wcsspn(u"abc"_w, u""_w), 0u);
}

TEST(LeadingRun, CountsCharactersOutsideTheSet) {
  EXPECT_EQ(QVWString().wcscspn(u"xyzab"_w, u"ba"_w), 3u);
  EXPECT_EQ(QVWString().wcscspn(u"abc"_w, u""_w), 3u);
  EXPECT_EQ(QVWString().wcscspn(u"abc"_w, u"xyz"_w), 3u);
  EXPECT_EQ(QVWString().wcscspn(u"abc"_w, u"a"_w), 0u);
  EXPECT_EQ(QVWString().wcscspn(u""_w, u"a"_w), 0u);
}

TEST(FindAnyOf, GivesTheFirstMemberOfTheSet) {
  const WideText text = u"xyzab";
  EXPECT_EQ(QVWString().wcspbrk(text, u"ba"_w), text.data() + 3);
  EXPECT_EQ(QVWString().wcspbrk(text, u"q"_w), nullptr);
  EXPECT_EQ(QVWString().wcspbrk(text, u""_w), nullptr);
  EXPECT_EQ(QVWString().wcspbrk(u""_w, u"a"_w), nullptr);
}

// Every code has its own place: 8 and its multiples apart must not be taken for each other.
TEST(CharacterSet, DistinguishesAllLowCodes) {
  for (char16_t c = 1; c < 256; ++c) {
    const WideText set = std::u16string_view(&c, 1);
    for (char16_t other = 1; other < 256; ++other) {
      const WideText text = std::u16string_view(&other, 1);
      const bool same = c == other;
      ASSERT_EQ(QVWString().wcsspn(text, set), same ? 1u : 0u) << int{c} << " " << int{other};
      ASSERT_EQ(QVWString().wcscspn(text, set), same ? 0u : 1u) << int{c} << " " << int{other};
      ASSERT_EQ(QVWString().wcspbrk(text, set) != nullptr, same) << int{c} << " " << int{other};
    }
  }
}

TEST(CharacterSet, TakesHighCodesAsOrdinaryMembers) {
  const WideText text = u"\u4e2d\u00ffa";
  EXPECT_EQ(QVWString().wcsspn(text, u"\u4e2d"_w), 1u);
  EXPECT_EQ(QVWString().wcsspn(text, u"a\u4e2d\u00ff"_w), 3u);
  EXPECT_EQ(QVWString().wcsspn(text, u"\u4e2e\u002d"_w), 0u);
  EXPECT_EQ(QVWString().wcscspn(text, u"\u4e2d"_w), 0u);
  EXPECT_EQ(QVWString().wcscspn(text, u"\u4e61"_w), 3u);  // not the 'a' that shares its low byte
  EXPECT_EQ(QVWString().wcspbrk(text, u"\u01ff\u4e2d"_w), text.data());
  EXPECT_EQ(QVWString().wcspbrk(text, u"\u01ff"_w), nullptr);
}

TEST(Find, GivesTheIndexOfTheFirstOccurrenceFromTheStartOn) {
  EXPECT_EQ(QVWString().Find(u"a/b"_w, u"/"_w, 1), 1);
  EXPECT_EQ(QVWString().Find(u"a/b/c"_w, u"/"_w, 2), 3);
  EXPECT_EQ(QVWString().Find(u"a/b/c"_w, u"/"_w, 4), -1);
  EXPECT_EQ(QVWString().Find(u"aab"_w, u"ab"_w, 0), 1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"abc"_w, 0), 0);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"x"_w, 0), -1);
}

TEST(Find, FindsAnEmptyPatternAtTheStart) {
  EXPECT_EQ(QVWString().Find(u"abc"_w, u""_w, 1), 1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u""_w, 2), 2);
}

TEST(Find, FindsNothingAtOrAfterTheEnd) {
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"c"_w, 3), -1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u""_w, 3), -1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u""_w, 100), -1);
  EXPECT_EQ(QVWString().Find(u""_w, u""_w, 0), -1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"a"_w, INT32_MAX), -1);
}

TEST(Find, FindsNothingLongerThanTheRest) {
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"bcd"_w, 1), -1);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"abcd"_w, 0), -1);
  EXPECT_EQ(QVWString().Find(u"abab"_w, u"ab"_w, 3), -1);
}

TEST(Find, NeedsBothTexts) {
  EXPECT_EQ(QVWString().Find(nullptr, u"a"_w, 0), -1);
  EXPECT_EQ(QVWString().Find(u"a"_w, nullptr, 0), -1);
}

TEST(Find, TakesANegativeStartAsTheBeginning) {
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"a"_w, -5), 0);
  EXPECT_EQ(QVWString().Find(u"abc"_w, u"c"_w, INT32_MIN), 2);
}

}  // namespace
