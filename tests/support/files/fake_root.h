// Makes a folder the root of the file system, as far as the library can see.
#pragma once

#include <filesystem>
#include <string>

#include "kit/replaced_calls.h"

namespace qvdbase::test {

class FakeRoot {
 public:
  explicit FakeRoot(const std::filesystem::path& folder) {
    folder_ = folder.string();
    calls_->openAt = [](int directory, const char* name, int flags, mode_t mode) {
      const char* actual = name[0] == '/' ? folder_.c_str() : name;
      return platform::hostSystemCalls().openAt(directory, actual, flags, mode);
    };
  }

 private:
  inline static std::string folder_;
  ReplacedCalls calls_;
};

}  // namespace qvdbase::test
