// Formatted output: the format itself, characters, strings, integers and addresses. The expected
// texts are worked out by hand from the rules.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include "kit/layers.h"
#include "support/strings/formatted.h"

using namespace qvdbase::test;

namespace {

struct IntegerCase {
  const char16_t* format;
  int value;
  const char16_t* expected;
};

void expectAll(std::initializer_list<IntegerCase> cases) {
  for (const IntegerCase& each : cases) {
    EXPECT_TRUE(formats(each.expected, each.format, each.value)) << "of " << each.value;
  }
}

TEST(Format, CopiesWhatIsNoDirective) {
  EXPECT_TRUE(formats(u"", u""));
  EXPECT_TRUE(formats(u"plain text\n", u"plain text\n"));
  EXPECT_TRUE(formats(u"\u4e2d\xffff", u"\u4e2d\xffff"));
  EXPECT_TRUE(formats(u"<7>", u"<%d>", 7));
}

TEST(Format, TakesItsArgumentsInOrder) {
  const WideText string = u"str";
  EXPECT_TRUE(formats(u"1 x str 2.500000 ff", u"%d %c %s %f %x", 1, 'x', string.data(), 2.5, 255));
}

TEST(Format, WritesAPercentSign) {
  EXPECT_TRUE(formats(u"%", u"%%"));
  EXPECT_TRUE(formats(u"100%!", u"%d%%!", 100));
  EXPECT_TRUE(formats(u"%", u"%-5%"));
  EXPECT_TRUE(formats(u"%%", u"%%%%"));
}

TEST(Format, WritesAnUnknownConversionAfterAPercentSign) {
  EXPECT_TRUE(formats(u"%q", u"%q"));
  EXPECT_TRUE(formats(u"%q", u"%-08.3lq"));
  EXPECT_TRUE(formats(u"%F %S %D", u"%F %S %D"));
  EXPECT_TRUE(formats(u"%\u4e2d", u"%\u4e2d"));
  EXPECT_TRUE(formats(u"%q7", u"%*q%d", 5, 7));  // the width argument is used up
}

TEST(Format, HasOneQualifierInADirective) {
  EXPECT_TRUE(formats(u"%ld", u"%lld", 1));
  EXPECT_TRUE(formats(u"%hu", u"%hhu", 1));
  EXPECT_TRUE(formats(u"%l", u"%hl"));
}

TEST(Format, MayEndInsideADirective) {
  EXPECT_TRUE(formats(u"%", u"%"));
  EXPECT_TRUE(formats(u"abc%", u"abc%"));
  EXPECT_TRUE(formats(u"%", u"%-+ #05.3"));
  EXPECT_TRUE(formats(u"%", u"%."));
  EXPECT_TRUE(formats(u"%", u"%l"));
  EXPECT_TRUE(formats(u"%", u"%*.*", 3, 4));
}

TEST(Format, StoresTheCountOfCharactersSoFar) {
  int first = -1;
  int second = -1;
  EXPECT_TRUE(formats(u"abc   42!", u"%nabc%5d%n!", &first, 42, &second));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 8);
  EXPECT_TRUE(formats(u"ab", u"ab%-9.4hn", &first));
  EXPECT_EQ(first, 2);
}

TEST(Format, TakesAnArgumentList) {
  struct Forwarder {
    static int call(QVWCHAR* buffer, const QVWCHAR* format, ...) {
      va_list arguments;
      va_start(arguments, format);
      const int count = QVWString().vswprintf(buffer, format, arguments);
      va_end(arguments);
      return count;
    }
  };
  GuardedText buffer(9);
  EXPECT_EQ(Forwarder::call(buffer, u"%d %.1f %c"_w, 12, 0.5, 'z'), 8);
  EXPECT_EQ(buffer.all(), u"12 0.5 z" + kZero);
}

TEST(FormatCharacter, IsPaddedWithSpacesToItsWidth) {
  expectAll({
      {u"%c", 'A', u"A"},
      {u"%5c", 'A', u"    A"},
      {u"%-5c|", 'A', u"A    |"},
      {u"%05c", 'A', u"    A"},
      {u"%-05c|", 'A', u"A    |"},
      {u"%1c", 'A', u"A"},
      {u"%0c", 'A', u"A"},
      {u"%.3c", 'A', u"A"},
      {u"%+ #c", 'A', u"A"},
      {u"%c", 0x4e2d, u"\u4e2d"},
      {u"%c", 0x10041, u"A"},
      {u"%lc", 'A', u"A"},
      {u"%hc", 'A', u"A"},
  });
}

