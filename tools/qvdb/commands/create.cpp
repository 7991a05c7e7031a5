// qvdb create: creates an empty database.
#include <algorithm>

#include "command_line/commands.h"
#include "streams/failure.h"
#include "streams/output.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> signature;
  std::optional<uint64_t> version;
  bool force = false;
  bool parents = false;
  bool noSync = false;
};

int run(const Options& options) {
  CreateOptions create;
  create.overwrite = options.force;
  create.create_folders = options.parents;
  create.sync = !options.noSync;
  if (options.signature) {
    if (options.signature->size() != create.signature.size()) {
      throw wrongUsage("--signature takes 4 bytes; the first is Q or q, the second V or v");
    }
    std::copy(options.signature->begin(), options.signature->end(), create.signature.begin());
  }
  if (options.version) {
    if (*options.version < 100 || *options.version > 199) {
      throw wrongUsage("--db-version takes a number from 100 to 199");
    }
    create.version = static_cast<uint16_t>(*options.version);
  }
  const Database database = whileInUse([&] { return Database::create(options.file, create); });
  printLine(to_string(database.info().id));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, "The database file to create.");
  arguments.option("--signature", "TEXT", options->signature,
                   "The four bytes at the beginning of the file: Q or q, V or v, and two of your "
                   "choice. Default: QVdb.");
  arguments.option("--db-version", "NUMBER", options->version,
                   "The version in the header, 100 to 199. Default: 100.");
  arguments.force(options->force, "Replace a file that exists, unless it is in use.");
  arguments.parents(options->parents);
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kCreateCommand = {
    "create",
    "create an empty database",
    R"(Creates a new database file without tables and prints its identifier. A file that exists is not
changed unless --force is given; an empty file is always replaced. The file appears under its name
when it is complete.)",
    R"(qvdb create notes.qvd
qvdb create --signature QVx1 --force notes.qvd)",
    define,
};

}  // namespace qvdb::tool
