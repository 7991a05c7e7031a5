// qvdb put: adds records.
#include <algorithm>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/output.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> inputs;
  std::optional<std::string> id;
  std::optional<uint64_t> reserve;
  bool checksum = false;
  bool noSync = false;
};

// Nothing when none was given.
std::optional<Id> idOf(const Options& options) {
  if (!options.id) return std::nullopt;
  const std::optional<Id> id = parse_id(*options.id);
  if (!id) throw wrongUsage("--id takes 0x and hexadecimal digits, or a decimal number");
  if (id->value == 0) throw wrongUsage("--id cannot be 0, which means no record");
  return id;
}

// All input that can keep the command waiting is read here, before the database is locked.
std::vector<Input> openInputs(std::vector<std::string> paths) {
  if (paths.empty()) paths.emplace_back("-");
  std::vector<Input> inputs;
  inputs.reserve(paths.size());
  for (const std::string& path : paths) {
    inputs.emplace_back(path);
    inputs.back().closeUntilRead();
  }
  for (Input& input : inputs) {
    throwIfInterrupted();
    input.prepare();
  }
  return inputs;
}

// Its own records would be read, and stored, without end.
void refuseDatabase(const std::vector<Input>& inputs, const std::string& database) {
  for (const Input& input : inputs) {
    if (!input.isFileAt(database)) continue;
    throw Failure(input.name() +
                  ": is the database itself; nothing was stored; store a copy of it instead");
  }
}

void refuseTaken(const Database& database, const Table& table, Id id) {
  if (!table.find(id)) return;
  throw Failure(database.path().native() + ": table '" + table.name() + "' has a record " +
                to_string(id) + " already; 'qvdb set' changes it");
}

int run(const Options& options) {
  const uint32_t reserve = reserveOf(options.reserve);
  const std::optional<Id> id = idOf(options);
  if (id && options.inputs.size() > 1) throw wrongUsage("--id takes a single input");
  if (std::count(options.inputs.begin(), options.inputs.end(), "-") > 1) {
    throw wrongUsage("standard input can be read once; give '-' once");
  }
  std::vector<Input> inputs = openInputs(options.inputs);

  Database database = openToWrite(options.file);
  refuseDatabase(inputs, options.file);
  Table table = findTable(database, options.table);
  if (id) refuseTaken(database, table, *id);
  std::vector<Id> ids;
  if (options.checksum) table.set_checksum(Checksum::yes);
  // All of them are in the table, or none is.
  BulkAppender appender = table.appender();
  for (Input& input : inputs) {
    throwIfInterrupted();
    RecordWriter writer = appender.writer(reserve, id);
    input.forEachPiece([&writer](std::span<const std::byte> piece) { writer.write(piece); });
    ids.push_back(writer.finish());
  }
  appender.finish();
  finishWriting(database, options.noSync);
  for (const Id each : ids) printLine(to_string(each));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.arguments("INPUT", options->inputs, 0,
                      "Files to store, a record each; '-', or no INPUT, is standard input.");
  arguments.option("--id", "ID", options->id,
                   "Store the record under this identifier, which the table must not have yet.");
  arguments.option("--reserve", "BYTES", options->reserve,
                   "Give the record at least this capacity, so that it can grow in place later.");
  arguments.flag("--checksum", options->checksum,
                 "Give the records a checksum, by which readers notice that their bytes have "
                 "changed.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kPutCommand = {
    "put",
    "add records",
    R"(Adds a record for each input, at the end of the table, and prints its identifier. An input may be
empty; a record holds at most 4,294,967,295 bytes. All inputs are stored, or none is. Standard
input and pipes are read to their end before the database is opened.)",
    R"(echo hello | qvdb put notes.qvd letters
qvdb put notes.qvd letters a.txt b.txt c.txt
qvdb put --id 0x1 --reserve 4096 notes.qvd letters draft.txt)",
    define,
};

}  // namespace qvdb::tool
