// qvdb info: shows the header of a database.
#include <nlohmann/json.hpp>
#include <qvdbase/qvdb.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "format/layout.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool json = false;
};

const char* stateOf(const DatabaseInfo& info) {
  if (!info.version_is_usable()) return "unusable: the version is not in 100 to 199";
  if (info.version == qvdbase::format::kUnfinishedPackVersion)
    return "an unfinished pack: a copy in which records are missing";
  return "usable";
}

int run(const Options& options) {
  const DatabaseInfo info = Database::inspect(options.file);
  const std::string_view signature(info.signature.data(), info.signature.size());
  if (options.json) {
    Json json;
    addText(&json, "file", options.file);
    json["size"] = info.file_size;
    addText(&json, "signature", signature);
    json["version"] = info.version;
    json["id"] = to_string(info.id);
    json["tables"] = info.table_count;
    json["usable"] = info.version_is_usable();
    printJson(json);
    return kDone;
  }
  printLine("file       " + escaped(options.file));
  printLine("size       " + std::to_string(info.file_size) + " bytes");
  printLine("signature  " + escaped(signature));
  printLine("version    " + std::to_string(info.version));
  printLine("id         " + to_string(info.id));
  printLine("tables     " + std::to_string(info.table_count) + " of " +
            std::to_string(std::max(info.slot_count - 1, 0)));
  printLine(std::string("state      ") + stateOf(info));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kInfoCommand = {
    "info",
    "show the header of a database",
    R"(Shows the header of a database file: its size, signature, version and identifier, and how many
tables it has. The file is only read. A file whose version the library does not accept is shown
too.)",
    R"(qvdb info notes.qvd
qvdb info --json notes.qvd)",
    define,
};

}  // namespace qvdb::tool
