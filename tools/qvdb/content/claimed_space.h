// Capacities that a database file states, which are not believed: writing a claim again would fill
// the disk.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>
#include <utility>

namespace qvdb::tool {

// Throws Failure: what cannot be done with the database ("cannot be dumped"), why, and what helps.
[[noreturn]] void refuseSource(const Database& database, const std::string& refusal,
                               const std::string& why);

class ClaimedSpace {
 public:
  // With `refusal` as refuseSource() takes it.
  ClaimedSpace(const Database& database, std::string refusal)
      : database_(database), refusal_(std::move(refusal)) {}

  // Refuse the database where the capacity of the record, or of the table's data, ends beyond the
  // file.
  void require(const Record& record);
  void requireData(const Table& table);

 private:
  bool isInFile(int64_t position, uint32_t capacity);

  const Database& database_;
  std::string refusal_;
  uint64_t fileSize_ = 0;  // asked for again when something ends beyond what it was
};

}  // namespace qvdb::tool