TEST(FormatCharacter, CountsAZeroLikeAnyOther) {
  EXPECT_TRUE(formats(u"a" + kZero + u"b", u"a%cb", 0));
  EXPECT_TRUE(formats(u"  " + kZero, u"%3c", 0));
}

TEST(FormatString, IsPaddedAndCut) {
  struct Case {
    const char16_t* format;
    const char16_t* value;
    const char16_t* expected;
  };
  for (const Case& each : std::initializer_list<Case>{
           {u"%s", u"abc", u"abc"},
           {u"%s", u"", u""},
           {u"%.2s", u"abc", u"ab"},
           {u"%.0s", u"abc", u""},
           {u"%.s", u"abc", u""},
           {u"%.3s", u"abc", u"abc"},
           {u"%.9s", u"abc", u"abc"},
           {u"%6s", u"abc", u"   abc"},
           {u"%-6s|", u"abc", u"abc   |"},
           {u"%06s", u"abc", u"   abc"},
           {u"%6.2s", u"abc", u"    ab"},
           {u"%-6.2s|", u"abc", u"ab    |"},
           {u"%2s", u"abc", u"abc"},
           {u"%3.0s", u"abc", u"   "},
           {u"%ls%%", u"\u4e2d\u00e4", u"\u4e2d\u00e4%"},
           {u"%hs", u"abc", u"abc"},
       }) {
    EXPECT_TRUE(formats(each.expected, each.format, WideText(each.value).data()));
  }
}

TEST(FormatString, HasATextForANullPointer) {
  const QVWCHAR* const null = nullptr;
  EXPECT_TRUE(formats(u"<NULL>", u"%s", null));
  EXPECT_TRUE(formats(u"  <NULL>", u"%8s", null));
  EXPECT_TRUE(formats(u"<NULL>  |", u"%-8s|", null));
  EXPECT_TRUE(formats(u"<NU", u"%.3s", null));
}

TEST(FormatString, NeedsNoTerminatorWithinThePrecision) {
  const std::vector<QVWCHAR> open = {'a', 'b', 'c'};
  EXPECT_TRUE(formats(u"abc", u"%.3s", open.data()));
}

TEST(FormatInteger, WritesDecimals) {
  expectAll({
      {u"%d", 0, u"0"},
      {u"%d", 42, u"42"},
      {u"%d", -42, u"-42"},
      {u"%i", -42, u"-42"},
      {u"%d", INT32_MAX, u"2147483647"},
      {u"%d", INT32_MIN, u"-2147483648"},
      {u"%u", 0, u"0"},
      {u"%u", 42, u"42"},
      {u"%u", -1, u"4294967295"},
      {u"%u", INT32_MIN, u"2147483648"},
  });
}

TEST(FormatInteger, WritesOctalsAndHexadecimals) {
  expectAll({
      {u"%o", 0, u"0"},
      {u"%o", 8, u"10"},
      {u"%o", -1, u"37777777777"},
      {u"%x", 0, u"0"},
      {u"%x", 255, u"ff"},
      {u"%X", 255, u"FF"},
      {u"%x", 0x12345678, u"12345678"},
      {u"%x", static_cast<int>(0x9abcdef0u), u"9abcdef0"},
      {u"%X", static_cast<int>(0x9abcdef0u), u"9ABCDEF0"},
      {u"%x", -1, u"ffffffff"},
      {u"%x", INT32_MIN, u"80000000"},
  });
}

TEST(FormatInteger, HasThirtyTwoBitsWhateverTheQualifier) {
  expectAll({
      {u"%hd", 70000, u"70000"},
      {u"%ld", -70000, u"-70000"},
      {u"%Ld", 70000, u"70000"},
      {u"%hx", 0x12345, u"12345"},
      {u"%lu", -1, u"4294967295"},
  });
}

TEST(FormatInteger, FillsItsWidth) {
  expectAll({
      {u"%5d", 42, u"   42"},
      {u"%-5d|", 42, u"42   |"},
      {u"%05d", 42, u"00042"},
      {u"%05d", -42, u"-0042"},
      {u"%5d", -42, u"  -42"},
      {u"%-5d|", -42, u"-42  |"},
      {u"%-05d|", 42, u"42   |"},
      {u"%0-5d|", 42, u"42   |"},
      {u"%2d", 42, u"42"},
      {u"%1d", 42, u"42"},
      {u"%3d", -42, u"-42"},
      {u"%0d", 42, u"42"},
      {u"%5u", 42, u"   42"},
      {u"%05u", 42, u"00042"},
      {u"%5x", 42, u"   2a"},
      {u"%05X", 42, u"0002A"},
      {u"%5o", 42, u"   52"},
      {u"%-5o|", 42, u"52   |"},
  });
}

