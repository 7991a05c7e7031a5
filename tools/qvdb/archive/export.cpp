// qvdb export: writes the records of a table back as files.
//
// Folders come first, then the files in the order of the records, then symbolic links, and last the
// permissions and times of folders: so no file is ever written through a link that came from the
// database, and a folder becomes read-only only when all its files are written.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "archive/export_at.h"
#include "archive/folder_writer.h"
#include "archive/hard_links.h"
#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "commands/payload_limit.h"
#include "compression/coded_payload.h"
#include "formats/export_rows.h"
#include "selection/chosen_records.h"
#include "streams/given_time.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> table;
  std::optional<std::string> folder;
  std::vector<std::string> names;
  FolderOptions folderOptions;
  bool byId = false;
  RowTargets rows;
  std::optional<std::string> after;
  std::optional<std::string> at;
};

// What of a table is exported, where that is not all.
struct Part {
  std::unordered_set<size_t> entries;  // places in the list of names
  std::unordered_set<Id> records;
};

// Throws Failure for a word that means nothing in the table.
std::optional<Part> partOf(const Database& database, const Table& table,
                           const std::optional<ImportedFiles>& files,
                           const std::vector<std::string>& words) {
  if (words.empty()) return std::nullopt;
  Part part;
  std::optional<ListedNames> names;
  if (files) names.emplace(*files);
  for (const std::string& word : words) {
    throwIfInterrupted();
    if (const auto id = parse_id(word)) {
      part.records.insert(findRecord(database, table, word).id());
      if (const auto entry = files ? files->find(*id) : std::nullopt) part.entries.insert(*entry);
      continue;
    }
    if (!files) throw noIdentifier(word);
    const std::vector<size_t> found = names->find(word);
    if (found.empty()) throw noSuchName(database, table, *files, word);
    for (const size_t entry : found) {
      part.entries.insert(entry);
      const ImportedFile& file = files->list()[entry];
      if (file.kind == FileKind::file) part.records.insert(file.record);
    }
  }
  return part;
}

// Reads what a record holds of a file, and keeps both for that.
PieceReader contentsOf(const ListKey& key, const Record& record) {
  struct Held {
    Record record;
    CodedPayload contents;
    Held(const ListKey& ofList, const Record& of) : record(of), contents(ofList, record) {}
  };
  auto held = std::make_shared<Held>(key, record);
  return [held](uint64_t offset, std::span<std::byte> buffer) {
    return held->contents.read(offset, buffer);
  };
}

class Exporter {
 public:
  Exporter(const Database& database, const Table& table, std::optional<ImportedFiles> files,
           std::optional<Part> part, FolderWriter& writer, const FolderOptions& options)
      : table_(table),
        files_(std::move(files)),
        part_(std::move(part)),
        writer_(writer),
        force_(options.force),
        limit_(database),
        key_(ImportedFiles::keyOf(table)),
        hardLinks_(options.fields.hardLinks, writer) {
    if (files_) isWritten_.resize(files_->list().size());
  }

  // Throws Failure when anything that will be written exists already.
  void check();
  // Throws Error where the chain of the records is damaged, after writing everything that can be.
  void run();
  std::string summary() const;
  uint64_t namesWithoutRecord() const;

 private:
  // Calls take(file, record) for all records, in order.
  template <typename Take>
  void forEachFile(Take take);
  void finishFolders();
  bool isWanted(const ImportedFile& file) const;
  ImportedFile fileOf(const Record& record);
  template <typename Take>
  void forEachNamed(FileKind kind, Take take);

  const Table& table_;
  std::optional<ImportedFiles> files_;
  std::optional<Part> part_;  // nothing for all
  FolderWriter& writer_;
  bool force_;
  PayloadLimit limit_;
  const ListKey key_;
  HardLinks hardLinks_;
  std::vector<bool> isWritten_;            // of each imported file
  std::unordered_map<Id, unsigned> byId_;  // files named by identifier, and how many of each
  uint64_t filesDone_ = 0;
  uint64_t bytesDone_ = 0;
};

// Of an entry of the list.
bool Exporter::isWanted(const ImportedFile& file) const {
  return !part_ || part_->entries.contains(static_cast<size_t>(&file - files_->list().data()));
}

