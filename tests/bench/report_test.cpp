// Tables and picture of the benchmarks.
#include <gtest/gtest.h>

#include <algorithm>

#include "report/comparison.h"
#include "report/picture.h"
#include "report/remarks.h"
#include "report/tables.h"
#include "report/text.h"

namespace bench {
namespace {

constexpr Size kSize{100, 1000};

Figure figure(const std::string& workload, const std::string& store, double time,
              Size size = kSize) {
  return {workload, store, size, {time, time, time}, {2 * time, 2 * time, 2 * time}, 1, {}};
}

Results lookups() {
  Results results;
  results.put(figure("lookup", "qvdbase-c", 900));
  results.put(figure("lookup", "qvdbase", 150));
  results.put(figure("lookup", "sqlite-wal", 1500));
  results.put(figure("lookup", "lmdb", 300));
  results.put(figure("lookup", "raw-pread", 100));
  results.put(figure("lookup", "raw-memcpy", 50));
  return results;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(BenchComparison, FindsTheFastestOfOursOfThePeersAndOfTheLimits) {
  const Results results = lookups();
  const std::vector<Comparison> all = compare(results);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].ours->store, "qvdbase");
  EXPECT_EQ(all[0].peer->store, "lmdb");
  EXPECT_EQ(all[0].limit->store, "raw-memcpy");
  EXPECT_EQ(all[0].figures.front()->store, "raw-memcpy");
  EXPECT_EQ(all[0].figures.back()->store, "sqlite-wal");
}

TEST(BenchComparison, KeepsSizesAndWorkloadsApart) {
  Results results = lookups();
  results.put(figure("append", "qvdbase", 1));
  results.put(figure("lookup", "qvdbase", 1, {100, 500}));
  const std::vector<Comparison> all = compare(results);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].size, (Size{100, 500}));
  EXPECT_EQ(all[1].workload, "lookup");
  EXPECT_EQ(all[2].workload, "append");
}

TEST(BenchTables, HaveARowForEachStoreWithItsRatios) {
  const std::string tables = tablesOf(lookups());
  EXPECT_TRUE(contains(tables, "### 1,000 records of 100 bytes\n"));
  EXPECT_TRUE(contains(
      tables, "| lookup | **qvdbase** | 150 ns | 0 % | 300 ns | 0 % | 0.50 | 3.00 |  |  |\n"));
  EXPECT_TRUE(
      contains(tables, "| lookup | lmdb | 300 ns | 0 % | 600 ns | 0 % | 1.00 | 6.00 |  |  |\n"));
}

TEST(BenchTables, MarkFiguresThatStayedUnsteady) {
  Results results;
  Figure noisy = figure("lookup", "lmdb", 100);
  noisy.processor = {60, 80, 100, 120, 140};
  results.put(noisy);
  EXPECT_TRUE(contains(tablesOf(results), "| 100 ns | 40 % (!) | 200 ns | 0 % |"));
}

TEST(BenchTables, ShowTheSpaceThatAStoreOccupies) {
  Results results;
  Figure figure = bench::figure("batch", "lmdb", 100);
  figure.notes["disk_per_record"] = 1234;
  results.put(figure);
  EXPECT_TRUE(contains(tablesOf(results), "| 1,234 |  |\n"));
}

TEST(BenchTables, ShowTheMemoryThatAnIndexTakes) {
  Results results;
  Figure figure = bench::figure("key-lookup", "qvdbase-keys", 100);
  figure.notes["memory_per_record"] = 61.7;
  results.put(figure);
  const std::string tables = tablesOf(results);
  EXPECT_TRUE(contains(tables, "|  | 61 |\n"));
  EXPECT_TRUE(contains(tables, "bytes of memory per record |\n"));
}

TEST(BenchSummary, SetsUsBesideTheBestPeerAndTheLimit) {
  EXPECT_EQ(summaryOf(lookups(), kSize),
            "| workload | we | best peer | limit | if not ahead, why |\n"
            "|---|---|---|---|---|\n"
            "| lookup | 150 ns qvdbase | 300 ns lmdb (0.50) | 50 ns raw-memcpy (3.00) |  |\n");
}

