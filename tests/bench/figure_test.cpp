// The file of results, and how the machine is named.
#include "figures/figure.h"

#include <gtest/gtest.h>

#include <fstream>

#include "kit/temp_folder.h"

namespace bench {
namespace {

class BenchResults : public testing::Test {
 protected:
  std::filesystem::path path(const std::string& name) const { return folder_ / name; }

  qvdbase::test::TempFolder folder_;
};

Results someResults() {
  Results results;
  results.machine = {"AMD EPYC", 2, 23, "Linux 6.18", "ext4", "g++ 12.2"};
  results.put({"lookup", "lmdb", {100, 1000}, {1.5, 2}, {3, 4}, 2, {{"disk_per_record", 123}}});
  return results;
}

TEST_F(BenchResults, AreReadAsTheyWereSaved) {
  save(someResults(), path("results.json"));
  const Results results = load(path("results.json"));
  EXPECT_EQ(results.machine, someResults().machine);
  ASSERT_EQ(results.figures.size(), 1u);
  const Figure& figure = results.figures[0];
  EXPECT_EQ(figure.workload, "lookup");
  EXPECT_EQ(figure.store, "lmdb");
  EXPECT_EQ(figure.size, (Size{100, 1000}));
  EXPECT_EQ(figure.processor, (std::vector<double>{1.5, 2}));
  EXPECT_EQ(figure.wall, (std::vector<double>{3, 4}));
  EXPECT_EQ(figure.attempts, 2u);
  EXPECT_EQ(figure.notes.at("disk_per_record"), 123);
}

TEST_F(BenchResults, LeaveNothingElseInTheFolder) {
  save(someResults(), path("results.json"));
  save(someResults(), path("results.json"));
  EXPECT_FALSE(std::filesystem::exists(path("results.json.new")));
}

TEST_F(BenchResults, RefuseAFileOfSomethingElse) {
  std::ofstream(path("other.json")) << "{\"benchmarks\": []}";
  EXPECT_THROW(load(path("other.json")), std::runtime_error);
  EXPECT_THROW(load(path("missing.json")), std::runtime_error);
}

TEST_F(BenchResults, ReplaceAFigureThatIsMeasuredAgain) {
  Results results = someResults();
  results.put({"lookup", "lmdb", {100, 1000}, {9}, {9}, 1, {}});
  results.put({"lookup", "lmdb", {100, 2000}, {7}, {7}, 1, {}});
  ASSERT_EQ(results.figures.size(), 2u);
  EXPECT_EQ(results.find("lookup", "lmdb", {100, 1000})->processor, std::vector<double>{9});
  EXPECT_EQ(results.find("lookup", "gdbm", {100, 1000}), nullptr);
}

TEST(BenchMachine, IsNamedWithoutTrademarks) {
  EXPECT_EQ(shortModel("Intel(R) Xeon(R) Processor @ 2.80GHz"), "Intel Xeon");
  EXPECT_EQ(shortModel("Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz"), "Intel Core i7-8650U");
  EXPECT_EQ(shortModel("AMD EPYC 7B13"), "AMD EPYC 7B13");
}

TEST(BenchMachine, NamesTheFileSystemOfAFolder) {
  const qvdbase::test::TempFolder folder;
  const Machine machine = machineOf(folder.path());
  EXPECT_NE(machine.fileSystem, "unknown");
  EXPECT_NE(machine.fileSystem, "");
  EXPECT_GT(machine.cores, 0u);
  EXPECT_EQ(machineOf("/proc").fileSystem, "proc");
}

TEST(BenchMachine, IsDescribedInOneLine) {
  EXPECT_EQ(describe(Machine{"AMD EPYC", 2, 23, "Linux 6.18", "ext4", "g++ 12.2"}),
            "2 cores (AMD EPYC), 23 GiB of memory, ext4, Linux 6.18, g++ 12.2");
}

}  // namespace
}  // namespace bench
