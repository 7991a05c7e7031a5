// Floating-point numbers in formatted output. The texts of the tables are worked out by hand.
#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include <limits>

#include "kit/layers.h"
#include "support/strings/formatted.h"

using namespace qvdbase::test;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kSmallest = std::numeric_limits<double>::denorm_min();
constexpr double kLargest = std::numeric_limits<double>::max();

struct FloatCase {
  const char16_t* format;
  double value;
  const char16_t* expected;
};

void expectAll(std::initializer_list<FloatCase> cases) {
  for (const FloatCase& each : cases) {
    EXPECT_TRUE(formats(each.expected, each.format, each.value)) << "of " << each.value;
  }
}

std::u16string zeros(size_t count) {
  return std::u16string(count, u'0');
}

TEST(FormatFixed, HasSixDigitsAfterThePointUnlessAskedOtherwise) {
  expectAll({
      {u"%f", 1.5, u"1.500000"},
      {u"%f", 0.0, u"0.000000"},
      {u"%f", -1.5, u"-1.500000"},
      {u"%f", 12345.678, u"12345.678000"},
      {u"%f", 0.000001, u"0.000001"},
      {u"%f", 1e15, u"1000000000000000.000000"},
      {u"%.2f", 1.5, u"1.50"},
      {u"%.1f", 0.25, u"0.3"},
      {u"%.10f", 0.5, u"0.5000000000"},
      {u"%.3f", 0.0625, u"0.063"},
      {u"%.4f", 0.0625, u"0.0625"},
      {u"%lf", 1.5, u"1.500000"},
      {u"%hf", 1.5, u"1.500000"},
      {u"%Lf", 1.5, u"1.500000"},
  });
}

TEST(FormatFixed, HasNoPointWithoutDigitsAfterIt) {
  expectAll({
      {u"%.0f", 1.0, u"1"},
      {u"%.0f", 1.25, u"1"},
      {u"%.0f", 0.0, u"0"},
      {u"%.0f", 0.25, u"0"},
      {u"%.0f", 0.03125, u"0"},
      {u"%.0f", -3.0, u"-3"},
      {u"%#.0f", 1.0, u"1."},
      {u"%#.0f", 0.0, u"0."},
      {u"%#.0f", 0.25, u"0."},
      {u"%#f", 1.5, u"1.500000"},
  });
}

TEST(FormatFixed, RoundsHalvesUp) {
  expectAll({
      {u"%.0f", 0.5, u"1"},
      {u"%.0f", 1.5, u"2"},
      {u"%.0f", 2.5, u"3"},
      {u"%.0f", -2.5, u"-3"},
      {u"%.1f", 0.125, u"0.1"},
      {u"%.2f", 0.125, u"0.13"},
      {u"%.1f", 0.75, u"0.8"},
  });
}

TEST(FormatFixed, CarriesAcrossPowersOfTen) {
  expectAll({
      {u"%.0f", 9.5, u"10"},
      {u"%.1f", 9.96875, u"10.0"},
      {u"%.0f", 99.5, u"100"},
      {u"%.2f", 0.998046875, u"1.00"},
      {u"%.1f", 0.96875, u"1.0"},
      {u"%.0f", 0.75, u"1"},
      {u"%.2f", 999.998046875, u"1000.00"},
      {u"%.1f", 0.0625, u"0.1"},  // below the first wanted place
      {u"%.2f", 0.0078125, u"0.01"},
  });
}

TEST(FormatFixed, ShowsZerosForWhatIsTooSmall) {
  expectAll({
      {u"%.1f", 0.03125, u"0.0"},
      {u"%.2f", 0.001953125, u"0.00"},
      {u"%.1f", 0.001953125, u"0.0"},
      {u"%f", 1e-20, u"0.000000"},
      {u"%.3f", kSmallest, u"0.000"},
  });
  EXPECT_TRUE(formats(u"0." + zeros(322), u"%.322f", kSmallest));
  EXPECT_TRUE(formats(u"0." + zeros(323) + u"5", u"%.324f", kSmallest));
}

