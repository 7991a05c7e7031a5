// qvdb import: stores files and folders as records, and their names in the table's data.
#include "archive/file_tree.h"
#include "archive/importer.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> paths;
  bool replace = false;
  bool noSync = false;
};

ImportedFiles namesOf(const Database& database, const Table& table) {
  if (table == Table()) return {};
  if (auto files = readNames(database, table)) return *std::move(files);
  if (table.data_size().value_or(0) == 0) return {};
  throw Failure(
      database.path().native() + ": table '" + table.name() +
      "' has data of its own, which the list of names would replace; import into another table");
}

// An import that would have to stop at a file that is too large for a record stores nothing.
void refuseTooLarge(const FileTree& tree) {
  constexpr uint64_t kLargest = 0xFFFFFFFF;
  uint64_t others = 0;
  const FoundFile* first = nullptr;
  for (const FoundFile& found : tree.files) {
    if (found.size <= kLargest) continue;
    if (first == nullptr) {
      first = &found;
    } else {
      ++others;
    }
  }
  if (first == nullptr) return;
  throw Failure(
      first->path +
      (others > 0 ? " and " + counted(others, "other file", "other files") : std::string()) + ": " +
      (others > 0 ? "have" : "has") +
      " more than 4,294,967,295 bytes, the most that a record can hold; nothing was "
      "stored; split what is larger, or import the other files by name");
}

// The table of that name or identifier; none where the import is to make it.
Table presentTable(const Database& database, const std::string& nameOrId) {
  const bool isPresent = database.find_table(nameOrId) || parse_id(nameOrId);
  return isPresent ? findTable(database, nameOrId) : Table();
}

int import(const Options& options) {
  Database database = openToWrite(options.file);
  const FileTree tree = listFiles(options.paths, options.file);
  refuseTooLarge(tree);
  for (const std::string& path : tree.leftOut) complain("left out: " + path);

  Table table = presentTable(database, options.table);
  Importer importer(database, table, tree, namesOf(database, table), options.table);
  importer.check(options.replace);
  importer.run();
  finishWriting(database, options.noSync);
  printLine(importer.summary());
  return kDone;
}

int run(const Options& options) {
  try {
    return import(options);
  } catch (const Interrupted&) {
    throw Failure("interrupted; nothing was stored");
  }
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table,
                     "The table to fill: its name, or its identifier. A table of that name is "
                     "created if there is none.");
  arguments.arguments("PATH", options->paths, 1,
                      "Files and folders to import. A PATH that ends in '/' means the contents of "
                      "the folder.");
  arguments.flag("-r,--replace", options->replace,
                 "Replace files that the table already has. Each keeps its record.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kImportCommand = {
    "import",
    "store files and folders as records",
    R"(Stores each file, in subfolders too, as a record of its own. The names, folders, symbolic
links, permissions and times are stored in the table's data, from where 'qvdb export' restores
them. Names are relative: 'import ... photos' names the files photos/..., while 'photos/' and '.'
leave that out.

More files can be imported into the same table later. A file whose name is in the table already is
an error, found before anything is changed, unless --replace is given; then it replaces the old
one. Files that have disappeared from a folder stay in the table.

Sockets, pipes, devices and the database itself are left out, with a line on standard error.
Owners, access lists and hard links are not stored. A file can have 4,294,967,295 bytes at most;
memory is needed for the names, not for the files.

Ctrl-C stops between two files and leaves a sound database. Whatever stops an import, the message
says how many files are stored.)",
    R"(qvdb create photos.qvd && qvdb import photos.qvd holiday ~/Pictures/holiday/
qvdb import --replace photos.qvd holiday ~/Pictures/holiday/
qvdb import src.qvd project src include README.md)",
    define,
};

}  // namespace qvdb::tool
