// What a file still has of records at an earlier time.
//
// The file keeps no list of what was in use when. Each version has the time when its record was
// added, which all versions of a record share, and the time when it was last changed; versions come
// in the order in which they were written. A change in place leaves no version, only its time.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qvdb::tool {

// The versions that were in use at some time, oldest first.
std::vector<FoundBlock> thoseInUse(std::vector<FoundBlock> versions);

// When the record of these versions was added. There must be one.
uint32_t additionOf(const std::vector<FoundBlock>& versions);

// What there is of a record at a time.
struct RecordAt {
  enum class State : uint8_t {
    none,    // the file has no version of it
    notYet,  // it was added later
    lost,    // it was there, but was changed in place later, or the file was compacted
    damaged,
    found,
  };

  State state = State::none;
  const FoundBlock* version = nullptr;  // that of the time, damaged or found; lost: the oldest
  const FoundBlock* next = nullptr;     // a later one
};

// `versions` are those of one record, as thoseInUse() returns them; the result points into them.
RecordAt recordAt(const std::vector<FoundBlock>& versions, int64_t time);

// Whether the record was deleted, or may have been.
bool isDeleted(const FoundBlock& version);

// The versions of all records of a table.
class TableVersions {
 public:
  // Looks at the whole file. Throws Error; Interrupted.
  TableVersions(const std::string& path, const std::string& table);

  RecordAt at(Id record, int64_t time) const;

 private:
  std::unordered_map<Id, std::vector<FoundBlock>> versions_;
};

}  // namespace qvdb::tool
