// The bytes of a file as they are.
#include "views/raw_file.h"

#include <algorithm>

#include "streams/failure.h"

namespace qvdb::tool {

RawFile::RawFile(const std::string& path) : path_(path), stream_(path, std::ios::binary) {
  if (!stream_) throw Failure(path + ": cannot be read");
}

std::string RawFile::read(int64_t position, int64_t count) {
  std::string bytes(static_cast<size_t>(std::max<int64_t>(count, 0)), 0);
  stream_.clear();
  stream_.seekg(position);
  stream_.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (stream_.bad()) throw Failure(path_ + ": cannot be read at " + std::to_string(position));
  bytes.resize(static_cast<size_t>(std::max<std::streamsize>(stream_.gcount(), 0)));
  return bytes;
}

}  // namespace qvdb::tool
