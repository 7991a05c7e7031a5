// The order of the turns of the benchmarks, and which figures are measured again.
#include "figures/measure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace bench {
namespace {

// A participant whose turns take the given times, the last one for ever.
struct Script {
  std::string name;
  std::vector<double> times;
  std::vector<std::string>* log;
  size_t next = 0;
};

Participant participant(Script& script) {
  return {script.name, [&script](size_t) { script.log->push_back(script.name + " begins"); },
          [&script] {
            script.log->push_back(script.name + " turn");
            const double time = script.times[std::min(script.next, script.times.size() - 1)];
            ++script.next;
            return Sample{time, 2 * time};
          },
          [&script] { script.log->push_back(script.name + " ends"); }};
}

class BenchMeasure : public testing::Test {
 protected:
  std::vector<Measured> measure(const Plan& plan) {
    std::vector<Participant> participants;
    for (Script& script : scripts_) participants.push_back(participant(script));
    return bench::measure(participants, plan, random_);
  }
  size_t logged(const std::string& entry) const {
    return static_cast<size_t>(std::count(log_.begin(), log_.end(), entry));
  }

  std::vector<std::string> log_;
  std::vector<Script> scripts_;
  std::mt19937_64 random_{1};
};

TEST_F(BenchMeasure, LeavesWarmUpTurnsOutOfEveryVisit) {
  scripts_ = {{"a", {900, 10, 11, 900, 12, 13}, &log_}};
  const auto measured = measure({.visits = 2, .warmUpTurns = 1, .turns = 2, .attempts = 1});
  EXPECT_EQ(measured[0].processor, (std::vector<double>{10, 11, 12, 13}));
  EXPECT_EQ(measured[0].wall, (std::vector<double>{20, 22, 24, 26}));
}

TEST_F(BenchMeasure, LeavesWarmUpVisitsOut) {
  scripts_ = {{"a", {900, 10, 11}, &log_}};
  const auto measured =
      measure({.visits = 2, .warmUpVisits = 1, .warmUpTurns = 0, .turns = 1, .attempts = 1});
  EXPECT_EQ(measured[0].processor, (std::vector<double>{10, 11}));
}

TEST_F(BenchMeasure, VisitsOneAfterTheOther) {
  scripts_ = {{"a", {1}, &log_}, {"b", {1}, &log_}};
  measure({.visits = 3, .warmUpTurns = 1, .turns = 2, .attempts = 1});
  ASSERT_EQ(log_.size(), 2u * 3 * 5);
  for (size_t i = 0; i < log_.size(); i += 5) {
    const std::string name = log_[i].substr(0, 1);
    const std::vector<std::string> visit(log_.begin() + static_cast<std::ptrdiff_t>(i),
                                         log_.begin() + static_cast<std::ptrdiff_t>(i + 5));
    EXPECT_EQ(visit, (std::vector<std::string>{name + " begins", name + " turn", name + " turn",
                                               name + " turn", name + " ends"}));
  }
  EXPECT_EQ(logged("a begins"), 3u);
  EXPECT_EQ(logged("b begins"), 3u);
}

TEST_F(BenchMeasure, MeasuresASteadyFigureOnce) {
  scripts_ = {{"a", {100, 101, 102, 103}, &log_}};
  const auto measured = measure({.visits = 4, .warmUpTurns = 0, .turns = 1, .attempts = 3});
  EXPECT_EQ(measured[0].attempts, 1u);
  EXPECT_EQ(logged("a turn"), 4u);
}

TEST_F(BenchMeasure, MeasuresAnUnsteadyFigureAgainAndKeepsTheSteadyOne) {
  scripts_ = {{"steady", {100}, &log_}, {"noisy", {10, 400, 10, 400, 50, 51, 52, 53}, &log_}};
  const auto measured = measure({.visits = 4, .warmUpTurns = 0, .turns = 1, .attempts = 3});
  EXPECT_EQ(measured[1].attempts, 2u);
  EXPECT_EQ(measured[1].processor, (std::vector<double>{50, 51, 52, 53}));
  EXPECT_EQ(logged("steady turn"), 4u);
}

TEST_F(BenchMeasure, GivesUpAfterTheLastAttemptAndKeepsTheSteadiest) {
  scripts_ = {{"a", {10, 400, 10, 400, 50, 90, 50, 90, 10, 300, 10, 300}, &log_}};
  const auto measured = measure({.visits = 4, .warmUpTurns = 0, .turns = 1, .attempts = 3});
  EXPECT_EQ(measured[0].attempts, 3u);
  EXPECT_EQ(measured[0].processor, (std::vector<double>{50, 90, 50, 90}));
}

TEST_F(BenchMeasure, BeginsNoOtherAttemptWhenTheTimeIsOver) {
  scripts_ = {{"a", {10, 400}, &log_}};
  const auto measured =
      measure({.visits = 2, .warmUpTurns = 0, .turns = 1, .attempts = 3, .seconds = 0});
  EXPECT_EQ(measured[0].attempts, 1u);
}

}  // namespace
}  // namespace bench
