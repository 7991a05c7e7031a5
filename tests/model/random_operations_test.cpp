// Random sequences of operations, on the library and on a model at once. Every answer is compared,
// and at the end the whole file: byte for byte with the model's, through the independent reader,
// and by the checker.
//
// A run prints its seed ("Using configuration: seed=..."). The same run again, or more of them:
//
//   RC_PARAMS="seed=4711" model_tests
//   RC_PARAMS="max_success=10000 max_size=200" model_tests
//
// A failing sequence is made shorter until nothing in it can be left out, and then printed.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <array>
#include <string>
#include <vector>

#include "kit/threads.h"
#include "model/pair.h"

namespace qvdbase::test {
namespace {

TEST(RandomOperations, AnswerAndWriteWhatTheModelSays) {
  EXPECT_TRUE(rc::check("every answer and the whole file are the model's", [] {
    const auto operations = *anySequence();
    const PairsClock clock;
    Pair pair;
    for (const Operation& each : operations) pair.run(each);
    pair.compareFile();
  }));
}

// Sequences on one table, long enough for chains to be cut at both ends and in the middle.
TEST(RandomOperations, OnOneTableAnswerAndWriteWhatTheModelSays) {
  EXPECT_TRUE(rc::check("every answer and the whole file are the model's", [] {
    auto operations = *anySequence();
    const PairsClock clock;
    Pair pair;
    pair.run({.kind = Kind::addTable, .table = 1});
    for (Operation& each : operations) {
      if (each.kind != Kind::addTable) each.table = 0;
      if (each.kind == Kind::addTable) each.kind = Kind::addRecord;
      pair.run(each);
    }
    pair.compareFile();
  }));
}

// The same, read from a mirror of the file, which holds all of it, or less.
TEST(RandomOperations, WithACacheAnswerAndWriteWhatTheModelSays) {
  for (const uint64_t budget : {uint64_t{64} << 20, uint64_t{64} << 10}) {
    EXPECT_TRUE(rc::check("every answer and the whole file are the model's", [budget] {
      auto operations = *anySequence();
      const PairsClock clock;
      Pair pair;
      pair.useMirror(budget);
      pair.run({.kind = Kind::addTable, .table = 1});
      for (Operation& each : operations) {
        if (each.kind == Kind::addTable) each.kind = Kind::addRecord;
        pair.run(each);
      }
      pair.compareFile();
    }));
  }
}

// The same, and while the file is closed every lookup by indexes: by those that are kept beside it,
// which the changes have overtaken, and by those that are built.
TEST(RandomOperations, AreFoundByKeptIndexesAsByThoseThatAreBuilt) {
  int indexes = 0;
  int keys = 0;
  EXPECT_TRUE(rc::check("every lookup finds what the model has", [&] {
    auto operations = *anySequence();
    const PairsClock clock;
    Pair pair;
    pair.askIndexes();
    pair.run({.kind = Kind::addTable, .table = 1});
    size_t number = 0;
    for (Operation& each : operations) {
      if (each.kind == Kind::addTable && each.table % 4 != 0) each.kind = Kind::addRecord;
      pair.run(each);
      if (++number % 20 == 0) pair.run({.kind = Kind::reopen});
    }
    pair.compareFile();
    indexes += pair.indexesFromFile();
    keys += pair.keysFromFile();
  }));
  EXPECT_GT(indexes, 10) << "otherwise this has proved nothing";
  EXPECT_GT(keys, 10);
}

// Four sequences at once, on a file each: none of them notices the others.
TEST(RandomOperations, OfFourThreadsAnswerAndWriteWhatTheModelSays) {
  if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
  EXPECT_TRUE(rc::check("every answer and each whole file are the model's", [] {
    std::array<std::vector<Operation>, 4> sequences;
    for (auto& each : sequences) each = *anySequence();
    std::array<std::string, 4> failures;
    const PairsClock clock;
    runThreads(4, [&](int i) {
      const auto number = static_cast<size_t>(i);
      try {
        Pair pair;
        for (const Operation& each : sequences[number]) pair.run(each);
        pair.compareFile();
      } catch (const rc::detail::CaseResult& result) {
        failures[number] = "in thread " + std::to_string(i) + ": " + result.description;
      }
    });
    for (const std::string& failure : failures) {
      if (!failure.empty()) RC_FAIL(failure);
    }
  }));
}

}  // namespace
}  // namespace qvdbase::test
