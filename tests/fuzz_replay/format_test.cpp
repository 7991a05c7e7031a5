// Runs the fuzz target of formatted output over its corpus, without a fuzzing engine.
#define LLVMFuzzerTestOneInput formatFuzzTarget
#include "fuzz/format_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include <gtest/gtest.h>

#include <filesystem>

#include "kit/bytes.h"

using namespace qvdbase::test;

namespace {

TEST(FormatFuzzTarget, TakesItsWholeCorpus) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QVDBASE_FUZZ_CORPUS "/format")) {
    SCOPED_TRACE(entry.path().filename());
    const Bytes input = readFile(entry.path());
    EXPECT_EQ(formatFuzzTarget(input.data(), input.size()), 0);
    ++count;
  }
  EXPECT_GT(count, 20);
}

TEST(FormatFuzzTarget, TakesAnInputCutAnywhere) {
  for (const auto& entry : std::filesystem::directory_iterator(QVDBASE_FUZZ_CORPUS "/format")) {
    SCOPED_TRACE(entry.path().filename());
    const Bytes input = readFile(entry.path());
    for (size_t size = 0; size < input.size(); ++size) {
      const Bytes cut = input.cut(size);
      EXPECT_EQ(formatFuzzTarget(cut.data(), cut.size()), 0);
    }
  }
}

}  // namespace
