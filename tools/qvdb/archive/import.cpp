// qvdb import: stores files and folders as records, and their names in the table's data.
#include <algorithm>

#include "archive/file_fields.h"
#include "archive/file_tree.h"
#include "archive/import_update.h"
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
  std::vector<std::string> excluded;
  bool replace = false;
  bool update = false;
  bool mirror = false;
  bool checksum = false;
  bool compress = false;
  FieldChoice fields;
  bool dryRun = false;
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

// What an import is going to do. Entries are places in the list of names.
struct Plan {
  FileTree tree;               // without what the table has already, with --update
  uint64_t unchanged = 0;      // files that were left out of it
  std::vector<size_t> before;  // entries to be removed before the files are stored
  std::vector<size_t> after;   // and those after it
};

Plan planOf(const Options& options, const Table& table, const ImportedFiles& names) {
  const Excluded excluded(options.excluded);
  Plan plan;
  plan.tree = listFiles(options.paths, options.file, excluded, options.fields);
  refuseTooLarge(plan.tree);
  for (const std::string& path : plan.tree.leftOut) complain("left out: " + path);
  if (table == Table()) return plan;
  if (options.update || options.mirror) refuseLostRoots(names, plan.tree, options.mirror);
  if (options.mirror) refuseOtherTop(names, plan.tree);
  if (options.mirror) plan.after = entriesThatAreGone(names, plan.tree, excluded);
  if (!options.update) return plan;
  plan.before = entriesInTheWay(names, plan.tree);
  std::erase_if(plan.after, [&](size_t entry) {
    return std::binary_search(plan.before.begin(), plan.before.end(), entry);
  });
  plan.unchanged = leaveOutUnchanged(table, names, &plan.tree);
  return plan;
}

std::string summaryOf(const Plan& plan, const Options& options) {
  std::string text;
  if (options.update) {
    text += "; " + counted(plan.unchanged, "file is", "files are") + " unchanged";
  }
  const uint64_t deleted = plan.before.size() + plan.after.size();
  if (options.mirror || deleted != 0) text += "; deleted " + counted(deleted, "name", "names");
  return text;
}

const char* stepFor(const FoundFile& found, const ImportedFiles& names) {
  const auto index = names.find(found.file.name);
  if (!index || names.list()[*index].kind != found.file.kind) return "add";
  if (found.file.kind == FileKind::folder || found.isStored) return "properties";
  return "replace";
}

// Prints what an import would do.
int show(const Plan& plan, const ImportedFiles& names, const Options& options) {
  uint64_t bytes = 0;
  const auto line = [](const char* step, const ImportedFile& file) {
    throwIfInterrupted();
    printLine(std::string(step) + " " + escaped(file.name));
  };
  for (const size_t entry : plan.before) line("delete", names.list()[entry]);
  for (const FoundFile& found : plan.tree.files) {
    line(stepFor(found, names), found.file);
    if (!found.isStored) bytes += found.size;
  }
  for (const size_t entry : plan.after) line("delete", names.list()[entry]);
  const uint64_t steps = plan.before.size() + plan.tree.files.size() + plan.after.size();
  printLine(counted(steps, "step", "steps") + ", " + counted(bytes, "byte", "bytes") +
            summaryOf(plan, options) + "; nothing was changed");
  return kDone;
}

// Deletes these entries, and says what has been done so far if that is interrupted.
void removeOrReport(Table& table, ImportedFiles& names, const std::vector<size_t>& entries,
                    const char* done) {
  try {
    removeEntries(table, names, entries);
  } catch (const Interrupted&) {
    throw Failure("interrupted; " + std::string(done) +
                  ", and not all that is gone is deleted; import again to complete it");
  }
}

int import(const Options& options) {
  if (options.compress) PayloadEncoder::requireCompression();
  Database database =
      options.dryRun ? openToRead(options.file) : openToWrite(options.file, options.checksum);
  Table table = presentTable(database, options.table);
  ImportedFiles names = namesOf(database, table);
  const Plan plan = planOf(options, table, names);
  if (options.dryRun) {
    if (!options.update) Importer(database, table, plan.tree, names).check(options.replace);
    return show(plan, names, options);
  }
  removeOrReport(table, names, plan.before, "nothing is stored");
  Importer importer(database, table, plan.tree, std::move(names), options.table, options.compress);
  importer.check(options.replace || options.update);
  importer.run();
  if (!plan.after.empty()) {
    ImportedFiles stored = namesOf(database, table);
    removeOrReport(table, stored, plan.after, "all files are stored");
  }
  finishWriting(database, options.noSync);
  printLine(importer.summary() + summaryOf(plan, options));
  return kDone;
}

