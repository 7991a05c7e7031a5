// qvdb data: reads or sets a table's block of data.
#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/delivery.h"
#include "streams/input.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::optional<std::string> set;
  std::optional<uint64_t> reserve;
  DeliveryOptions delivery;
};

int setData(const Options& options) {
  const uint32_t reserve = reserveOf(options.reserve);
  const std::vector<std::byte> data = readInput(*options.set);
  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  if (!options.delivery.force && ImportedFiles::versionOf(table) != ListVersion::none) {
    throw Failure(options.file + ": the data of table '" + table.name() +
                  "' holds the names of imported files; use --force to replace it");
  }
  table.set_data(data, reserve);
  finishWriting(database, options.delivery.noSync);
  return kDone;
}

int run(const Options& options) {
  if (options.set) return setData(options);
  if (options.reserve) throw wrongUsage("--reserve needs --set");
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  if (!table.data_size()) {
    throw Failure(options.file + ": table '" + table.name() +
                  "' has no data; 'qvdb data --set' stores some");
  }
  deliver(
      [&](uint64_t offset, std::span<std::byte> buffer) { return table.read_data(offset, buffer); },
      options.file, options.delivery);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.option("-s,--set", "PATH", options->set,
                   "Store this file as the table's data; '-' is standard input.");
  arguments.option(
      "--reserve", "BYTES", options->reserve,
      "With --set: give the data at least this capacity, so that it can grow in place.");
  defineDelivery(
      arguments, options->delivery,
      {.force = "Replace the output file if it exists; with --set, replace the names of imported "
                "files.",
       .raw = "Show the data on a terminal even if it is not plain text."});
  return actionOf(options, run);
}

}  // namespace

extern const Command kDataCommand = {
    "data",
    "read or set a table's block of data",
    R"(Besides its records a table can have one block of bytes of its own. Without --set it is written to
standard output or to a file, and the database is only read; with --set it is replaced. For a table
without data the status is 1.)",
    R"(qvdb data notes.qvd letters
qvdb data notes.qvd letters --set description.json
qvdb data notes.qvd letters --output description.json)",
    define,
};

}  // namespace qvdb::tool
