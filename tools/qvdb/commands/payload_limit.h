// Records that overlap, as no sound file has them, can hold the square of the file's size.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>

namespace qvdb::tool {

// Adds up the payloads that a command takes out of a database, so that it ends before a small file
// fills a disk.
class PayloadLimit {
 public:
  explicit PayloadLimit(const Database& database) : database_(database) {}

  // Counts the record. Throws Failure, with this remedy, when the records counted have more bytes
  // than the file.
  void count(const Table& table, const Record& record, const std::string& remedy);

  uint64_t records() const { return records_; }
  uint64_t bytes() const { return bytes_; }

 private:
  const Database& database_;
  uint64_t mostBytes_ = 0;  // the size of the file; asked for when there are more than it was
  uint64_t records_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace qvdb::tool
