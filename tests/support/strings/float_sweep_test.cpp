// Random doubles in random directives, against the rules written down a second time.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <random>

#include "kit/layers.h"
#include "kit/random_seed.h"
#include "support/strings/float_rules.h"
#include "support/strings/formatted.h"

using namespace qvdbase::test;

namespace {

class RandomNumbers {
 public:
  explicit RandomNumbers(uint64_t seed) : engine_(seed) {}

  int between(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(engine_);
  }
  bool chance(int percent) { return between(1, 100) <= percent; }

  // Any double: what is no number and what is nearly 0 come up too.
  double anyDouble() { return std::bit_cast<double>(engine_()); }

  // A number of few decimal digits, as people write them.
  double plainDouble() {
    const int digits = between(-99999, 99999);
    return digits * std::pow(10.0, between(-12, 12));
  }

  // A number that rounding carries upwards: nines, and a last digit around the half.
  double nines() {
    const double power = std::pow(10.0, between(-8, 8));
    return power - power * std::pow(10.0, -between(1, 16)) * between(0, 9);
  }

  double value() {
    switch (between(0, 3)) {
      case 0:
        return anyDouble();
      case 1:
        return nines();
      default:
        return plainDouble();
    }
  }

  rules::Directive directive() {
    rules::Directive result;
    result.left = chance(20);
    result.plus = chance(20);
    result.space = chance(20);
    result.alternate = chance(30);
    result.zero = chance(30);
    if (chance(50)) result.width = between(0, 40);
    if (chance(2)) result.width = between(300, 999);
    if (chance(80)) result.precision = between(0, 20);
    if (chance(5)) result.precision = between(300, 400);
    result.form = "eEfgG"[between(0, 4)];
    return result;
  }

 private:
  std::mt19937_64 engine_;
};

std::string textOf(const rules::Directive& directive) {
  std::string format = "%";
  if (directive.left) format += '-';
  if (directive.plus) format += '+';
  if (directive.space) format += ' ';
  if (directive.alternate) format += '#';
  if (directive.zero) format += '0';
  if (directive.width >= 0) format += std::to_string(directive.width);
  if (directive.precision >= 0) format += "." + std::to_string(directive.precision);
  return format + directive.form;
}

std::string libraryText(const std::string& format, double value) {
  return narrow(formatted(1000, std::u16string(format.begin(), format.end()), value));
}

TEST(FloatSweep, FollowsTheRulesForEveryDouble) {
  RandomNumbers random(randomSeed());
  for (int round = 0; round < 40000; ++round) {
    const rules::Directive directive = random.directive();
    const double value = random.value();
    const std::string format = textOf(directive);
    ASSERT_EQ(libraryText(format, value), rules::format(directive, value))
        << format << " of the double " << std::hex << std::bit_cast<uint64_t>(value);
  }
}

// Whatever the rules are, a number has to come back as itself: to some thirteen digits, because
// each of the steps that lead to the first digit rounds.
TEST(FloatSweep, KeepsTheValue) {
  RandomNumbers random(randomSeed());
  for (int round = 0; round < 20000; ++round) {
    const double value = random.value();
    if (!std::isfinite(value)) continue;
    const std::string text = libraryText("%.17e", value);
    const double back = std::strtod(text.c_str(), nullptr);
    ASSERT_NEAR(back, value, std::fabs(value) * 1e-12) << text;
  }
}

TEST(FloatSweep, LeftAndRightMirrorEachOther) {
  RandomNumbers random(randomSeed());
  for (int round = 0; round < 10000; ++round) {
    rules::Directive directive = random.directive();
    directive.zero = false;
    directive.space = false;  // a sign that cannot be distinguished from the fill
    directive.left = false;
    const double value = random.value();
    const std::string right = libraryText(textOf(directive), value);
    directive.left = true;
    const std::string left = libraryText(textOf(directive), value);

    ASSERT_EQ(right.size(), left.size());
    ASSERT_GE(static_cast<int>(right.size()), directive.width);
    const size_t spaces = std::min(right.find_first_not_of(' '), right.size());
    ASSERT_EQ(left, right.substr(spaces) + right.substr(0, spaces)) << textOf(directive);
  }
}

}  // namespace
