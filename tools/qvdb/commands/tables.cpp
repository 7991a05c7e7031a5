// qvdb tables: lists the tables of a database.
#include <nlohmann/json.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool json = false;
};

std::string sizeText(const DataSize& size) {
  if (!size.isKnown) return "?";
  return size.bytes ? std::to_string(*size.bytes) : "-";
}

void printTable(const Table& table, const DataSize& size) {
  printLine(to_string(table.id()) + column(std::to_string(table.count()), 12) +
            column(sizeText(size), 12) + "  " + escaped(table.name()));
}

Json jsonOf(const Table& table, const DataSize& size) {
  Json json;
  json["id"] = to_string(table.id());
  addText(&json, "name", table.name());
  json["records"] = table.count();
  json["data_size"] = size.bytes ? Json(*size.bytes) : Json(nullptr);
  if (!size.isKnown) json["data_is_unreachable"] = true;
  return json;
}

int run(const Options& options) {
  const Database database = openToRead(options.file);
  std::exception_ptr failure;
  const std::vector<Table> tables = tablesOf(database, &failure);
  if (options.json) {
    Json json;
    addText(&json, "file", options.file);
    json["tables"] = Json::array();
    for (const Table& table : tables) {
      json["tables"].push_back(jsonOf(table, dataSizeOf(database, table)));
    }
    printJson(json);
  } else {
    printLine("ID                     RECORDS        DATA  NAME");
    for (const Table& table : tables) printTable(table, dataSizeOf(database, table));
  }
  if (failure) std::rethrow_exception(failure);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kTablesCommand = {
    "tables",
    "list the tables",
    R"(Lists the tables of a database in the order in which they were added: identifier, number of
records, bytes of table data ('-' when the table has none, '?' when it cannot be reached) and name.
Where the directory is damaged the list ends, with status 1. The file is only read.)",
    R"(qvdb tables notes.qvd
qvdb tables --json notes.qvd)",
    define,
};

}  // namespace qvdb::tool
