// The bytes of a file as they are.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

namespace qvdb::tool {

class RawFile {
 public:
  // Throws Failure when it cannot be read.
  explicit RawFile(const std::string& path);

  // As many of the bytes as the file has there.
  std::string read(int64_t position, int64_t count);

 private:
  std::string path_;
  std::ifstream stream_;
};

}  // namespace qvdb::tool
