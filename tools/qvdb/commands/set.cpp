// qvdb set: replaces a record's payload.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/input.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::string record;
  std::optional<std::string> input;
  bool noSync = false;
};

int run(const Options& options) {
  const std::string input = options.input.value_or("-");
  const std::vector<std::byte> payload = readInput(input);
  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  const Record record = findRecord(database, table, options.record);
  if (!table.modify(record, payload)) throw noSuchRecord(database, table, record.id());
  finishWriting(database, options.noSync);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.argument("RECORD", options->record, kRecordHelp);
  arguments.optionalArgument("INPUT", options->input,
                             "The file with the new payload; '-', or no INPUT, is standard input.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kSetCommand = {
    "set",
    "replace a record's payload",
    R"(Replaces the payload of a record and sets its time of last modification. The record keeps its
identifier and its place in the order. A payload that fits the record's capacity is written over
the old one; a larger one goes to a new place, and the old bytes stay in the file until it is
compacted. An empty input leaves an empty record.)",
    R"(qvdb set notes.qvd letters 0x1f5e2d3c4b5a6978 letter.txt
sed s/old/new/ letter.txt | qvdb set notes.qvd letters 0x1f5e2d3c4b5a6978)",
    define,
};

}  // namespace qvdb::tool
