// qvdb import: stores files and folders as records, and their names in the table's data.
//
// The order of the work decides what an interruption leaves. Everything is listed and
// checked first. Then the names of all new files are stored, with the identifiers that their
// records are going to have, and then the records, one by one. So no record is ever without its
// name. Names without records are ignored by everything that reads them, and a new import of the
// same files adds the records. An import that is interrupted by Ctrl-C removes such names before it
// ends.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <new>
#include <optional>
#include <unordered_map>

#include "commands.h"
#include "file_tree.h"
#include "imported_files.h"
#include "input.h"
#include "interrupt.h"
#include "locate.h"
#include "output.h"
#include "progress.h"
#include "text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> paths;
  bool replace = false;
  bool noSync = false;
};

const char* wordFor(FileKind kind) {
  if (kind == FileKind::folder) return "a folder";
  return kind == FileKind::link ? "a symbolic link" : "a file";
}

class Importer {
 public:
  Importer(Database& database, Table& table, ImportedFiles names, bool replace)
      : database_(database), table_(table), names_(std::move(names)), replace_(replace) {}

  // Decides for each file whether it is new. Throws Failure, with nothing changed, when one is
  // in the table already and must not be replaced.
  void check(const FileTree& tree);

  // Stores everything.
  void run(const FileTree& tree);

  std::string summary() const;

 private:
  static constexpr size_t kNew = ~size_t{0};
  // What a kill, or a write that fails, can lose at most: files, and bytes.
  static constexpr size_t kBatch = 1024;
  static constexpr size_t kBatchBytes = size_t{1} << 20;
  static constexpr uint64_t kLargeFile = uint64_t{1} << 20;  // stored in pieces

  void loadRecords();
  void storeNames();
  void addNames(const FileTree& tree);
  void store(const FoundFile& found, size_t place);
  void append(Id record, size_t place);
  void finishBatch();
  size_t firstNotStored(size_t current);
  std::string stop(size_t current, const FileTree& tree);
  void appendPieces(Id record, size_t place, const Descriptor& file);
  void replaceRecord(const Record& record, size_t place, const Descriptor& file, uint64_t size);
  void dropOldLinks(size_t firstMissing);
  const std::string& pathOf(size_t place) const { return tree_->files[place].path; }
  void noteProperties(const FoundFile& found, size_t index, const struct stat& status);

  Database& database_;
  Table& table_;
  ImportedFiles names_;
  bool replace_;
  std::unordered_map<size_t, size_t> oldLinks_;  // of files in the tree: in names_
  const FileTree* tree_ = nullptr;
  bool areRecordsLoaded_ = false;
  bool namesHaveChanged_ = false;
  std::unordered_map<Id, Record> records_;  // those of the names that we had
  std::vector<size_t> places_;              // of each file in names_, or kNew
  size_t hadNames_ = 0;
  std::optional<BulkAppender> bulk_;
  size_t batchBytes_ = 0;      // in it
  std::vector<size_t> batch_;  // the files, by their place in the tree, that are in bulk_
  std::vector<std::byte> buffer_;
  uint64_t files_ = 0;
  uint64_t folders_ = 0;
  uint64_t links_ = 0;
  uint64_t bytes_ = 0;
};

// The records that have names. A name without a record is one whose import did not get that far.
void Importer::loadRecords() {
  if (areRecordsLoaded_) return;
  areRecordsLoaded_ = true;
  for (const Record& record : table_.records()) {
    throwIfInterrupted();
    if (names_.find(record.id())) records_.emplace(record.id(), record);
  }
}

void Importer::check(const FileTree& tree) {
  hadNames_ = names_.list().size();
  uint64_t clashes = 0;
  std::string first;
  for (const FoundFile& found : tree.files) {
    const auto there = names_.find(found.file.name);
    places_.push_back(there.value_or(kNew));
    if (!there) continue;
    const ImportedFile& old = names_.list()[*there];
    if (old.kind != found.file.kind) {
      throw Failure(database_.path().native() + ": '" + found.file.name + "' in table '" +
                    table_.name() + "' is not " + wordFor(found.file.kind) +
                    "; import into another table");
    }
    if (old.kind == FileKind::file) loadRecords();
    // The same link again is no clash: it is what an import that was killed has left.
    const bool isReplaced = old.kind == FileKind::link
                                ? old.target != found.file.target
                                : old.kind == FileKind::file && records_.contains(old.record);
    if (isReplaced && clashes++ == 0) first = found.file.name;
  }
  if (clashes == 0 || replace_) return;
  throw Failure(database_.path().native() + ": table '" + table_.name() + "' has '" + first + "'" +
                (clashes > 1 ? " and " + counted(clashes - 1, "other file", "other files") : "") +
                " already; use --replace to replace what it has");
}

