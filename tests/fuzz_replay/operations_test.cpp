// Runs the fuzz target of operation sequences over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput operationsFuzzTarget
#include "fuzz/operations_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include <random>

#include "fuzz_replay/replay.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"

using namespace qvdbase::test;

namespace {

TEST(OperationsFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(operationsFuzzTarget, "operations"), 8);
}

TEST(OperationsFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(operationsFuzzTarget, "operations", 97);
}

TEST(OperationsFuzzTarget, TakesRandomInputs) {
  std::mt19937_64 random(randomSeed());
  const int inputs = testEverything() ? 2000 : 20;
  for (int i = 0; i < inputs; ++i) {
    Bytes input(random() % 800);
    for (uint8_t& byte : input) byte = static_cast<uint8_t>(random());
    EXPECT_EQ(operationsFuzzTarget(input.data(), input.size()), 0);
  }
  reportCount("hostile inputs", static_cast<uint64_t>(inputs));
}

}  // namespace
