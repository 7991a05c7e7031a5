// Runs the fuzz target of category records over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput categoryFuzzTarget
#include "fuzz/category_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include "fuzz_replay/replay.h"

using namespace qvdbase::test;

namespace {

TEST(CategoryFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(categoryFuzzTarget, "category"), 10);
}

TEST(CategoryFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(categoryFuzzTarget, "category", 1);
}

}  // namespace