// Names only ever grow by a half more than needed, so that many small imports into one table do not
// copy all names each time.
void Importer::storeNames() {
  const uint64_t size = names_.bytes().size();
  const auto present = table_.data_size();
  const uint64_t reserve = present ? size + size / 2 : size;
  table_.set_data(names_.bytes(), static_cast<uint32_t>(std::min<uint64_t>(reserve, 0xFFFFFFFF)));
}

void Importer::addNames(const FileTree& tree) {
  bool hasNew = false;
  for (size_t i = 0; i < tree.files.size(); ++i) {
    ImportedFile file = tree.files[i].file;
    const size_t place = places_[i];
    const bool isChangedLink =
        place != kNew && file.kind == FileKind::link && names_.list()[place].target != file.target;
    if (place != kNew && !isChangedLink) continue;
    if (isChangedLink) oldLinks_.emplace(i, place);
    if (file.kind == FileKind::file) file.record = new_id();
    places_[i] = names_.list().size();
    names_.add(std::move(file));
    hasNew = true;
  }
  if (hasNew || hadNames_ == 0) storeNames();
}

void Importer::run(const FileTree& tree) {
  tree_ = &tree;
  addNames(tree);
  Progress progress("importing", tree.files.size(), "files");
  size_t at = 0;
  try {
    for (; at < tree.files.size(); ++at) {
      throwIfInterrupted();
      store(tree.files[at], at);
      progress.step();
    }
    finishBatch();
  } catch (const Interrupted&) {
    throw Failure("interrupted; " + stop(at, tree));
  } catch (const Failure& failure) {
    throw Failure(failure.what() + ("; " + stop(at, tree)), failure.status());
  } catch (const Error& error) {
    const std::string advice = adviceFor(error);
    throw Failure(error.what() + (advice.empty() ? "" : "; " + advice) + "; " + stop(at, tree));
  } catch (const std::bad_alloc&) {
    throw Failure("there is not enough memory; " + stop(at, tree));
  }
  dropOldLinks(tree.files.size());
  if (namesHaveChanged_) storeNames();
}

// Ends the batch, and returns the place of the first file that is not in the table when the work
// ends at `current`.
size_t Importer::firstNotStored(size_t current) {
  if (!bulk_) return current;
  try {
    bulk_->finish();
  } catch (const Error&) {
    // taken() below says how far it got.
  }
  const size_t taken = bulk_->taken();
  if (taken < batch_.size()) current = std::min(current, batch_[taken]);
  bulk_.reset();
  batch_.clear();
  return current;
}

// Adds what is in buffer_.
void Importer::append(Id record, size_t place) {
  if (!bulk_) bulk_ = table_.appender();
  batch_.push_back(place);
  batchBytes_ += buffer_.size();
  bulk_->add(NewRecord(buffer_, 0, record));
  bytes_ += buffer_.size();
  if (batch_.size() == kBatch || batchBytes_ >= kBatchBytes) finishBatch();
}

// Adds a file that is never in memory as a whole.
void Importer::appendPieces(Id record, size_t place, const Descriptor& file) {
  if (!bulk_) bulk_ = table_.appender();
  batch_.push_back(place);
  RecordWriter writer = bulk_->writer(0, record);
  forEachInputPiece(file.number(), pathOf(place),
                    [&](std::span<const std::byte> piece) { writer.write(piece); });
  bytes_ += writer.size();
  writer.finish();
  finishBatch();
}

// Must be called before anything else is changed in the table, too.
void Importer::finishBatch() {
  if (bulk_) bulk_->finish();
  bulk_.reset();
  batch_.clear();
  batchBytes_ = 0;
}

