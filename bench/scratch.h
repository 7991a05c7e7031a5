// The folder that holds the stores of a run, removed at its end.
#pragma once

#include <filesystem>

namespace bench {

class Scratch {
 public:
  Scratch();  // in TMPDIR
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace bench
