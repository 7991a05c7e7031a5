// Runs the fuzz target of check and salvage over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput checkFuzzTarget
#include "fuzz/check_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include "fuzz_replay/replay.h"

using namespace qvdbase::test;

namespace {

TEST(CheckFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(checkFuzzTarget, "database"), 16);
}

TEST(CheckFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(checkFuzzTarget, "database", 997);
}

}  // namespace
