// Identifiers as text, and the errors' own properties.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <unordered_set>

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::parse_id;

TEST(Identifiers, AreWrittenAs16HexadecimalDigits) {
  EXPECT_EQ(to_string(Id{0}), "0x0000000000000000");
  EXPECT_EQ(to_string(Id{0x123456789ABCDEF0}), "0x123456789abcdef0");
}

TEST(Identifiers, AreReadFromHexadecimalAndDecimal) {
  EXPECT_EQ(parse_id("0x1f"), Id{31});
  EXPECT_EQ(parse_id("0X1F"), Id{31});
  EXPECT_EQ(parse_id("31"), Id{31});
  EXPECT_EQ(parse_id("0xffffffffffffffff"), Id{~uint64_t{0}});
  EXPECT_EQ(parse_id("18446744073709551615"), Id{~uint64_t{0}});
}

TEST(Identifiers, AreNotReadFromAnythingElse) {
  for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "1f", "0xg", "0x-1",
                           "0x00000000000000001", "18446744073709551616", "1.0"}) {
    EXPECT_FALSE(parse_id(text).has_value()) << text;
  }
}

TEST(Identifiers, MadeNewDifferFromOneAnother) {
  std::unordered_set<Id> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(qvdb::new_id());
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(Reasons, HaveWordsOfTheirOwn) {
  std::unordered_set<std::string_view> words;
  int count = 0;
  for (int i = 0; i <= static_cast<int>(qvdb::Reason::cancelled); ++i, ++count) {
    words.insert(to_string(static_cast<qvdb::Reason>(i)));
  }
  EXPECT_EQ(words.size(), static_cast<size_t>(count));
  EXPECT_FALSE(words.contains("unknown reason"));
}

}  // namespace
}  // namespace qvdbase::test