TEST(FormatExponent, HasThreeDigitsInItsExponent) {
  expectAll({
      {u"%e", 0.0, u"0.000000e+000"},
      {u"%e", 1.0, u"1.000000e+000"},
      {u"%e", -1.5, u"-1.500000e+000"},
      {u"%e", 0.5, u"5.000000e-001"},
      {u"%e", 0.0625, u"6.250000e-002"},
      {u"%.2e", 12345.678, u"1.23e+004"},
      {u"%E", 12345.678, u"1.234568E+004"},
      {u"%.3E", 0.0009765625, u"9.766E-004"},
      {u"%e", 1e100, u"1.000000e+100"},
      {u"%.1e", 1e-100, u"1.0e-100"},
      {u"%.2e", kSmallest, u"4.94e-324"},
      {u"%.4e", kLargest, u"1.7977e+308"},
      {u"%.1e", 10.0, u"1.0e+001"},
      {u"%.0e", 0.0, u"0e+000"},
  });
}

TEST(FormatExponent, CopiesAllItsFractionDigits) {
  expectAll({
      {u"%.1e", 1.25, u"1.3e+000"},
      {u"%.3e", 1.234375, u"1.234e+000"},
      {u"%.6e", 1.234375, u"1.234375e+000"},
      {u"%.9e", 1234.5, u"1.234500000e+003"},
  });
}

TEST(FormatExponent, HasNoPointWithoutDigitsAfterIt) {
  expectAll({
      {u"%.0e", 1.0, u"1e+000"},
      {u"%.0e", 1.5, u"2e+000"},
      {u"%.0E", 2500.0, u"3E+003"},
      {u"%#.0e", 1.0, u"1.e+000"},
      {u"%#.0E", 1.0, u"1.E+000"},
      {u"%#.1e", 1.0, u"1.0e+000"},
  });
}

TEST(FormatExponent, CarriesAcrossPowersOfTen) {
  expectAll({
      {u"%.0e", 9.5, u"1e+001"},
      {u"%.1e", 9.96875, u"1.0e+001"},
      {u"%.0e", 0.96875, u"1e+000"},
      {u"%.2e", 9998.0, u"1.00e+004"},
      {u"%.1e", 0.0998046875, u"1.0e-001"},
  });
}

TEST(FormatGeneral, TakesTheExponentFormOutsideItsPrecision) {
  expectAll({
      {u"%g", 0.0001, u"0.0001"},
      {u"%g", 0.00001, u"1e-005"},
      {u"%g", 100000.0, u"100000"},
      {u"%g", 1000000.0, u"1e+006"},
      {u"%g", 999999.5, u"1e+006"},
      {u"%g", 999999.25, u"999999"},
      {u"%g", 123456789.0, u"1.23457e+008"},
      {u"%.2g", 12.0, u"12"},
      {u"%.2g", 123.0, u"1.2e+002"},
      {u"%.3g", 0.0009765625, u"0.000977"},
      {u"%.3g", 0.00006103515625, u"6.1e-005"},
      {u"%.10g", 1234567.0, u"1234567"},
      {u"%g", 1e100, u"1e+100"},
      {u"%.1g", 9.5, u"1e+001"},
      {u"%.2g", 9.96875, u"10"},
  });
}

TEST(FormatGeneral, CropsItsZeros) {
  expectAll({
      {u"%g", 0.0, u"0"},
      {u"%g", 1.5, u"1.5"},
      {u"%g", 100.0, u"100"},
      {u"%g", -0.25, u"-0.25"},
      {u"%g", 1500000.0, u"1.5e+006"},
      {u"%.10g", 0.5, u"0.5"},
      {u"%g", 1234.5, u"1234.5"},
  });
}

