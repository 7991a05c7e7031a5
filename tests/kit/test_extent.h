// How much the long families try: a sample in the ordinary suite, everything with
// QVDBASE_TEST_ALL=1 in the environment (scripts/test --all).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

namespace qvdbase::test {

inline bool testEverything() {
  const char* const all = std::getenv("QVDBASE_TEST_ALL");
  return all != nullptr && *all != '\0' && std::string(all) != "0";
}

// One line of what a family has tried, for the log; docs/testing.md says how to add them up.
inline void reportCount(const std::string& what, uint64_t count) {
  std::cout << (testEverything() ? "COUNT " : "SAMPLE ") << what << ": " << count << std::endl;
}

}  // namespace qvdbase::test
