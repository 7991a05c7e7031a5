// qvdb add-table: adds a table to a database.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/output.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string name;
  bool noSync = false;
};

int run(const Options& options) {
  Database database = openToWrite(options.file);
  printLine(to_string(database.add_table(options.name).id()));
  finishWriting(database, options.noSync);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("NAME", options->name, "The name of the new table, 1 to 32 bytes.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kAddTableCommand = {
    "add-table",
    "add a table",
    R"(Adds an empty table to a database and prints its identifier. A database can have 31 tables;
'qvdb compact' renames and removes them.)",
    R"(qvdb add-table notes.qvd letters)",
    define,
};

}  // namespace qvdb::tool