TEST(BenchSummary, LeavesCellsEmptyThatHaveNoFigure) {
  Results results;
  results.put(figure("check", "qvdbase", 150));
  results.put(figure("other", "lmdb", 150));
  results.put(figure("check", "qvdbase", 77, {100, 9}));
  EXPECT_EQ(summaryOf(results, kSize),
            "| workload | we | best peer | limit | if not ahead, why |\n"
            "|---|---|---|---|---|\n"
            "| check | 150 ns qvdbase |  |  |  |\n");
}

TEST(BenchSummary, SaysWhyAPeerIsAhead) {
  Results results;
  results.put(figure("delete", "qvdbase", 300));
  results.put(figure("delete", "lmdb", 200));
  const std::string why = whyBehind("delete");
  EXPECT_NE(why, "");
  EXPECT_TRUE(contains(summaryOf(results, kSize), "| 200 ns lmdb (1.50) |  | " + why + " |\n"));
}

TEST(BenchSummary, HasNoReasonForWhatItDoesNotKnow) {
  EXPECT_EQ(whyBehind("delet"), "");
}

TEST(BenchGrowth, HasAColumnForEachNumberOfRecords) {
  Results results = lookups();
  results.put(figure("lookup", "qvdbase", 2'500'000, {100, 2000}));
  EXPECT_EQ(growthOf(results),
            "| workload | store | 1,000 records of 100 bytes | 2,000 records of 100 bytes |\n"
            "|---|---|---|---|\n"
            "| lookup | qvdbase | 150 ns | 2500.0 us |\n"
            "| lookup | qvdbase-c | 900 ns |  |\n");
}

TEST(BenchPicture, PlacesRatiosOnALogarithmicScale) {
  EXPECT_DOUBLE_EQ(placeOf(1, 0.25, 4), 0.5);
  EXPECT_DOUBLE_EQ(placeOf(4, 0.25, 4), 1);
  EXPECT_DOUBLE_EQ(placeOf(1000, 0.25, 4), 1);
  EXPECT_DOUBLE_EQ(placeOf(0.001, 0.25, 4), 0);
}

TEST(BenchPicture, HasADotForEachPeerInEachRow) {
  Results results = lookups();
  results.put(figure("append", "qvdbase", 100));
  results.put(figure("append", "lmdb", 100));
  results.put(figure("check", "qvdbase", 100));  // no peer
  const std::string picture = pictureOf(results, kSize);
  EXPECT_TRUE(contains(picture, "<title>lmdb: 2.00 times our time</title>"));
  EXPECT_TRUE(contains(picture, "<title>sqlite-wal: 10.00 times our time</title>"));
  EXPECT_TRUE(contains(picture, "<title>lmdb: 1.00 times our time</title>"));
  EXPECT_EQ(occurrences(picture, "times our time</title>"), 3u);
  EXPECT_FALSE(contains(picture, ">check<"));
  EXPECT_FALSE(contains(picture, "raw-"));
}

TEST(BenchPicture, ClosesWhatItOpens) {
  const std::string picture = pictureOf(lookups(), kSize);
  EXPECT_EQ(picture.rfind("<svg ", 0), 0u);
  EXPECT_TRUE(picture.ends_with("</svg>\n"));
  EXPECT_EQ(occurrences(picture, "<text "), occurrences(picture, "</text>"));
  EXPECT_EQ(occurrences(picture, "<circle "), occurrences(picture, "</circle>"));
}

TEST(BenchText, ShowsDurationsInTheUnitThatFits) {
  EXPECT_EQ(duration(43.4), "43 ns");
  EXPECT_EQ(duration(9999), "9999 ns");
  EXPECT_EQ(duration(12'340), "12.3 us");
  EXPECT_EQ(duration(78'000'000), "78.0 ms");
}

TEST(BenchText, GroupsDigits) {
  EXPECT_EQ(grouped(1), "1");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(10'000'000), "10,000,000");
}

}  // namespace
}  // namespace bench