int run(const Options& options) {
  if (options.replace && options.update) {
    throw wrongUsage("--replace and --update cannot be combined");
  }
  if (options.fields.attributes) requireAttributes("--xattrs");
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
  arguments.flag("-u,--update", options->update,
                 "Store what is new, and replace only those files whose size or time of last "
                 "modification has changed.");
  arguments.flag("--delete", options->mirror,
                 "Delete what the table has below a PATH and the PATH has no more.");
  arguments.option("--exclude", "PATTERN", options->excluded,
                   "Leave out what has such a name. Can be given many times.");
  arguments.flag("--checksum", options->checksum,
                 "Give new records a checksum, by which readers notice that their bytes have "
                 "changed. Records of files that are replaced keep theirs.");
  arguments.flag("--compress", options->compress,
                 "Compress the files that are stored now, each by itself, where that makes them "
                 "smaller.");
  arguments.flag("--owners", options->fields.owners,
                 "Store the user and the group of each file, by name and number.");
  arguments.flag("--xattrs", options->fields.attributes,
                 "Store the extended attributes and access lists of files and folders.");
  arguments.flag("--hard-links", options->fields.hardLinks,
                 "Store which files are names of one file.");
  arguments.flag("-n,--dry-run", options->dryRun,
                 "Only list what would be done. The database is only read.");
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
an error, found before anything is changed, unless --replace or --update is given; then it replaces
the old one. Files that have disappeared from a folder stay in the table unless --delete is given.

--update leaves files alone whose size and time are those that are stored, so that a backup each
night reads and writes little more than what has changed. Where a file was stored within three
seconds of its last change, or its time is in the future, its contents are compared. What has
become a file, a folder or a symbolic link instead of another of these is deleted first, with all
that was in it.

--delete makes the table a mirror of the PATHs: what is gone is deleted after everything is stored.
Below 'photos/' and '.' is the whole table, below 'photos' only what has that name: give each PATH as
it was given before, with '/' at its end or without, as with rsync. 'photos/' for a table that was
filled by 'photos' is an error. What is excluded stays as it is in the table. A PATH that is empty, or
no folder any more, while the table has files of it is an error: perhaps nothing is mounted there.

A PATTERN of --exclude is compared with the last part of each name; if it has a '/' within it or at
its beginning, with the whole name. With a '/' at its end it counts for folders. '*' is any text
without '/', '**' any text, '?' one character, '[a-z]' one of these, '[!a-z]' any other; '\' takes
the meaning from the next character. What is in a folder that is left out is left out, too.

--compress stores files as zstd makes them, if that is smaller. 'qvdb export' and 'qvdb get' write them
as they were; all else shows such records as they are stored: 'qvdb records' their size, 'qvdb dump',
'qvdb digest' and 'qvdb sql' their bytes. Give it with each import: files that are replaced without it
are stored as they are.

--owners, --xattrs and --hard-links also store to whom files belong, their extended attributes, and
which of them are names of one file, for the options of 'qvdb export' that restore them. Give them with
each import: without them, a file keeps what was stored of these before. Attributes are those that
belong to the file (user., trusted., access lists and capabilities); all of a file can have a mebibyte.
What cannot be read of them is left out, with a line on standard error.

--dry-run prints a line for each step: add, replace, properties (no contents) or delete, and the
name.

Sockets, pipes, devices, the database itself and files that disappear meanwhile are left out, with a
line on standard error.
Files with several names (hard links) are stored once for each name. A file can have 4,294,967,295
bytes at most;
memory is needed for the names, not for the files.

Ctrl-C stops between two files and leaves a sound database. Whatever stops an import, the message
says how many files are stored.)",
    R"(qvdb create photos.qvd && qvdb import photos.qvd holiday ~/Pictures/holiday/
qvdb import --replace photos.qvd holiday ~/Pictures/holiday/
qvdb import -u --delete --exclude '*.tmp' home.qvd docs ~/Documents
qvdb import --checksum archive.qvd 2026 ~/Scans
qvdb import -u --owners --xattrs system.qvd etc /etc
qvdb import -u --compress logs.qvd web /var/log/nginx
qvdb import src.qvd project src include README.md)",
    define,
};

}  // namespace qvdb::tool