TEST(FormatInteger, ShowsASignWhenItIsSigned) {
  expectAll({
      {u"%+d", 5, u"+5"},
      {u"%+d", 0, u"+0"},
      {u"%+d", -5, u"-5"},
      {u"% d", 5, u" 5"},
      {u"% d", -5, u"-5"},
      {u"%+ d", 5, u"+5"},
      {u"% +d", 5, u"+5"},
      {u"%+i", 5, u"+5"},
      {u"%+u", 5, u"5"},
      {u"% u", 5, u"5"},
      {u"%+x", 5, u"5"},
      {u"% o", 5, u"5"},
      {u"%+5d", 42, u"  +42"},
      {u"%+05d", 42, u"+0042"},
      {u"% 05d", 42, u" 0042"},
      {u"%-+5d|", 42, u"+42  |"},
      {u"%- 5d|", 42, u" 42  |"},
  });
}

TEST(FormatInteger, HasAtLeastThePrecisionInDigits) {
  expectAll({
      {u"%.3d", 5, u"005"},
      {u"%.3d", -5, u"-005"},
      {u"%.1d", 42, u"42"},
      {u"%.0d", 42, u"42"},
      {u"%.0d", 0, u"0"},
      {u"%.d", 0, u"0"},
      {u"%.4x", 255, u"00ff"},
      {u"%.4o", 8, u"0010"},
      {u"%.12u", 7, u"000000000007"},
      {u"%6.3d", 5, u"   005"},
      {u"%-6.3d|", 5, u"005   |"},
      {u"%6.3d", -5, u"  -005"},
      {u"%+6.3d", 5, u"  +005"},
      {u"%2.4d", 5, u"0005"},
  });
}

TEST(FormatInteger, KeepsItsZeroFillBesideAPrecision) {
  expectAll({
      {u"%08.3d", 5, u"00000005"},
      {u"%08.3d", -5, u"-0000005"},
      {u"%-08.3d|", 5, u"005     |"},
  });
}

TEST(FormatInteger, HasAnAlternateForm) {
  expectAll({
      {u"%#x", 255, u"0xff"},
      {u"%#X", 255, u"0XFF"},
      {u"%#o", 8, u"010"},
      {u"%#x", 0, u"0x0"},
      {u"%#o", 0, u"00"},
      {u"%#d", 42, u"42"},
      {u"%#u", 42, u"42"},
      {u"%#8x", 255, u"    0xff"},
      {u"%#08x", 255, u"0x0000ff"},
      {u"%-#8x|", 255, u"0xff    |"},
      {u"%#.4x", 255, u"0x00ff"},
      {u"%#8.4X", 255, u"  0X00FF"},
      {u"%#6o", 8, u"   010"},
      {u"%#06o", 8, u"000010"},
      {u"%#.4o", 8, u"00010"},
      {u"%-#6o|", 8, u"010   |"},
      {u"%#3x", 255, u"0xff"},
  });
}

TEST(FormatWidth, ComesFromAnArgument) {
  EXPECT_TRUE(formats(u"   42", u"%*d", 5, 42));
  EXPECT_TRUE(formats(u"00042", u"%0*d", 5, 42));
  EXPECT_TRUE(formats(u"42   |", u"%-*d|", 5, 42));
  EXPECT_TRUE(formats(u"42", u"%*d", 0, 42));
  EXPECT_TRUE(formats(u"    x", u"%*c", 5, 'x'));
  EXPECT_TRUE(formats(u"  1.5", u"%*.1f", 5, 1.5));
}

TEST(FormatWidth, IsDigitsOrAnArgumentButNotBoth) {
  EXPECT_TRUE(formats(u"%*d 42", u"%5*d %d", 42));
  EXPECT_TRUE(formats(u"%*7", u"%-5*%d", 7));
}

TEST(FormatWidth, PutsTheTextToTheLeftWhenItsArgumentIsNegative) {
  EXPECT_TRUE(formats(u"42   |", u"%*d|", -5, 42));
  EXPECT_TRUE(formats(u"42   |", u"%0*d|", -5, 42));
  EXPECT_TRUE(formats(u"42   |", u"%-*d|", -5, 42));
  EXPECT_TRUE(formats(u"1.5  |", u"%*.1f|", -5, 1.5));
  EXPECT_TRUE(formats(u"42|", u"%*d|", -1, 42));
}