template <typename Take>
void Exporter::forEachNamed(FileKind kind, Take take) {
  if (!files_) return;
  for (const ImportedFile& file : files_->list()) {
    throwIfInterrupted();
    if (file.kind != kind || !isWanted(file)) continue;
    // Of two links of a name the later one counts.
    if (kind == FileKind::link && &file != &files_->list()[*files_->find(file.name)] &&
        files_->list()[*files_->find(file.name)].kind == FileKind::link) {
      continue;
    }
    take(file);
  }
}

// The name that the record was imported under, or one made of its identifier. Further records of
// the same identifier get numbers.
ImportedFile Exporter::fileOf(const Record& record) {
  if (files_) {
    const auto index = files_->find(record.id());
    if (index && !isWritten_[*index]) {
      isWritten_[*index] = true;
      return files_->list()[*index];
    }
  }
  ImportedFile file;
  file.record = record.id();
  file.mode = 0644;
  file.seconds = record.info().modify_time;
  file.name = to_string(record.id());
  const unsigned number = ++byId_[record.id()];
  if (number > 1) file.name.append("-").append(std::to_string(number));
  return file;
}

template <typename Take>
void Exporter::forEachFile(Take take) {
  isWritten_.assign(isWritten_.size(), false);
  byId_.clear();
  for (const Record& record : table_.records()) {
    throwIfInterrupted();
    if (part_ && !part_->records.contains(record.id())) continue;
    take(fileOf(record), record);
  }
}

void Exporter::check() {
  if (writer_.wasEmpty()) return;
  const auto checkOne = [this](const ImportedFile& file) { writer_.check(file); };
  forEachNamed(FileKind::folder, checkOne);
  forEachNamed(FileKind::link, checkOne);
  forEachFile([&](const ImportedFile& file, const Record&) { checkOne(file); });
}

void Exporter::run() {
  Progress progress("exporting", part_ ? part_->records.size() : table_.count(), "records");
  forEachNamed(FileKind::folder,
               [this](const ImportedFile& file) { writer_.makeFolder(file.name); });
  forEachNamed(FileKind::file, [this](const ImportedFile& file) { hardLinks_.note(file); });
  const auto writeOne = [&](const ImportedFile& file, const Record& record) {
    if (!force_) limit_.count(table_, record, "--force writes the others too");
    record.require_sound();
    ++filesDone_;
    progress.step();
    const auto again = [this, record]() { return contentsOf(key_, record); };
    if (hardLinks_.link(file, again)) return;
    CodedPayload contents(key_, record);
    const auto identity =
        writer_.writeFile(file, [&](uint64_t offset, std::span<std::byte> buffer) {
          const size_t got = contents.read(offset, buffer);
          bytesDone_ += got;
          return got;
        });
    hardLinks_.noteWritten(file, identity, again);
  };
  // Where the chain is damaged everything else is written anyway.
  std::exception_ptr failure;
  try {
    forEachFile(writeOne);
  } catch (const Error& error) {
    if (error.reason() != Reason::chain_damaged) throw;
    failure = std::current_exception();
  }
  forEachNamed(FileKind::link, [this](const ImportedFile& file) { writer_.makeLink(file); });
  writer_.sync();
  if (files_) finishFolders();
  if (failure) std::rethrow_exception(failure);
}

// What is in a folder has the longer name, and comes first.
void Exporter::finishFolders() {
  std::vector<const ImportedFile*> folders;
  for (const ImportedFile& file : files_->list()) {
    if (file.kind == FileKind::folder && isWanted(file)) folders.push_back(&file);
  }
  std::stable_sort(folders.begin(), folders.end(),
                   [](const auto* a, const auto* b) { return a->name > b->name; });
  for (const ImportedFile* folder : folders) writer_.finishFolder(*folder);
}

uint64_t Exporter::namesWithoutRecord() const {
  uint64_t count = 0;
  for (size_t i = 0; i < isWritten_.size(); ++i) {
    const ImportedFile& file = files_->list()[i];
    if (file.kind == FileKind::file && !isWritten_[i] && isWanted(file)) ++count;
  }
  return count;
}

