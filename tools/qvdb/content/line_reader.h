// Reading text line by line, in constant memory.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "streams/input.h"

namespace qvdb::tool {

class LineReader {
 public:
  // The most bytes of a line: more than a dump has on one.
  static constexpr size_t kLongest = size_t{8} << 20;

  // A file, or standard input for "-". Throws Failure when it cannot be opened.
  explicit LineReader(const std::string& path);

  // The next line without its end; false after the last one. Valid until the next call. Throws
  // Failure for one that is too long or is not ended, and when it cannot be read; Interrupted.
  bool next(std::string_view* line);

  // Of the line that was read last, from 1 on.
  uint64_t number() const { return number_; }

  // "NAME: line 7: WHAT", for Failure.
  std::string about(const std::string& what) const;

 private:
  bool readMore();

  std::string name_;
  Descriptor file_;  // none for standard input
  std::vector<char> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  uint64_t number_ = 0;
};

}  // namespace qvdb::tool
