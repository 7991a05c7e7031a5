// qvdb touch: sets the time of last modification of records.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "selection/chosen_records.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

int run(const RecordChange& options) {
  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  for (const Record& record : chooseRecords(database, table, options.records).records) {
    throwIfInterrupted();
    if (!table.touch(record)) throw noSuchRecord(database, table, record.id());
  }
  finishWriting(database, options.noSync);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<RecordChange>();
  defineRecords(arguments, *options);
  return actionOf(options, run);
}

}  // namespace

extern const Command kTouchCommand = {
    "touch",
    "set the modification time of records to now",
    R"(Sets the time of last modification of one or more records to now and changes nothing else. If one
of them is not in the table, none is changed.)",
    R"(qvdb touch notes.qvd letters 0x1f5e2d3c4b5a6978)",
    define,
};

}  // namespace qvdb::tool