TEST(FormatGeneral, KeepsItsZerosInTheAlternateForm) {
  expectAll({
      {u"%#g", 1.5, u"1.50000"},
      {u"%#g", 100.0, u"100.000"},
      {u"%#g", 0.0, u"0.000000"},
      {u"%#.2g", 1000.0, u"1.0e+003"},
      {u"%#g", 0.0001, u"0.000100000"},
      {u"%#.3g", 100.0, u"100"},  // a point is forced by a precision of 0 only
  });
}

TEST(FormatGeneral, TakesAPrecisionOfZeroAsOne) {
  expectAll({
      {u"%.0g", 1.5, u"2"},
      {u"%.g", 0.25, u"0.3"},
      {u"%.0g", 25.0, u"3e+001"},
      {u"%#.0g", 25.0, u"3e+001"},
      {u"%.0g", 0.0, u"0"},
  });
}

TEST(FormatGeneral, CropsNothingInUpperCase) {
  expectAll({
      {u"%G", 1.5, u"1.50000"},
      {u"%G", 0.0, u"0.000000"},
      {u"%G", 100.0, u"100.000"},
      {u"%G", 0.0001, u"0.000100000"},
      {u"%G", 0.00001, u"1.00000E-005"},
      {u"%G", 1000000.0, u"1.00000E+006"},
      {u"%.2G", 123.0, u"1.2E+002"},
      {u"%#G", 1.5, u"1.50000"},
  });
}

TEST(FormatGeneral, LeavesAPrecisionOfZeroInUpperCase) {
  expectAll({
      {u"%.0G", 0.25, u"0"},
      {u"%.0G", 0.0, u"0"},
      {u"%#.0G", 0.25, u"0"},
      {u"%.0G", 0.03125, u"0.0"},
      // In the e form this leaves no digit, and so no number.
      {u"%.0G", 5.0, u""},
      {u"%.0G", -2.5, u"-"},
      {u"%3.0G", 1e10, u"   "},
  });
}

TEST(FormatFloat, FillsItsWidth) {
  expectAll({
      {u"%10.2f", 1.5, u"      1.50"},
      {u"%-10.2f|", 1.5, u"1.50      |"},
      {u"%010.2f", 1.5, u"0000001.50"},
      {u"%010.2f", -1.5, u"-000001.50"},
      {u"%10.2f", -1.5, u"     -1.50"},
      {u"%-010.2f|", -1.5, u"-1.50     |"},
      {u"%012.1e", 1.5, u"00001.5e+000"},
      {u"%12.1e", 1.5, u"    1.5e+000"},
      {u"%8g", 1.5, u"     1.5"},
      {u"%08g", -1.5, u"-00001.5"},
      {u"%2f", 1.5, u"1.500000"},
      {u"%-12G|", 1.5, u"1.50000     |"},
  });
}

TEST(FormatFloat, ShowsASign) {
  expectAll({
      {u"%+f", 1.5, u"+1.500000"},
      {u"%+f", -1.5, u"-1.500000"},
      {u"% f", 1.5, u" 1.500000"},
      {u"% f", -1.5, u"-1.500000"},
      {u"%+ g", 1.5, u"+1.5"},
      {u"%+8g", 1.5, u"    +1.5"},
      {u"%+08g", 1.5, u"+00001.5"},
      {u"% 08g", 1.5, u" 00001.5"},
      {u"%-+8g|", 1.5, u"+1.5    |"},
      {u"%+e", 0.0, u"+0.000000e+000"},
  });
}

TEST(FormatFloat, ShowsNoSignOfAZero) {
  expectAll({
      {u"%f", -0.0, u"0.000000"},
      {u"%e", -0.0, u"0.000000e+000"},
      {u"%g", -0.0, u"0"},
      {u"%+f", -0.0, u"+0.000000"},
      {u"%.1f", -0.03125, u"-0.0"},  // rounded to 0, but below it
  });
}

