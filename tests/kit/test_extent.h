// How much the long families try: a sample in the ordinary suite, everything with
// QVDBASE_TEST_ALL=1 in the environment (scripts/test --all).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "kit/sanitized.h"

namespace qvdbase::test {

inline bool testEverything() {
  const char* const all = std::getenv("QVDBASE_TEST_ALL");
  return all != nullptr && *all != '\0' && std::string(all) != "0";
}

// One line of what a family has tried, for the log; docs/testing.md says how to add them up.
inline void reportCount(const std::string& what, uint64_t count) {
  std::cout << (testEverything() ? "COUNT " : "SAMPLE ") << what << ": " << count << std::endl;
}

// From one place where a process is stopped to the next: with a sanitizer, to copy a process takes
// longer than what the copy does, and a third of the places has to do.
inline int sampleStep() {
  return kIsSanitized && !testEverything() ? 3 : 1;
}

}  // namespace qvdbase::test
