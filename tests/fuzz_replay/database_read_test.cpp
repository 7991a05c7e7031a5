// Runs the fuzz target of reading a database over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput databaseReadFuzzTarget
#include "fuzz/database_read_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include "fuzz_replay/replay.h"

using namespace qvdbase::test;

namespace {

TEST(DatabaseReadFuzzTarget, TakesItsWholeCorpus) {
  EXPECT_GE(replay(databaseReadFuzzTarget, "database"), 16);
}

TEST(DatabaseReadFuzzTarget, TakesAnInputCutAnywhere) {
  replayCut(databaseReadFuzzTarget, "database", 997);
}

}  // namespace