TEST(FormatFloat, HasTextsForWhatIsNoNumber) {
  expectAll({
      {u"%f", kInfinity, u"inf"},     {u"%e", kInfinity, u"inf"},    {u"%g", kInfinity, u"inf"},
      {u"%E", kInfinity, u"INF"},     {u"%G", kInfinity, u"INF"},    {u"%f", -kInfinity, u"-inf"},
      {u"%G", -kInfinity, u"-INF"},   {u"%f", kNan, u"nan"},         {u"%e", kNan, u"nan"},
      {u"%g", kNan, u"nan"},          {u"%E", kNan, u"NAN"},         {u"%G", kNan, u"NAN"},
      {u"%f", -kNan, u"-nan"},        {u"%+f", kInfinity, u"+inf"},  {u"% E", kNan, u" NAN"},
      {u"%.0f", kInfinity, u"inf"},   {u"%#.0f", kInfinity, u"inf"}, {u"%#.0e", kNan, u"nan"},
      {u"%.400f", kInfinity, u"inf"},
  });
}

TEST(FormatFloat, FillsWhatIsNoNumberWithSpaces) {
  expectAll({
      {u"%8f", kInfinity, u"     inf"},
      {u"%08f", kInfinity, u"     inf"},
      {u"%08f", -kInfinity, u"    -inf"},
      {u"%-8f|", -kInfinity, u"-inf    |"},
      {u"%-08G|", kNan, u"NAN     |"},
      {u"%+08e", kNan, u"    +nan"},
  });
}

TEST(FormatFloat, WorksOutAtMost350DigitsAfterThePoint) {
  EXPECT_TRUE(formats(u"1.5" + zeros(349), u"%.350f", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(349), u"%.351f", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(349), u"%.400f", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(349), u"%.2147483647f", 1.5));
  EXPECT_TRUE(formats(u"0." + zeros(350), u"%.400f", 0.0));
  EXPECT_TRUE(formats(u"-0.5" + zeros(349), u"%.400f", -0.5));
}

TEST(FormatFloat, WorksOutAtMost350DigitsInTheExponentForm) {
  EXPECT_TRUE(formats(u"1.5" + zeros(347) + u"e+000", u"%.348e", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(348) + u"e+000", u"%.349e", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(348) + u"e+000", u"%.350e", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(348) + u"e+000", u"%.2147483647e", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(348) + u"E+001", u"%.999E", 15.0));
  EXPECT_TRUE(formats(u"1.5", u"%.999g", 1.5));
  EXPECT_TRUE(formats(u"1.5" + zeros(349), u"%.2147483647G", 1.5));
}

// 1e22 is a double, and its digits come out right.
TEST(FormatFloat, HoldsAtMost351CharactersOfDigits) {
  const std::u16string whole = u"1" + zeros(22);                     // 23 digits
  EXPECT_TRUE(formats(whole + u"." + zeros(328), u"%.328f", 1e22));  // 351 in all
  EXPECT_TRUE(formats(whole + u"." + zeros(328), u"%.329f", 1e22));  // cut
  EXPECT_TRUE(formats(whole + u"." + zeros(328), u"%.350f", 1e22));
  EXPECT_TRUE(formats(u"10." + zeros(349), u"%.350f", 10.0));
}

TEST(FormatFloat, WritesTheLongestNumbers) {
  const std::u16string largest = formatted(360, u"%f", kLargest);
  ASSERT_EQ(largest.size(), 316u);  // 309 digits, the point, 6 digits
  EXPECT_EQ(largest.substr(0, 15), u"179769313486231");
  EXPECT_EQ(largest.substr(309), u".000000");
  EXPECT_EQ(formatted(360, u"%.400f", -kLargest).size(), 353u);  // the sign, 351 digits, the point
  EXPECT_EQ(formatted(360, u"%.400f", kSmallest).size(), 352u);  // 350 digits after the point
}

