// Conversion between 16-bit strings, platform strings and UTF-8.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include <cstdlib>
#include <memory>

#include "kit/bytes.h"
#include "kit/layers.h"
#include "kit/recorded_calls.h"
#include "kit/wide.h"
#include "support/strings/guarded_text.h"

using namespace qvdbase::test;

namespace {

struct FreeBlock {
  void operator()(__CFString* string) const { std::free(string); }
};
using PlatformString = std::unique_ptr<__CFString, FreeBlock>;

PlatformString platformString(const QVWCHAR* text) {
  return PlatformString(QVWString().ConvertQVWCHARBufferToCFString(text));
}

constexpr uint8_t kFillByte = 0xEE;

// The first size + 2 bytes of the destination after a conversion.
Bytes utf8(const WideText& source, int size) {
  Bytes destination = Bytes().fill(static_cast<size_t>(std::max(size, 0)) + 2, kFillByte);
  EXPECT_EQ(QVWString().ConvertQVWCHARBufferToUTF8Buffer(source, destination.data(), size), 1);
  return destination;
}

TEST(PlatformStrings, CarryTheCharactersBothWays) {
  const PlatformString string = platformString(u"a\u00e4\u4e2d\xd834\xdd1e"_w);
  ASSERT_NE(string, nullptr);
  GuardedText out(8);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 7), 1);
  EXPECT_EQ(out.all(), u"a\u00e4\u4e2d\xd834\xdd1e" + kZero + kZero + kUntouched);
}

TEST(PlatformStrings, AreCopies) {
  WideText source = u"abc";
  const PlatformString string = platformString(source);
  source.data()[0] = 'x';
  GuardedText out(4);
  QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 4);
  EXPECT_EQ(text(out), u"abc");
}

TEST(PlatformStrings, AreCopiedOutWithoutATerminatorWhenTheyFillTheSpace) {
  const PlatformString string = platformString(u"abc"_w);
  GuardedText out(4);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 3), 1);
  EXPECT_EQ(out.all(), std::u16string(u"abc") + kUntouched);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 1), 1);
  EXPECT_EQ(out.all(), std::u16string(u"abc") + kUntouched);
}

TEST(PlatformStrings, CanBeEmpty) {
  const PlatformString string = platformString(u""_w);
  ASSERT_NE(string, nullptr);
  GuardedText out(2);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 2), 1);
  EXPECT_EQ(out.all(), kZero + kZero);
}

TEST(PlatformStrings, AreNotCopiedOutToNoSpace) {
  const PlatformString string = platformString(u"abc"_w);
  GuardedText out(1);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, 0), 1);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(string.get(), out, -1), 1);
  EXPECT_EQ(out.all(), std::u16string(1, kUntouched));
}

TEST(PlatformStrings, AreNotMadeOfNull) {
  EXPECT_EQ(platformString(nullptr), nullptr);
  GuardedText out(2);
  EXPECT_EQ(QVWString().ConvertCFStringToQVWCHARBuffer(nullptr, out, 2), 0);
  EXPECT_EQ(out.all(), std::u16string(2, kUntouched));
}

TEST(PlatformStrings, AreNotMadeWithoutMemory) {
  RecordedCalls host;
  host.failFrom(Call::allocate, 0, ENOMEM);
  EXPECT_EQ(platformString(u"abc"_w), nullptr);
}

TEST(Utf8, TakesOneToFourBytesForACharacter) {
  EXPECT_EQ(utf8(u"A", 4), hex("41 00 EEEEEEEE"));
  EXPECT_EQ(utf8(u"\u007f\u0080", 4), hex("7F C280 00 EEEE"));
  EXPECT_EQ(utf8(u"\u07ff\u0800", 5), hex("DFBF E0A080 00 EE"));
  EXPECT_EQ(utf8(u"\uffff", 4), hex("EFBFBF 00 EEEE"));
  EXPECT_EQ(utf8(u"\xd800\xdc00", 4), hex("F0908080 00 EE"));
  EXPECT_EQ(utf8(u"\xdbff\xdfff", 4), hex("F48FBFBF 00 EE"));
  EXPECT_EQ(utf8(u"\ud7ff\ue000", 6), hex("ED9FBF EE8080 00 EE"));
  EXPECT_EQ(utf8(u"", 1), hex("00 EEEE"));
}

TEST(Utf8, PutsTheZeroAfterAFullDestination) {
  EXPECT_EQ(utf8(u"abc", 3), hex("616263 00 EE"));
  EXPECT_EQ(utf8(u"abcd", 3), hex("616263 00 EE"));
}

TEST(Utf8, CutsNoCharacterInTwo) {
  EXPECT_EQ(utf8(u"a\u00e4", 2), hex("61 00 EEEE"));
  EXPECT_EQ(utf8(u"a\u4e2d", 3), hex("61 00 EEEEEE"));
  EXPECT_EQ(utf8(u"a\xd834\xdd1ez", 4), hex("61 00 EEEEEEEE"));
  EXPECT_EQ(utf8(u"a\xd834\xdd1ez", 5), hex("61 F09D849E 00 EE"));
}

TEST(Utf8, EndsAtTheFirstCharacterThatDoesNotFit) {
  EXPECT_EQ(utf8(u"\u4e2da", 2), hex("00 EEEEEE"));  // not "a", which would
}

TEST(Utf8, EndsAtAnUnpairedSurrogate) {
  EXPECT_EQ(utf8(u"a\xd834", 8), hex("61 00 EEEEEEEEEEEEEEEE"));
  EXPECT_EQ(utf8(u"a\xd834z", 8), hex("61 00 EEEEEEEEEEEEEEEE"));
  EXPECT_EQ(utf8(u"a\xdd1ez", 8), hex("61 00 EEEEEEEEEEEEEEEE"));
  EXPECT_EQ(utf8(u"\xd834\xd834\xdd1e", 8), hex("00 EEEEEEEEEEEEEEEEEE"));
}

TEST(Utf8, HasTheZeroAloneWithoutSpace) {
  EXPECT_EQ(utf8(u"abc", 0), hex("00 EE"));
  EXPECT_EQ(utf8(u"abc", -7), hex("00 EE"));
}

TEST(Utf8, NeedsASource) {
  unsigned char destination = kFillByte;
  EXPECT_EQ(QVWString().ConvertQVWCHARBufferToUTF8Buffer(nullptr, &destination, 0), 0);
  EXPECT_EQ(destination, kFillByte);
}

}  // namespace