TEST(FormatWidth, PadsNothingForTheLeastArgument) {
  EXPECT_TRUE(formats(u"42|", u"%*d|", INT32_MIN, 42));
  EXPECT_TRUE(formats(u"x|", u"%*c|", INT32_MIN, 'x'));
}

TEST(FormatWidth, WrapsAroundWithTooManyDigits) {
  EXPECT_TRUE(formats(u"   42", u"%4294967301d", 42));           // 2^32 + 5
  EXPECT_TRUE(formats(u"42", u"%2147483648d", 42));              // -2^31
  EXPECT_TRUE(formats(u"0005", u"%.4294967300d", 5));            // 2^32 + 4
  EXPECT_TRUE(formats(u"", u"%.3000000000s", u"abc"_w.data()));  // below 0, so 0
  EXPECT_TRUE(formats(u"2", u"%.3000000000f", 1.5));
  const std::u16string digits(70, u'9');  // -1, modulo 2^32
  EXPECT_EQ(formatted(80, u"%" + digits + u"d", 42), u"42");
}

TEST(FormatPrecision, ComesFromAnArgument) {
  EXPECT_TRUE(formats(u"ab", u"%.*s", 2, u"abc"_w.data()));
  EXPECT_TRUE(formats(u"0042", u"%.*d", 4, 42));
  EXPECT_TRUE(formats(u"1.50", u"%.*f", 2, 1.5));
  EXPECT_TRUE(formats(u"    ab", u"%*.*s", 6, 2, u"abc"_w.data()));
  EXPECT_TRUE(formats(u"ab    |", u"%*.*s|", -6, 2, u"abc"_w.data()));
}

TEST(FormatPrecision, IsZeroWhenItsArgumentIsNegative) {
  EXPECT_TRUE(formats(u"", u"%.*s", -1, u"abc"_w.data()));
  EXPECT_TRUE(formats(u"2", u"%.*f", -6, 1.5));
  EXPECT_TRUE(formats(u"2e+000", u"%.*e", INT32_MIN, 1.5));
  EXPECT_TRUE(formats(u"42", u"%.*d", -4, 42));
}

TEST(FormatPrecision, IsZeroWithoutDigits) {
  EXPECT_TRUE(formats(u"2", u"%.f", 1.5));
  EXPECT_TRUE(formats(u"2e+000", u"%.e", 1.5));
  EXPECT_TRUE(formats(u"", u"%.s", u"abc"_w.data()));
}

void* pointer(uintptr_t address) {
  return reinterpret_cast<void*>(address);
}