TEST(FormatFloat, KeepsAWidthOfAnySize) {
  for (const int width : {999, 5000}) {
    const auto size = static_cast<size_t>(width);
    EXPECT_EQ(formatted(size, u"%*.1f", width, 1.5), std::u16string(size - 3, u' ') + u"1.5");
    EXPECT_EQ(formatted(size, u"%0*.1f", width, -1.5), u"-" + zeros(size - 4) + u"1.5");
    EXPECT_EQ(formatted(size, u"%-*.1f", width, 1.5), u"1.5" + std::u16string(size - 3, u' '));
    EXPECT_EQ(formatted(size, u"%0*f", width, kNan), std::u16string(size - 3, u' ') + u"nan");
  }
}

// ---- The parts on their own

std::u16string placed(size_t size, double value, int width, int precision, char16_t form,
                      int flags) {
  GuardedText buffer(size);
  const QVWCHAR* const end = QVWString().flt(buffer, value, width, precision, form, flags);
  EXPECT_EQ(end - buffer.data(), static_cast<std::ptrdiff_t>(size));
  return buffer.all();
}

TEST(Flt, TakesTheSignAsADigitWithoutTheSignedFlag) {
  EXPECT_EQ(placed(4, -1.5, -1, 1, u'f', 0), u"-1.5");
  EXPECT_EQ(placed(6, -1.5, 6, 1, u'f', 1), u"00-1.5");
  EXPECT_EQ(placed(6, -1.5, 6, 1, u'f', 1 | 2), u"-001.5");
  EXPECT_EQ(placed(3, 1.5, -1, 1, u'f', 4), u"1.5");
  EXPECT_EQ(placed(4, -kInfinity, -1, 1, u'f', 0), u"-inf");
  EXPECT_EQ(placed(6, -kInfinity, 6, 1, u'f', 1), u"  -inf");
}

TEST(Flt, TakesAnyOtherFormAsFixed) {
  EXPECT_EQ(placed(4, 1.5, -1, 2, u'x', 2), u"1.50");
  EXPECT_EQ(placed(3, kInfinity, -1, 2, u'F', 2), u"inf");
}

TEST(Flt, TakesAnyNegativePrecisionAsSix) {
  EXPECT_EQ(placed(8, 1.5, -1, -1, u'f', 2), u"1.500000");
  EXPECT_EQ(placed(8, 1.5, -1, INT32_MIN, u'f', 2), u"1.500000");
  EXPECT_EQ(placed(7, 1.5, -1, -1, u'G', 2), u"1.50000");
}

// The terminated text of cfltcvt, which gets the capacity it is promised.
std::u16string bare(double value, char16_t form, int precision) {
  GuardedText buffer(360);
  QVWString().cfltcvt(value, buffer, form, precision);
  return text(buffer);
}

TEST(Cfltcvt, WritesTheBareNumberWithItsMinusSign) {
  EXPECT_EQ(bare(1.5, u'f', 2), u"1.50");
  EXPECT_EQ(bare(-1.5, u'f', 2), u"-1.50");
  EXPECT_EQ(bare(-1.5, u'e', 1), u"-1.5e+000");
  EXPECT_EQ(bare(-1.5, u'G', 3), u"-1.50");
  EXPECT_EQ(bare(0.00001, u'G', 2), u"1.0E-005");
  EXPECT_EQ(bare(-0.0, u'f', 1), u"0.0");
  EXPECT_EQ(bare(-0.25, u'f', 0), u"-0");
  EXPECT_EQ(bare(-kInfinity, u'E', 0), u"-INF");
  EXPECT_EQ(bare(kNan, u'f', 0), u"nan");
}

