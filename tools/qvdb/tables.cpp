// qvdb tables: lists the tables of a database.
#include <nlohmann/json.hpp>

#include "qvdb/commands.h"
#include "qvdb/locate.h"
#include "qvdb/output.h"
#include "qvdb/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool json = false;
};

std::string column(std::string text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

void printTable(const Table& table) {
  const auto dataSize = table.data_size();
  printLine(to_string(table.id()) + column(std::to_string(table.count()), 12) +
            column(dataSize ? std::to_string(*dataSize) : "-", 12) + "  " + escaped(table.name()));
}

Json jsonOf(const Table& table) {
  Json json;
  json["id"] = to_string(table.id());
  addText(&json, "name", table.name());
  json["records"] = table.count();
  const auto dataSize = table.data_size();
  json["data_size"] = dataSize ? Json(*dataSize) : Json(nullptr);
  return json;
}

int run(const Options& options) {
  const Database database = openToRead(options.file);
  const std::vector<Table> tables = database.tables();
  if (options.json) {
    Json json;
    addText(&json, "file", options.file);
    json["tables"] = Json::array();
    for (const Table& table : tables) json["tables"].push_back(jsonOf(table));
    printJson(json);
    return kDone;
  }
  printLine("ID                     RECORDS        DATA  NAME");
  for (const Table& table : tables) printTable(table);
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
    "tables", "list the tables",
    "Lists the tables of a database in the order in which they were added: identifier, number of "
    "records, bytes of table data ('-' when the table has none) and name. The file is only read.",
    "qvdb tables notes.qvd\n"
    "qvdb tables --json notes.qvd",
    define};

}  // namespace qvdb::tool