void Importer::store(const FoundFile& found, size_t place) {
  const size_t index = places_[place];
  const ImportedFile& name = names_.list()[index];
  if (name.kind != FileKind::file) {
    ++(name.kind == FileKind::folder ? folders_ : links_);
    struct stat none = {};
    return noteProperties(found, index, none);
  }
  const Descriptor file(::open(found.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file) throw systemFailure(found.path, "open");
  struct stat status = {};
  if (::fstat(file.number(), &status) != 0) throw systemFailure(found.path, "look at it");
  if (!S_ISREG(status.st_mode)) throw Failure(found.path + ": is not a file any more");
  const auto size = static_cast<uint64_t>(status.st_size);
  const auto old = records_.find(name.record);
  if (old != records_.end()) {
    replaceRecord(old->second, place, file, size);
  } else if (size > kLargeFile) {
    appendPieces(name.record, place, file);
  } else {
    readAll(file.number(), found.path, &buffer_);
    append(name.record, place);
  }
  noteProperties(found, index, status);
  ++files_;
}

// A change needs the whole payload in memory. For a large file a new record is added under the old
// identifier, and then the old one is deleted.
void Importer::replaceRecord(const Record& record, size_t place, const Descriptor& file,
                             uint64_t size) {
  if (size > kLargeFile) {
    appendPieces(record.id(), place, file);
    finishBatch();
    table_.remove(record);
    return;
  }
  readAll(file.number(), pathOf(place), &buffer_);
  finishBatch();
  if (!table_.modify(record, buffer_)) throw noSuchRecord(database_, table_, record.id());
  bytes_ += buffer_.size();
}

// Deletes the entries of links that have new ones. The list has both for a time, in which the later
// one counts, so that a kill loses none. Links from `firstMissing` on keep their old entries.
void Importer::dropOldLinks(size_t firstMissing) {
  for (const auto& [place, old] : oldLinks_) {
    if (place >= firstMissing) continue;
    names_.remove(old);
    namesHaveChanged_ = true;
  }
}

// Mode and times as they are now: those of a file when it was read, those of others when they were
// listed.
void Importer::noteProperties(const FoundFile& found, size_t index, const struct stat& status) {
  const ImportedFile& old = names_.list()[index];
  ImportedFile now = found.file;
  if (now.kind == FileKind::file) now = propertiesOf(status, found.file.name);
  now.record = old.record;
  if (now.mode == old.mode && now.seconds == old.seconds && now.nanoseconds == old.nanoseconds) {
    return;
  }
  names_.update(index, now);
  namesHaveChanged_ = true;
}

// Ends the work at `current`: removes the names of what is not stored, and reports how much is.
std::string Importer::stop(size_t current, const FileTree& tree) {
  const size_t firstMissing = firstNotStored(current);
  for (size_t i = firstMissing; i < tree.files.size(); ++i) {
    if (places_[i] < hadNames_) continue;
    names_.cut(places_[i]);  // new names are in the order of the files
    break;
  }
  dropOldLinks(firstMissing);
  try {
    storeNames();
  } catch (const Error&) {
    // Names without records do no harm. The failure that ended the import is reported.
  }
  const auto files = [&](size_t from, size_t to) {
    return static_cast<uint64_t>(
        std::count_if(tree.files.begin() + static_cast<std::ptrdiff_t>(from),
                      tree.files.begin() + static_cast<std::ptrdiff_t>(to),
                      [](const FoundFile& f) { return f.file.kind == FileKind::file; }));
  };
  const uint64_t missing = files(firstMissing, tree.files.size());
  return counted(files(0, firstMissing), "file is", "files are") + " stored, " +
         counted(missing, "is", "are") +
         " not; the database is sound; import again with --replace to complete it";
}

std::string Importer::summary() const {
  return "imported " + counted(files_, "file", "files") + ", " +
         counted(folders_, "folder", "folders") + " and " +
         counted(links_, "symbolic link", "symbolic links") + ", " +
         counted(bytes_, "byte", "bytes");
}

ImportedFiles namesOf(const Database& database, const Table& table) {
  if (auto files = readNames(database, table)) return *std::move(files);
  if (table.data_size().value_or(0) == 0) return {};
  throw Failure(
      database.path().native() + ": table '" + table.name() +
      "' has data of its own, in whose place the names would be stored; import into another table");
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

int run(const Options& options) {
  Database database = openToWrite(options.file);
  const FileTree tree = listFiles(options.paths, options.file);
  refuseTooLarge(tree);
  for (const std::string& path : tree.leftOut) complain("left out: " + path);

  std::optional<Table> table = database.find_table(options.table);
  if (table || parse_id(options.table)) table = findTable(database, options.table);
  if (!table) table = database.add_table(options.table);
  Importer importer(database, *table, namesOf(database, *table), options.replace);
  importer.check(tree);
  throwIfInterrupted();
  importer.run(tree);
  finishWriting(database, options.noSync);
  printLine(importer.summary());
  return kDone;
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
                 "Replace files that the table has already, each in its record.");
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kImportCommand = {
    "import",
    "store files and folders as records",
    R"(Stores each file, also in folders below, as a record of its own. The names, folders, symbolic
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
