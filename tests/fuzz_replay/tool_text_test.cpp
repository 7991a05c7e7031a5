// Runs the fuzz target of the tool's texts over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput toolTextFuzzTarget
#include "fuzz/tool_text_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include "fuzz_replay/replay.h"

using namespace qvdbase::test;

namespace {

TEST(ToolTextFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(toolTextFuzzTarget, "tool_text"), 13);
}

TEST(ToolTextFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(toolTextFuzzTarget, "tool_text", 1);
}

}  // namespace