TEST(Cfltcvt, TakesAnyPrecision) {
  EXPECT_EQ(bare(1.5, u'f', INT32_MAX), u"1.5" + zeros(349));
  EXPECT_EQ(bare(1.5, u'e', INT32_MAX), u"1.5" + zeros(348) + u"e+000");
  EXPECT_EQ(bare(1.5, u'g', INT32_MAX), u"1.5" + zeros(349));
  EXPECT_EQ(bare(1.25, u'f', INT32_MIN), u"1");
  EXPECT_EQ(bare(1.25, u'e', INT32_MIN), u"");
  EXPECT_EQ(bare(1.25, u'g', INT32_MIN), u"");
  EXPECT_EQ(bare(-1.25, u'e', -1), u"-");
  EXPECT_EQ(bare(1.25, u'g', 0), u"");
  EXPECT_EQ(bare(0.25, u'g', 0), u"0");
}

struct Converted {
  std::u16string digits;
  int decimalPoint;
  int negative;
  bool operator==(const Converted&) const = default;
};

void PrintTo(const Converted& converted, std::ostream* out) {
  *out << '"' << narrow(converted.digits) << "\" " << converted.decimalPoint << ' '
       << converted.negative;
}

enum class By { ecvtbuf, fcvtbuf };

Converted convert(By function, double value, int digits) {
  GuardedText buffer(352);
  Converted result{u"", 4711, 4711};
  const bool exponentForm = function == By::ecvtbuf;
  const QVWCHAR* const returned =
      exponentForm
          ? QVWString().ecvtbuf(value, digits, &result.decimalPoint, &result.negative, buffer)
          : QVWString().fcvtbuf(value, digits, &result.decimalPoint, &result.negative, buffer);
  EXPECT_EQ(returned, buffer.data());
  result.digits = text(buffer);

  GuardedText again(352);
  Converted same{u"", 4711, 4711};
  QVWString().cvt(value, digits, &same.decimalPoint, &same.negative, again, exponentForm ? 1 : 0);
  same.digits = text(again);
  EXPECT_EQ(result, same);
  return result;
}

