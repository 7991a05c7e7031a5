// Runs a fuzz target over a folder of its corpus, without a fuzzing engine. A target that finds
// something ends the process.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "kit/bytes.h"
#include "kit/test_extent.h"

namespace qvdbase::test {

using FuzzTarget = int (*)(const uint8_t*, size_t);

// Returns how many inputs there were.
inline int replay(FuzzTarget target, const char* folder) {
  int count = 0;
  const auto path = std::filesystem::path(QVDBASE_FUZZ_CORPUS) / folder;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    SCOPED_TRACE(entry.path().filename());
    const Bytes input = readFile(entry.path());
    EXPECT_EQ(target(input.data(), input.size()), 0);
    ++count;
  }
  reportCount("hostile inputs", static_cast<uint64_t>(count));
  return count;
}

// Each input cut behind every `step`th byte; ten times as often when everything is tried.
inline void replayCut(FuzzTarget target, const char* folder, size_t step) {
  if (testEverything()) step = (step + 9) / 10;
  uint64_t count = 0;
  const auto path = std::filesystem::path(QVDBASE_FUZZ_CORPUS) / folder;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    SCOPED_TRACE(entry.path().filename());
    const Bytes input = readFile(entry.path());
    for (size_t size = 0; size < input.size(); size += step) {
      const Bytes cut = input.cut(size);
      EXPECT_EQ(target(cut.data(), cut.size()), 0);
      ++count;
    }
  }
  reportCount("hostile inputs", count);
}

}  // namespace qvdbase::test
