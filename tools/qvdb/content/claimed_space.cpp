// Capacities that end in the file.
#include "content/claimed_space.h"

#include "streams/failure.h"

namespace qvdb::tool {

void refuseSource(const Database& database, const std::string& refusal, const std::string& why) {
  throw Failure(
      database.path().native() + ": " + refusal + ": " + why +
      "; 'qvdb check' shows what else is wrong, 'qvdb salvage' writes a file without that");
}

bool ClaimedSpace::isInFile(int64_t position, uint32_t capacity) {
  const uint64_t end = static_cast<uint64_t>(position) + capacity;
  if (end < fileSize_) return true;
  fileSize_ = database_.info().file_size;
  return end < fileSize_;
}

void ClaimedSpace::require(const Record& record) {
  const RecordInfo& info = record.info();
  if (isInFile(info.data_position, info.capacity)) return;
  refuseSource(database_, refusal_,
               "record " + to_string(record.id()) + " claims more bytes than the file has");
}

void ClaimedSpace::requireData(const Table& table) {
  if (isInFile(table.info().data_position, table.data_capacity().value_or(0))) return;
  refuseSource(database_, refusal_,
               "the data of table '" + table.name() + "' claims more bytes than the file has");
}

}  // namespace qvdb::tool