TEST(Cvt, CountsAllDigitsInTheExponentForm) {
  EXPECT_EQ(convert(By::ecvtbuf, 1.5, 4), (Converted{u"1500", 1, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, -123.5, 3), (Converted{u"124", 3, 1}));
  EXPECT_EQ(convert(By::ecvtbuf, 1234.0, 2), (Converted{u"12", 4, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 0.0625, 2), (Converted{u"63", -1, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 0.5, 1), (Converted{u"5", 0, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 0.0, 3), (Converted{u"000", 0, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 9.96875, 2), (Converted{u"10", 2, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 0.001, 1), (Converted{u"1", -2, 0}));
}

TEST(Cvt, CountsDigitsAfterThePointInTheFixedForm) {
  EXPECT_EQ(convert(By::fcvtbuf, 1.5, 4), (Converted{u"15000", 1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, -123.5, 0), (Converted{u"124", 3, 1}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.0625, 3), (Converted{u"63", -1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.0625, 1), (Converted{u"1", 0, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.0, 3), (Converted{u"000", 0, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 9.96875, 1), (Converted{u"100", 2, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.96875, 1), (Converted{u"10", 1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.75, 0), (Converted{u"1", 1, 0}));
}

TEST(Cvt, HasNoDigitsWhereTheLastWantedOneComesBeforeTheFirst) {
  EXPECT_EQ(convert(By::fcvtbuf, 0.001, 1), (Converted{u"", -2, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, -0.03125, 0), (Converted{u"", -1, 1}));
  EXPECT_EQ(convert(By::fcvtbuf, 0.25, 0), (Converted{u"", 0, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 0.25, 0), (Converted{u"", 0, 0}));
}

TEST(Cvt, ClampsTheRequest) {
  EXPECT_EQ(convert(By::ecvtbuf, 1.5, 350), (Converted{u"15" + zeros(348), 1, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 1.5, 351), (Converted{u"15" + zeros(348), 1, 0}));
  EXPECT_EQ(convert(By::ecvtbuf, 1.5, INT32_MAX), (Converted{u"15" + zeros(348), 1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1.5, INT32_MAX), (Converted{u"15" + zeros(349), 1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1.25, -1), (Converted{u"1", 1, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1.25, INT32_MIN), (Converted{u"1", 1, 0}));
}

TEST(Cvt, CutsAt351Characters) {
  EXPECT_EQ(convert(By::fcvtbuf, 1e22, 327), (Converted{u"1" + zeros(349), 23, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1e22, 328), (Converted{u"1" + zeros(350), 23, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1e22, 329), (Converted{u"1" + zeros(350), 23, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, 1e22, 350), (Converted{u"1" + zeros(350), 23, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, kLargest, 350).digits.size(), 351u);
}

// Beyond 2^53 the tenth of a number has no fraction left to take a digit from.
TEST(Cvt, HasZerosAfterTheDigitsThatADoubleHolds) {
  EXPECT_EQ(convert(By::fcvtbuf, 9007199254740992.0, 0), (Converted{u"9007199254740992", 16, 0}));
  const std::u16string digits = convert(By::fcvtbuf, kLargest, 0).digits;
  ASSERT_EQ(digits.size(), 309u);
  EXPECT_EQ(digits.substr(0, 15), u"179769313486231");
  EXPECT_EQ(digits.substr(20), zeros(289));
}

TEST(Cvt, HasTextsForWhatIsNoNumber) {
  EXPECT_EQ(convert(By::ecvtbuf, kInfinity, 3), (Converted{u"inf", 0, 0}));
  EXPECT_EQ(convert(By::fcvtbuf, -kInfinity, 0), (Converted{u"inf", 0, 1}));
  EXPECT_EQ(convert(By::ecvtbuf, kNan, 350), (Converted{u"nan", 0, 0}));
}

std::u16string cropped(std::u16string_view number) {
  GuardedText buffer(number);
  QVWString().cropzeros(buffer);
  return text(buffer);
}

TEST(Cropzeros, RemovesTheZerosAfterThePoint) {
  EXPECT_EQ(cropped(u"1.500"), u"1.5");
  EXPECT_EQ(cropped(u"1.000"), u"1");
  EXPECT_EQ(cropped(u"-0.0500"), u"-0.05");
  EXPECT_EQ(cropped(u"1.5"), u"1.5");
  EXPECT_EQ(cropped(u"1."), u"1");
}

TEST(Cropzeros, MovesTheExponentDown) {
  EXPECT_EQ(cropped(u"1.500e+010"), u"1.5e+010");
  EXPECT_EQ(cropped(u"1.000E-300"), u"1E-300");
  EXPECT_EQ(cropped(u"1.e+000"), u"1e+000");
  EXPECT_EQ(cropped(u"1.25e+000"), u"1.25e+000");
}

TEST(Cropzeros, LeavesANumberWithoutAPointAlone) {
  EXPECT_EQ(cropped(u"100"), u"100");
  EXPECT_EQ(cropped(u"1e+100"), u"1e+100");
  EXPECT_EQ(cropped(u""), u"");
}

std::u16string pointed(std::u16string_view number) {
  GuardedText buffer(number, 1);
  QVWString().forcdecpt(buffer);
  return text(buffer);
}

TEST(Forcdecpt, AddsAPointWhereThereIsNone) {
  EXPECT_EQ(pointed(u"1"), u"1.");
  EXPECT_EQ(pointed(u"-12"), u"-12.");
  EXPECT_EQ(pointed(u"1e+000"), u"1.e+000");
  EXPECT_EQ(pointed(u"1E-005"), u"1.E-005");
  EXPECT_EQ(pointed(u""), u".");
}

TEST(Forcdecpt, LeavesAPointAlone) {
  EXPECT_EQ(pointed(u"1.5"), u"1.5");
  EXPECT_EQ(pointed(u"1."), u"1.");
  EXPECT_EQ(pointed(u"1.5e+000"), u"1.5e+000");
}

}  // namespace
