// Runs the fuzz target of changing a database over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput databaseWriteFuzzTarget
#include "fuzz/database_write_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include "fuzz_replay/replay.h"

using namespace qvdbase::test;

namespace {

TEST(DatabaseWriteFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(databaseWriteFuzzTarget, "database"), 16);
}

TEST(DatabaseWriteFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(databaseWriteFuzzTarget, "database", 997);
}

}  // namespace
