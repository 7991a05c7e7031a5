// Every way for a call to the host to fail; under the sanitizers a sample of them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kit/recorded_calls.h"
#include "kit/sanitized.h"
#include "kit/test_extent.h"

namespace qvdbase::test {

// A way for calls of a kind to fail, from the one after `skip` others on.
struct Failure {
  std::string name;
  Call kind;
  std::function<void(RecordedCalls&, int skip)> plan;
  bool isError = true;  // else a transfer is cut short, which is legal
  bool isForGood = false;
};

inline std::vector<Failure> allFailures() {
  std::vector<Failure> all;
  for (const Call kind : kFailingCalls) {
    const std::string name = nameOf(kind);
    all.push_back({name + " fails once", kind,
                   [=](RecordedCalls& host, int skip) { host.failOnce(kind, skip); }});
    all.push_back({name + " fails from then on", kind,
                   [=](RecordedCalls& host, int skip) { host.failFrom(kind, skip); }, true, true});
  }
  std::vector<std::pair<const char*, Part>> parts = {
      {"half", halfOf()}, {"0 bytes", noneOf()}, {"1 byte", exactly(1)}, {"all but 1", allBut(1)}};
  if (kIsSanitized && !testEverything()) parts.resize(2);
  for (const Call kind : {Call::read, Call::write}) {
    for (const auto& [text, part] : parts) {
      const std::string name = std::string(nameOf(kind)) + " moves " + text;
      all.push_back(
          {name, kind,
           [=, part = part](RecordedCalls& host, int skip) { host.cutOnce(kind, part, skip); },
           false});
      all.push_back(
          {name + " and fails from then on", kind,
           [=, part = part](RecordedCalls& host, int skip) { host.cutFrom(kind, part, skip); },
           true, true});
    }
  }
  return all;
}

// Lets every call fail in every way: `attempt` with the failure and how many calls it passes over,
// and `judge` what came of it, as long as something failed. Of a long operation's calls the sample
// tries the first `closely`, and then ever fewer; half as closely under the sanitizers, which make
// each attempt several times as long. Returns how many attempts there were.
template <typename Attempt, typename Judge>
uint64_t tryAllFailures(int closely, Attempt attempt, Judge judge) {
  if (kIsSanitized) closely = (closely + 1) / 2;
  uint64_t attempts = 0;
  for (const Failure& failure : allFailures()) {
    for (int skip = 0;; skip += 1 + (testEverything() ? 0 : skip / closely)) {
      SCOPED_TRACE(failure.name + " after " + std::to_string(skip));
      const auto outcome = attempt(&failure, skip);
      if (!outcome.failed) {
        EXPECT_TRUE(outcome.succeeded);
        break;
      }
      ++attempts;
      judge(failure, outcome);
      if (testing::Test::HasFailure()) return attempts;
    }
  }
  return attempts;
}

}  // namespace qvdbase::test
