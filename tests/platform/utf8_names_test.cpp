// Names between 16-bit characters and UTF-8.
#include "platform/paths/utf8_names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "kit/wide.h"

namespace qvdbase::test {
namespace {

using platform::EntryName;
using platform::utf16FromUtf8;

// The bytes of a name, or "(invalid)".
std::string encoded(std::u16string_view name) {
  const WideText wide(name);
  const EntryName entry(wide);
  return entry.isValid() ? entry.bytes() : "(invalid)";
}

// The characters of UTF-8 text, or "(invalid)".
std::u16string decoded(std::string_view bytes, size_t capacity = 100) {
  QVWCHAR wide[100];
  if (!utf16FromUtf8(bytes.data(), bytes.size(), wide, capacity)) return u"(invalid)";
  return text(wide);
}

// The ends of each range that takes one more byte.
struct Pair {
  const char16_t* characters;
  const char* bytes;
};
constexpr Pair kPairs[] = {
    {u"", ""},
    {u"name", "name"},
    {u"\u007F", "\x7F"},
    {u"\u0080", "\xC2\x80"},
    {u"\u07FF", "\xDF\xBF"},
    {u"\u0800", "\xE0\xA0\x80"},
    {u"\uD7FF", "\xED\x9F\xBF"},
    {u"\uE000", "\xEE\x80\x80"},
    {u"\uFFFF", "\xEF\xBF\xBF"},
    {u"\U00010000", "\xF0\x90\x80\x80"},
    {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
    {u"a\u00E4\u20AC\U0001D11Ez", "a\xC3\xA4\xE2\x82\xAC\xF0\x9D\x84\x9Ez"},
};

TEST(EntryNames, HaveTheirUtf8Form) {
  for (const Pair& pair : kPairs) EXPECT_EQ(encoded(pair.characters), pair.bytes);
}

TEST(EntryNames, WithAnUnpairedSurrogateAreNotValid) {
  for (const std::u16string& name :
       {std::u16string(1, char16_t{0xD800}), std::u16string(1, char16_t{0xDFFF}),
        std::u16string{0xD800, u'a'}, std::u16string{u'a', 0xDC00}, std::u16string{0xDC00, 0xD800},
        std::u16string{0xD800, 0xD800, 0xDC00}}) {
    EXPECT_EQ(encoded(name), "(invalid)");
  }
}

TEST(EntryNames, WithASlashAreNotValid) {
  EXPECT_EQ(encoded(u"a/b"), "(invalid)");
  EXPECT_EQ(encoded(u"/"), "(invalid)");
  EXPECT_EQ(encoded(u"a\\b"), "a\\b");
}

TEST(EntryNames, MayBeAsLongAsAPath) {
  EXPECT_EQ(encoded(std::u16string(2047, u'\u20AC')).size(), 3u * 2047u);
  EXPECT_EQ(encoded(std::u16string(2048, u'a')), "(invalid)");
}

TEST(EntryNames, KnowWhetherTheyAreEmpty) {
  EXPECT_TRUE(EntryName(u""_w).isEmpty());
  EXPECT_FALSE(EntryName(u"a"_w).isEmpty());
}

TEST(Utf8Text, TurnsBackIntoItsCharacters) {
  for (const Pair& pair : kPairs) EXPECT_EQ(decoded(pair.bytes), pair.characters);
}

TEST(Utf8Text, ThatIsNotWellFormedIsRefused) {
  for (const char* bytes : {
           "\x80",              // continuation without a start
           "\xC3",              // cut off
           "\xE2\x82",          //
           "\xF0\x9D\x84",      //
           "\xC3z",             // continuation missing
           "\xC0\xAF",          // longer than need be
           "\xE0\x80\xAF",      //
           "\xF0\x80\x80\xAF",  //
           "\xED\xA0\x80",      // a surrogate
           "\xED\xBF\xBF",      //
           "\xF4\x90\x80\x80",  // beyond the last character
           "\xF8\x88\x80\x80\x80",
           "\xFF",
       }) {
    EXPECT_EQ(decoded(bytes), u"(invalid)") << bytes;
    EXPECT_EQ(decoded(std::string("a") + bytes), u"(invalid)") << bytes;
  }
}

TEST(Utf8Text, MustFitWithItsTerminator) {
  EXPECT_EQ(decoded("abc", 4), u"abc");
  EXPECT_EQ(decoded("abc", 3), u"(invalid)");
  EXPECT_EQ(decoded("\xF0\x9D\x84\x9E", 3), u"\U0001D11E");
  EXPECT_EQ(decoded("\xF0\x9D\x84\x9E", 2), u"(invalid)");
  EXPECT_EQ(decoded("", 1), u"");
  EXPECT_EQ(decoded("", 0), u"(invalid)");
}

}  // namespace
}  // namespace qvdbase::test
