// The values and keys of the benchmarks' records.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "workloads/values.h"

namespace bench {
namespace {

TEST(BenchValues, CarryTheirStampAtBothEnds) {
  Values values(40);
  const auto value = values.of(0x01020304);
  EXPECT_EQ(stampOf(value), 0x01020304u);
  EXPECT_EQ(stampOf(value.last(8)), 0x01020304u);
  EXPECT_EQ(value[8], static_cast<char>(8 * 31 + 7));
}

TEST(BenchValues, HaveNamesThatNoOthersHave) {
  std::set<std::string> names;
  for (uint64_t stamp = 0; stamp < 100'000; ++stamp) names.insert(nameOf(stamp));
  EXPECT_EQ(names.size(), 100'000u);
  EXPECT_TRUE(std::all_of(names.begin(), names.end(), [](const std::string& name) {
    return name.size() == 16 && name.find_first_not_of("0123456789abcdef") == name.npos;
  }));
}

// So a prefix has about as many records as any other of its length.
TEST(BenchValues, HaveNamesThatAreSpreadOverAllLetters) {
  std::vector<int> counts(256);
  for (uint64_t stamp = 1; stamp <= 25'600; ++stamp) {
    ++counts[std::stoul(nameOf(stamp).substr(0, 2), nullptr, 16)];
  }
  const auto [fewest, most] = std::minmax_element(counts.begin(), counts.end());
  EXPECT_GT(*fewest, 50);
  EXPECT_LT(*most, 200);
}

TEST(BenchValues, HaveTheNamesOfTheirStamps) {
  Values values(16);
  EXPECT_EQ(nameOf(values.of(77)), nameOf(uint64_t{77}));
}

}  // namespace
}  // namespace bench
