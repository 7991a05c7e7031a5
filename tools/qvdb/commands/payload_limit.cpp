// Records that overlap, as no sound file has them, can hold the square of the file's size.
#include "commands/payload_limit.h"

#include "streams/failure.h"
#include "streams/text.h"

namespace qvdb::tool {

void PayloadLimit::count(const Table& table, const Record& record, const std::string& remedy) {
  if (bytes_ + record.size() > mostBytes_) mostBytes_ = database_.info().file_size;
  if (bytes_ + record.size() > mostBytes_) {
    throw Failure(database_.path().native() + ": the records of table '" + table.name() +
                  "' overlap: they have more bytes than the file; stopped after " +
                  counted(records_, "record", "records") + ", " + counted(bytes_, "byte", "bytes") +
                  "; 'qvdb check' reports the damage, " + remedy);
  }
  ++records_;
  bytes_ += record.size();
}

}  // namespace qvdb::tool
