// qvdb put: adds records.
#include <limits>

#include "qvdb/commands.h"
#include "qvdb/input.h"
#include "qvdb/interrupt.h"
#include "qvdb/locate.h"
#include "qvdb/output.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> inputs;
  std::optional<std::string> id;
  std::optional<std::uint64_t> reserve;
};

std::uint32_t reserveOf(const Options& options) {
  const std::uint64_t reserve = options.reserve.value_or(0);
  if (reserve > std::numeric_limits<std::uint32_t>::max()) {
    throw wrongUsage("--reserve takes at most 4294967295 bytes");
  }
  return static_cast<std::uint32_t>(reserve);
}

// Adds one record, under the given identifier, if there is one, unless the table has it already.
Id put(const Database& database, Table& table, const std::vector<std::byte>& payload,
       const std::optional<Id>& id, std::uint32_t reserve) {
  if (!id) return table.add(payload, reserve);
  if (table.find(*id)) {
    throw Failure(database.path().native() + ": table '" + table.name() + "' has a record " +
                  to_string(*id) + " already; 'qvdb set' changes it");
  }
  table.add_with_id(*id, payload, reserve);
  return *id;
}

int run(const Options& options) {
  const std::uint32_t reserve = reserveOf(options);
  std::optional<Id> id;
  if (options.id && !(id = parse_id(*options.id))) {
    throw wrongUsage("--id takes 0x and hexadecimal digits, or a decimal number");
  }
  std::vector<std::string> inputs = options.inputs;
  if (inputs.empty()) inputs.push_back("-");
  if (id && inputs.size() > 1) throw wrongUsage("--id goes with a single input");

  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  for (const std::string& input : inputs) {
    throwIfInterrupted();
    printLine(to_string(put(database, table, readInput(input), id, reserve)));
  }
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.arguments("INPUT", options->inputs, 0,
                      "Files to store, a record each; '-', and none at all, is standard input.");
  arguments.option("--id", "ID", options->id,
                   "Store the record under this identifier, which the table must not have yet.");
  arguments.option("--reserve", "BYTES", options->reserve,
                   "Keep at least this much room, so that the record can grow in place later.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kPutCommand = {
    "put", "add records",
    "Adds a record behind the last one for each input and prints its identifier. An input may be "
    "empty; the most that a record can hold is 4,294,967,295 bytes. An input is read whole before "
    "anything of it is stored.",
    "echo hello | qvdb put notes.qvd letters\n"
    "qvdb put notes.qvd letters a.txt b.txt c.txt\n"
    "qvdb put --id 0x1 --reserve 4096 notes.qvd letters draft.txt",
    define};

}  // namespace qvdb::tool
