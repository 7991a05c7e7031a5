// Patterns of names: what they match, and that none of them takes long.
#include "tools/qvdb/selection/pattern.h"

#include <gtest/gtest.h>

#include "tools/qvdb/selection/excluded.h"
#include "tools/qvdb/streams/failure.h"

namespace qvdbase::test {
namespace {

using qvdb::tool::Excluded;
using qvdb::tool::Pattern;

void expectMatches(const char* pattern, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    EXPECT_TRUE(Pattern(pattern).matches(name)) << "'" << pattern << "' and '" << name << "'";
  }
}

void expectNoMatch(const char* pattern, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    EXPECT_FALSE(Pattern(pattern).matches(name)) << "'" << pattern << "' and '" << name << "'";
  }
}

TEST(Patterns, StarStaysInItsPart) {
  expectMatches("*", {"", "a", "a b\n", ".hidden"});
  expectNoMatch("*", {"a/b", "/"});
  expectMatches("*.jpg", {"x.jpg", ".jpg", "x.jpg.jpg"});
  expectNoMatch("*.jpg", {"x.jpeg", "sub/x.jpg", "x.jpg/y"});
  expectMatches("a*/b*c", {"a/bc", "ax/bbcc"});
  expectNoMatch("a*/b*c", {"a/x/bc", "abc"});
}

TEST(Patterns, TwoStarsGoThroughFolders) {
  expectMatches("**", {"", "a", "a/b/c"});
  expectMatches("**/x", {"x", "a/x", "a/b/x"});
  expectNoMatch("**/x", {"ax", "a/bx", "x/y"});
  expectMatches("a/**/x", {"a/x", "a/b/x", "a/b/c/x"});
  expectNoMatch("a/**/x", {"a/bx", "ax"});
  expectMatches("a/**", {"a/b", "a/b/c"});
  expectNoMatch("a/**", {"a", "b/a/c"});
  expectMatches("a**b", {"ab", "a/x/b"});
  expectMatches("**/*.o", {"x.o", "a/b/.o"});
}

TEST(Patterns, QuestionMarkIsOneCharacter) {
  expectMatches("a?c", {"abc",
                        "a\xC3\xA4"
                        "c",
                        "a\xFF"
                        "c"});
  expectNoMatch("a?c", {"ac", "abbc", "a/c"});
  expectNoMatch("??", {"\xC3\xA4"});
}

TEST(Patterns, SetsHaveRangesAndTheirReverse) {
  expectMatches("[a-cx]", {"a", "b", "c", "x"});
  expectNoMatch("[a-cx]", {"d", "-", "", "ab", "["});
  expectMatches("[!a]", {"b", "\xFF", "\xC3\xA4"});
  expectNoMatch("[!a]", {"a", "/", ""});
  expectMatches("[^a]", {"b", "^"});
  expectMatches("[]a]", {"]", "a"});
  expectMatches("[!]a]", {"b"});
  expectNoMatch("[!]a]", {"]"});
  expectMatches("[a-]", {"a", "-"});
  expectMatches("[\\]]", {"]"});
  expectMatches("[\xC3\xA0-\xC3\xBF]", {"\xC3\xA4"});
  expectNoMatch("[z-a]", {"z", "a", "m", "-"});
  expectNoMatch("x[/]y", {"x/y"});
}

TEST(Patterns, WhatHasNoEndIsOrdinary) {
  expectMatches("[", {"["});
  expectMatches("a[b", {"a[b"});
  expectMatches("[!", {"[!"});
  expectMatches("[]", {"[]"});
  expectMatches("[a-", {"[a-"});
  expectMatches("[\\", {"[\\"});
  expectMatches("x\\", {"x\\"});
  expectMatches("]", {"]"});
}

TEST(Patterns, ABackslashTakesTheMeaning) {
  expectMatches("\\*", {"*"});
  expectNoMatch("\\*", {"a", "\\*", ""});
  expectMatches("\\[a]", {"[a]"});
  expectMatches("\\\\", {"\\"});
  expectMatches("\\a", {"a"});
  EXPECT_TRUE(Pattern::isOne("a\\b"));
  EXPECT_FALSE(Pattern::isOne("a]b!^-"));
}

// Trying one way after the other would take longer than anyone can wait.
TEST(Patterns, WithManyStarsEndSoon) {
  std::string pattern;
  for (int i = 0; i < 100; ++i) pattern += i % 2 == 0 ? "*a" : "**/a";
  EXPECT_FALSE(Pattern(pattern + "b").matches(std::string(3000, 'a')));
  EXPECT_TRUE(Pattern(std::string(5000, '*')).matches(std::string(5000, 'a')));
  EXPECT_FALSE(Pattern(std::string(3000, '[')).matches(std::string(2999, '[')));
  EXPECT_TRUE(Pattern(std::string(3000, '[')).matches(std::string(3000, '[')));
}

TEST(Patterns, OfWhatIsExcludedCountInAllFoldersUnlessTheyHaveASlash) {
  const Excluded excluded({"*.o", "/top", "a/b", "cache/"});
  for (const char* name : {"x.o", "deep/in/x.o", "top", "a/b"}) {
    EXPECT_TRUE(excluded.has(name, false)) << name;
  }
  for (const char* name : {"x.c", "deep/top", "x/a/b", "cache", "x.o/y"}) {
    EXPECT_FALSE(excluded.has(name, false)) << name;
  }
  EXPECT_TRUE(excluded.has("deep/cache", true));
  EXPECT_TRUE(excluded.covers("x.o/y", false));
  EXPECT_TRUE(excluded.covers("deep/cache/x", false));
  EXPECT_FALSE(excluded.covers("deep/cache", false));
  EXPECT_FALSE(Excluded().covers("x", false));
  for (const char* none : {"", "/", "//"}) {
    EXPECT_THROW(Excluded({none}), qvdb::tool::Failure) << none;
  }
}

}  // namespace
}  // namespace qvdbase::test