TEST(FormatPointer, HasEightHexadecimalDigitsAtLeast) {
  EXPECT_TRUE(formats(u"0000001a", u"%p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"00000000", u"%p", pointer(0)));
  EXPECT_TRUE(formats(u"89abcdef", u"%p", pointer(0x89abcdef)));
}

TEST(FormatPointer, HasAllItsDigits) {
#if UINTPTR_MAX > 0xFFFFFFFF
  EXPECT_TRUE(formats(u"7fff12345678", u"%p", pointer(0x7fff12345678)));
  EXPECT_TRUE(formats(u"fedcba9876543210", u"%p", pointer(0xfedcba9876543210)));
  EXPECT_TRUE(formats(u"ffffffffffffffff", u"%5p", pointer(UINTPTR_MAX)));
#else
  EXPECT_TRUE(formats(u"fedcba98", u"%p", pointer(0xfedcba98)));
  EXPECT_TRUE(formats(u"ffffffff", u"%5p", pointer(UINTPTR_MAX)));
#endif
}

TEST(FormatPointer, FollowsAWidthOfItsOwn) {
  EXPECT_TRUE(formats(u"    1a", u"%6p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"00001a", u"%06p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"1a    |", u"%-6p|", pointer(0x1A)));
  EXPECT_TRUE(formats(u"1a      |", u"%-p|", pointer(0x1A)));
  EXPECT_TRUE(formats(u"0x00001a", u"%#p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"0x00001a", u"%#.4p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"0x001a", u"%#1.4p", pointer(0x1A)));
  EXPECT_TRUE(formats(u"0000001a", u"%+p", pointer(0x1A)));
}

const WideText kAddress = u"\x00c0\x00a8\x0001\x00fe\x000a\x00b0";

TEST(FormatAddress, WritesFourElementsInDecimal) {
  const QVWCHAR* const address = kAddress;
  EXPECT_TRUE(formats(u"192.168.1.254", u"%a", address));
  EXPECT_TRUE(formats(u"192.168.1.254", u"%A", address));
  EXPECT_TRUE(formats(u"192.168.1.254", u"%ha", address));
  EXPECT_TRUE(formats(u"   192.168.1.254", u"%16a", address));
  EXPECT_TRUE(formats(u"   192.168.1.254", u"%016a", address));
  EXPECT_TRUE(formats(u"192.168.1.254   |", u"%-16a|", address));
  EXPECT_TRUE(formats(u"192.168.1.254", u"%5.2a", address));
}

TEST(FormatAddress, TakesElementsOfSixteenBits) {
  const std::vector<QVWCHAR> address = {0, 65535, 10, 1000};
  EXPECT_TRUE(formats(u"0.65535.10.1000", u"%a", address.data()));
  const std::vector<QVWCHAR> longest(4, 65535);
  EXPECT_TRUE(formats(u"65535.65535.65535.65535", u"%a", longest.data()));
}

TEST(FormatAddress, WritesSixElementsInHexadecimalWithTheQualifier) {
  const QVWCHAR* const address = kAddress;
  EXPECT_TRUE(formats(u"c0:a8:01:fe:0a:b0", u"%la", address));
  EXPECT_TRUE(formats(u"C0:A8:01:FE:0A:B0", u"%lA", address));
  EXPECT_TRUE(formats(u"   c0:a8:01:fe:0a:b0", u"%20la", address));
  EXPECT_TRUE(formats(u"c0:a8:01:fe:0a:b0   |", u"%-20la|", address));
  const std::vector<QVWCHAR> wide = {0x1234, 0xff00, 0x00ff, 0, 0xabcd, 0x100};
  EXPECT_TRUE(formats(u"34:00:ff:00:cd:00", u"%la", wide.data()));
}

// ---- The parts on their own

TEST(SkipAtoi, ReadsDigitsAndMovesPastThem) {
  const WideText text = u"123x";
  const QVWCHAR* cursor = text;
  EXPECT_EQ(QVWString().skip_atoi(&cursor), 123);
  EXPECT_EQ(cursor, text.data() + 3);
}

TEST(SkipAtoi, StaysWhereThereIsNoDigit) {
  for (const char16_t* start : {u"x1", u"-1", u" 1", u"", u"/", u":", u"\uff11", u"\x0131"}) {
    const WideText text = start;
    const QVWCHAR* cursor = text;
    EXPECT_EQ(QVWString().skip_atoi(&cursor), 0);
    EXPECT_EQ(cursor, text.data());
  }
}

TEST(SkipAtoi, HasNoLimit) {
  const WideText text = u"0004294967303.";
  const QVWCHAR* cursor = text;
  EXPECT_EQ(QVWString().skip_atoi(&cursor), 7);  // 2^32 + 7
  EXPECT_EQ(cursor, text.data() + 13);
}

// The text between `out` and the pointer returned, from a buffer of exactly that size.
template <typename Write>
std::u16string written(size_t size, Write write) {
  GuardedText buffer(size);
  const QVWCHAR* const end = write(buffer.data());
  if (end == nullptr) return u"null";
  EXPECT_EQ(end - buffer.data(), static_cast<std::ptrdiff_t>(size));
  return buffer.all();
}

struct NumberCase {
  int value;
  int base;
  int width;
  int precision;
  int flags;
  const char16_t* expected;
};

TEST(Number, TakesBasesFromTwoToThirtySix) {
  for (const NumberCase& each : std::initializer_list<NumberCase>{
           {5, 2, -1, -1, 0, u"101"},
           {-1, 2, -1, -1, 0, u"11111111111111111111111111111111"},
           {-5, 3, -1, -1, 2, u"-12"},
           {35, 36, -1, -1, 0, u"z"},
           {35, 36, -1, -1, 64, u"Z"},
           {-1, 36, -1, -1, 0, u"1z141z3"},
           {INT32_MIN, 36, -1, -1, 2 | 64, u"-ZIK0ZK"},
           {255, 16, -1, -1, 32 | 64, u"0XFF"},
           {-255, 16, 8, -1, 1 | 2 | 32, u"-0x000ff"},
           {-255, 16, 8, -1, 2 | 32, u"   -0xff"},
           {-8, 8, 6, -1, 2 | 32, u"  -010"},
           {7, 7, 5, -1, 32, u"   10"},  // no prefix but for 8 and 16
           {5, 10, 6, 3, 1 | 16, u"005   "},
           {5, 10, INT32_MIN, INT32_MIN, 4, u"5"},  // no sign without the signed flag
           {-5, 10, -1, -1, 4, u"4294967291"},
           {5, 10, -1, -1, 2 | 4 | 8, u"+5"},
           {5, 10, 4, -1, 1 | 2 | 8, u" 005"},
       }) {
    EXPECT_EQ(narrow(written(std::u16string(each.expected).size(),
                             [&](QVWCHAR* out) {
                               return QVWString().number(out, each.value, each.base, each.width,
                                                         each.precision, each.flags);
                             })),
              narrow(each.expected))
        << each.value << " in base " << each.base;
  }
}

TEST(Number, HasNoTextInAnotherBase) {
  for (const int base : {INT32_MIN, -10, -1, 0, 1, 37, 256, INT32_MAX}) {
    GuardedText out(4);
    EXPECT_EQ(QVWString().number(out, 1, base, 3, -1, 0), nullptr) << base;
    EXPECT_EQ(out.all(), std::u16string(4, kUntouched)) << base;
  }
}

TEST(Addresses, CanBeWrittenOnTheirOwn) {
  const QVWCHAR* const address = kAddress;
  EXPECT_EQ(written(15, [&](QVWCHAR* out) { return QVWString().iaddr(out, address, 15, 0, 0); }),
            u"  192.168.1.254");
  EXPECT_EQ(written(15, [&](QVWCHAR* out) { return QVWString().iaddr(out, address, 15, 0, 17); }),
            u"192.168.1.254  ");
  EXPECT_EQ(written(19, [&](QVWCHAR* out) { return QVWString().eaddr(out, address, 19, 0, 64); }),
            u"  C0:A8:01:FE:0A:B0");
  EXPECT_EQ(written(17, [&](QVWCHAR* out) { return QVWString().eaddr(out, address, -1, 0, 16); }),
            u"c0:a8:01:fe:0a:b0");
}

// ---- Properties

// The other way round, spaces become spaces after the text.
std::u16string mirrored(std::u16string text) {
  const size_t spaces = text.find_first_not_of(u' ');
  if (spaces == std::u16string::npos) return text;
  return text.substr(spaces) + text.substr(0, spaces);
}

TEST(FormatProperties, LeftAndRightMirrorEachOther) {
  const int values[] = {0, 1, -1, 7, -42, 255, 65535, INT32_MAX, INT32_MIN};
  for (const char16_t* rest :
       {u"d", u"+d", u"#x", u"X", u"o", u"#o", u".5d", u"#.3x", u"u", u"c"}) {
    const std::u16string tail(rest);
    const size_t flagEnd = tail.find_first_not_of(u"+#");
    const std::u16string flags = tail.substr(0, flagEnd);
    const std::u16string after = tail.substr(flagEnd);
    for (const int value : values) {
      for (int width = 0; width < 20; ++width) {
        const std::u16string right =
            formatted(40, u"%" + flags + u"*" + after, width, value == 0 ? 1 : value);
        const std::u16string left =
            formatted(40, u"%-" + flags + u"*" + after, width, value == 0 ? 1 : value);
        ASSERT_GE(right.size(), static_cast<size_t>(width));
        ASSERT_EQ(narrow(left), narrow(mirrored(right)));
      }
    }
  }
}

TEST(FormatProperties, AWidthOfAnySizeIsKept) {
  for (const int width : {999, 1000, 4096, 100000}) {
    const auto size = static_cast<size_t>(width);
    EXPECT_EQ(formatted(size, u"%*d", width, 7), std::u16string(size - 1, u' ') + u"7");
    EXPECT_EQ(formatted(size, u"%0*d", width, -7), u"-" + std::u16string(size - 2, u'0') + u"7");
    EXPECT_EQ(formatted(size, u"%-*x", width, 7), u"7" + std::u16string(size - 1, u' '));
    EXPECT_EQ(formatted(size, u"%.*u", width, 7), std::u16string(size - 1, u'0') + u"7");
    EXPECT_EQ(formatted(size, u"%*c", width, 'x'), std::u16string(size - 1, u' ') + u"x");
    EXPECT_EQ(formatted(size, u"%*s", width, u"x"_w.data()), std::u16string(size - 1, u' ') + u"x");
  }
  EXPECT_EQ(formatted(999, u"%999d", 5), std::u16string(998, u' ') + u"5");
}

}  // namespace