std::string Exporter::summary() const {
  return "exported " + counted(filesDone_, "file", "files") + ", " +
         counted(bytesDone_, "byte", "bytes");
}

// Into a file of another program.
int runRows(const Options& options) {
  if (options.rows.count() > 1) {
    throw wrongUsage("--sqlite, --parquet and --copy cannot be combined");
  }
  if (options.folder || options.byId || options.at || options.folderOptions.samePermissions ||
      options.folderOptions.fields.isAny()) {
    throw wrongUsage("--sqlite, --parquet and --copy write no folder: leave FOLDER out");
  }
  if (options.after && !options.table) throw wrongUsage("--after: name the TABLE, too");
  const uint64_t count = exportRows({.file = options.file,
                                     .table = options.table,
                                     .after = options.after,
                                     .takesOverlapping = options.folderOptions.force},
                                    options.rows,
                                    {.overwrite = options.folderOptions.force,
                                     .create_folders = options.folderOptions.parents,
                                     .sync = !options.folderOptions.noSync});
  if (options.rows.copy != "-") printLine("exported " + counted(count, "record", "records"));
  return kDone;
}

int run(const Options& options) {
  if (options.rows.count() != 0) return runRows(options);
  if (options.after) throw wrongUsage("--after goes with --sqlite, --parquet or --copy");
  if (!options.table || !options.folder) {
    throw wrongUsage(std::string(options.table ? "FOLDER" : "TABLE") + " is required");
  }
  if (options.folderOptions.samePermissions && ::geteuid() != 0) {
    throw wrongUsage("--same-permissions is for root: the umask limits all other users");
  }
  if (options.folderOptions.fields.owners && ::geteuid() != 0) {
    throw wrongUsage("--same-owner is for root: only root can give files to other users");
  }
  if (options.folderOptions.fields.attributes) requireAttributes("--xattrs");
  if (options.at) {
    if (options.byId) throw wrongUsage("--at and --by-id cannot be combined");
    FolderOptions folderOptions = options.folderOptions;
    folderOptions.database = options.file;
    return exportAt({.table = *options.table,
                     .folder = *options.folder,
                     .names = options.names,
                     .time = timeOfOption("--at", *options.at)},
                    folderOptions);
  }
  const Database database = openToRead(options.file);
  const Table table = findTable(database, *options.table);
  std::optional<ImportedFiles> files;
  bool isUnreachable = false;
  if (!options.byId) files = readNames(database, table, &isUnreachable);
  FolderOptions folderOptions = options.folderOptions;
  folderOptions.database = options.file;
  std::optional<Part> part = partOf(database, table, files, options.names);
  FolderWriter writer(*options.folder, folderOptions);
  const bool hasAllNames = !isUnreachable && (!files || files->isWhole());
  Exporter exporter(database, table, std::move(files), std::move(part), writer, folderOptions);
  exporter.check();
  exporter.run();
  const uint64_t missing = exporter.namesWithoutRecord();
  if (missing != 0) {
    complain(options.file + ": " + counted(missing, "name has no record", "names have no record") +
             " any more; no file was written for " + (missing == 1 ? "it" : "them"));
  }
  printLine(exporter.summary());
  const bool isAll = missing == 0 || options.names.empty();
  return hasAllNames && isAll && writer.isComplete() ? kDone : kFailed;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.optionalArgument("TABLE", options->table,
                             "A table: its name, or its identifier. With --sqlite, --parquet or "
                             "--copy all tables unless it is given.");
  arguments.optionalArgument("FOLDER", options->folder,
                             "The folder to write to. It is created if it does not exist.");
  arguments.arguments("NAME", options->names, 0,
                      "Only these: names of files, folders with all that is below them, patterns "
                      "of names, or identifiers of records. All unless one is given.");
  arguments.option("--sqlite", "OUT", options->rows.sqlite,
                   "Write the records into a new SQLite database instead.");
  arguments.option("--parquet", "OUT", options->rows.parquet,
                   "Write the records into a new Parquet file instead.");
  arguments.option("--copy", "OUT", options->rows.copy,
                   "Write the records as text for PostgreSQL's COPY instead; '-' is standard "
                   "output.");
  arguments.option("--after", "RECORD", options->after,
                   "With these: only the records of TABLE that come after this one.");
  FolderOptions& folder = options->folderOptions;
  arguments.force(folder.force, "Replace files that exist in the folder.");
  arguments.parents(folder.parents);
  arguments.flag("--same-permissions", folder.samePermissions,
                 "Give files and folders their stored permissions whatever the umask is, set-id "
                 "bits included; "
                 "for root.");
  arguments.flag("--same-owner", folder.fields.owners,
                 "Give what is written to the users and groups that 'qvdb import --owners' stored; "
                 "for root.");
  arguments.flag("--xattrs", folder.fields.attributes,
                 "Give files and folders the extended attributes that 'qvdb import --xattrs' "
                 "stored.");
  arguments.flag(
      "--hard-links", folder.fields.hardLinks,
      "Make files names of one file again that 'qvdb import --hard-links' stored as that.");
  arguments.noSync(folder.noSync);
  arguments.flag("--by-id", options->byId,
                 "Name all files by their records' identifiers, and ignore the names of imported "
                 "files.");
  arguments.option("--at", "TIME", options->at,
                   "Write the folder as it was at this time, for as long as the file has it: "
                   "2024-05-01T12:34:56, 2024-05-01 (UTC) or @SECONDS since 1970.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kExportCommand = {
    "export",
    "write records as files, or for other databases",
    R"(Writes each record of a table to a file in a folder. What 'qvdb import' stored gets its name,
permissions and time back, and its folders and symbolic links are created again; other records are
named by their identifiers. Permissions that the umask forbids are left out. The database is only
read.

With NAMEs only these are written, into the folders that they were in. If the table has nothing of that
name, or that matches, nothing is written. In a pattern '*' is any text without '/', '**' any text, '?'
one character, '[a-z]' one of these and '[!a-z]' any other; '\' takes the meaning from the next
character. A pattern is compared with whole names, and a name that exists is that name. Write ./NAME
for a name that looks like a number.

Where the list of names is damaged, or is not where the table says, as in a packed file, the files
whose names are lost are named by their records' identifiers too, and the status is 1.

In a damaged file records can overlap, so that together they are larger than the file. Without
--force no more bytes are written than the file has.

--same-owner finds a user or group by the stored name, and by the number where the system knows no such
name. Set-id bits and capabilities are restored only with --same-permissions; where the list has the
owner of a file, set-id bits only if the file belongs to that owner again. An attribute that the system
refuses is left out, with a line on standard error, and the status is 1.

--hard-links makes two files one only where their contents, permissions, times, owners and attributes
are still the same. Where the file system refuses, they are written as two, and the status is 1.

Nothing is overwritten unless --force is given: if one file exists already, no file is written.
Nothing is ever written outside the folder: a name that would lead out of it counts as damage, and
symbolic links in the folder are not followed.

--at writes the folder as it was at a time: the files, folders and links that had been imported until
then and were not deleted yet, with the names, permissions and contents of that time. The list of names
knows that since it has times, which a line on standard error says where it does not; what it lists
has its contents until the file is compacted or trimmed. Where a file was changed in place, because
the new contents fitted, the old ones are lost: such files are left out, a line says so, and the
status is 1. Records without a name are left out.

With --sqlite, --parquet or --copy the records become rows with the columns place (in the order of
the table, from 1), table_name, id, created, modified and payload. --after leaves out what an
earlier export has. 'qvdb dump --copy' writes the same rows as --copy.

Each file appears under its name when it is complete. Ctrl-C stops between two files. Only a
process that is killed leaves a file .qvdb-....tmp, which you may delete.)",
    R"(qvdb export photos.qvd holiday /mnt/copy
diff -r ~/Pictures/holiday /mnt/copy
qvdb export --force photos.qvd holiday /mnt/copy
qvdb export photos.qvd holiday . beach '**/*.jpg'
qvdb export --at 2024-05-01T12:00:00 photos.qvd holiday /mnt/as-it-was
qvdb export --sqlite notes.sqlite notes.qvd
qvdb export --parquet letters.parquet notes.qvd letters)",
    define,
};

}  // namespace qvdb::tool
