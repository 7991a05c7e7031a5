// The age of a file. What was written just now is given time before it is judged: tests that have
// many files judged let them be old.
#pragma once

#include <chrono>
#include <filesystem>

namespace qvdbase::test {

// Lets a file be an hour old.
inline void makeOld(const std::filesystem::path& path) {
  using namespace std::chrono_literals;
  std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - 1h);
}

}  // namespace qvdbase::test
