// Replacing, and cleaning the names of directories.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include "kit/layers.h"
#include "kit/recorded_calls.h"
#include "kit/wide.h"
#include "support/strings/guarded_text.h"

using namespace qvdbase::test;

namespace {

// The result and the text, which gets exactly the capacity that the longer of both needs.
struct Replaced {
  int result;
  std::u16string text;
  bool operator==(const Replaced&) const = default;
};

void PrintTo(const Replaced& replaced, std::ostream* out) {
  *out << replaced.result << " \"" << narrow(replaced.text) << '"';
}

Replaced replace(std::u16string_view subject, const char16_t* from, const char16_t* to,
                 size_t spare = 0) {
  GuardedText buffer(subject, spare);
  const int result = QVWString().Replace(buffer, WideText(from), WideText(to));
  return {result, text(buffer)};
}

std::u16string trimmed(std::u16string_view name) {
  GuardedText buffer(name);
  QVWString().TrimPlus(buffer);
  return text(buffer);
}

TEST(Replace, ReplacesEveryOccurrence) {
  EXPECT_EQ(replace(u"\\a\\b\\", u"\\", u"/"), (Replaced{1, u"/a/b/"}));
  EXPECT_EQ(replace(u"abc", u"b", u""), (Replaced{1, u"ac"}));
  EXPECT_EQ(replace(u"abc", u"b", u"b"), (Replaced{1, u"abc"}));
  EXPECT_EQ(replace(u"a.b", u".", u"123", 2), (Replaced{1, u"a123b"}));
}

TEST(Replace, LeavesATextWithoutTheSearchedOneAlone) {
  EXPECT_EQ(replace(u"abc", u"/", u"\\"), (Replaced{0, u"abc"}));
  EXPECT_EQ(replace(u"abc", u"abcd", u"x"), (Replaced{0, u"abc"}));
  EXPECT_EQ(replace(u"abc", u"cd", u"x"), (Replaced{0, u"abc"}));
  EXPECT_EQ(replace(u"", u"a", u"x"), (Replaced{0, u""}));
}

TEST(Replace, MovesOnByOneCharacterAfterAMatch) {
  EXPECT_EQ(replace(u"abc", u"ab", u"X"), (Replaced{1, u"Xbc"}));
  EXPECT_EQ(replace(u"aaa", u"aa", u"b"), (Replaced{1, u"bba"}));
  EXPECT_EQ(replace(u"abab", u"ab", u"--", 2), (Replaced{1, u"--b--b"}));
  EXPECT_EQ(replace(u"abc", u"abc", u""), (Replaced{1, u"bc"}));
  EXPECT_EQ(replace(u"abc", u"abc", u"abc", 2), (Replaced{1, u"abcbc"}));
}

TEST(Replace, DoesNotSearchWhatItHasInserted) {
  EXPECT_EQ(replace(u"a", u"a", u"aa", 1), (Replaced{1, u"aa"}));
}

TEST(Replace, MatchesAnEmptyTextEverywhere) {
  EXPECT_EQ(replace(u"abc", u"", u"xy", 3), (Replaced{1, u"xyxyxy"}));
  EXPECT_EQ(replace(u"abc", u"", u""), (Replaced{1, u""}));
  EXPECT_EQ(replace(u"", u"", u"x"), (Replaced{0, u""}));
}

TEST(Replace, NeedsAllTexts) {
  GuardedText buffer(u"abc");
  EXPECT_EQ(QVWString().Replace(nullptr, u"a"_w, u"b"_w), 0);
  EXPECT_EQ(QVWString().Replace(buffer, nullptr, u"b"_w), 0);
  EXPECT_EQ(QVWString().Replace(buffer, u"a"_w, nullptr), 0);
  EXPECT_EQ(text(buffer), u"abc");
}

TEST(Replace, BuildsResultsOfAnyLength) {
  for (const size_t length : {2047u, 2048u, 2049u, 2050u, 2051u, 5000u}) {
    EXPECT_EQ(replace(std::u16string(length, u'a'), u"a", u"bc", length),
              (Replaced{1, [length] {
                          std::u16string expected;
                          for (size_t i = 0; i < length; ++i) expected += u"bc";
                          return expected;
                        }()}));
  }
}

TEST(Replace, LeavesTheTextAloneWhenThereIsNoMemoryForALongResult) {
  const std::u16string before(3000, u'a');
  RecordedCalls host;
  host.failFrom(Call::allocate, 0, ENOMEM);
  const Replaced after = replace(before, u"a", u"bc", 3000);
  host.heal();
  EXPECT_EQ(after, (Replaced{0, before}));
  EXPECT_EQ(host.heldBlocks(), 0u);
}

TEST(Replace, GivesTheMemoryOfALongResultBack) {
  RecordedCalls host;
  replace(std::u16string(3000, u'a'), u"a", u"bc", 3000);
  EXPECT_EQ(host.count(Call::allocate), 1);
  EXPECT_EQ(host.heldBlocks(), 0u);
}

TEST(TrimPlus, DropsABlankOrASeparatorAtEitherEnd) {
  EXPECT_EQ(trimmed(u"/My Documents"), u"My Documents");
  EXPECT_EQ(trimmed(u" a "), u"a");
  EXPECT_EQ(trimmed(u"a/"), u"a");
  EXPECT_EQ(trimmed(u"\\a"), u"a");
  EXPECT_EQ(trimmed(u"\"x\""), u"x");
  EXPECT_EQ(trimmed(u"\t \"/\\name\\/\" \t"), u"name");
}

TEST(TrimPlus, MakesOneSpaceOfARun) {
  EXPECT_EQ(trimmed(u"My  Documents"), u"My Documents");
  EXPECT_EQ(trimmed(u"My\tDocs"), u"My Docs");
  EXPECT_EQ(trimmed(u"a \t\"/\\b"), u"a b");
  EXPECT_EQ(trimmed(u"a\"b\"c"), u"a b c");
}

TEST(TrimPlus, LeavesCleanNamesAndOtherBlanksAlone) {
  EXPECT_EQ(trimmed(u"name"), u"name");
  EXPECT_EQ(trimmed(u"x"), u"x");
  EXPECT_EQ(trimmed(u"'a'\n"), u"'a'\n");
  EXPECT_EQ(trimmed(u"\u00a0a\u3000"), u"\u00a0a\u3000");
  EXPECT_EQ(trimmed(u"\u0120a\u2f20"), u"\u0120a\u2f20");  // their low byte is a space's
}

TEST(TrimPlus, EmptiesANameOfNothingElse) {
  EXPECT_EQ(trimmed(u"/"), u"");
  EXPECT_EQ(trimmed(u"  "), u"");
  EXPECT_EQ(trimmed(u"\\/\t\" "), u"");
}

TEST(TrimPlus, KeepsASingleCharacter) {
  EXPECT_EQ(trimmed(u"/a"), u"a");
  EXPECT_EQ(trimmed(u"a "), u"a");
  EXPECT_EQ(trimmed(u"//a//"), u"a");
}

TEST(TrimPlus, IgnoresNullAndAnEmptyName) {
  QVWString().TrimPlus(nullptr);
  EXPECT_EQ(trimmed(u""), u"");
}

TEST(TrimPlus, LeavesTheNameAloneWithoutMemory) {
  RecordedCalls host;
  host.failFrom(Call::allocate, 0, ENOMEM);
  const std::u16string after = trimmed(u"/a  b/");
  host.heal();
  EXPECT_EQ(after, u"/a  b/");
}

TEST(TrimPlus, GivesItsMemoryBack) {
  RecordedCalls host;
  trimmed(u"/a  b/");
  EXPECT_EQ(host.heldBlocks(), 0u);
}

}  // namespace
