// Stores a tree of files as records of a table.
#include "archive/importer.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <new>
#include <system_error>
#include <utility>

#include "commands/locate.h"
#include "streams/failure.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr uint64_t kLargeFile = uint64_t{1} << 20;  // stored in pieces

const char* wordFor(FileKind kind) {
  if (kind == FileKind::folder) return "a folder";
  return kind == FileKind::link ? "a symbolic link" : "a file";
}

// Throws Error when the file cannot become longer by so much.
void requireSpace(const std::filesystem::path& path, uint64_t more) {
  const auto fail = [&](Reason reason, const char* why) {
    ErrorDetails details;
    details.path = path;
    throw Error("add the table", reason, path.native() + ": cannot add the table: " + why,
                std::move(details));
  };
  std::error_code error;
  const uint64_t size = std::filesystem::file_size(path, error);
  rlimit limit = {};
  if (!error && ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < size + more) {
    fail(Reason::size_limit, "its names would make the file longer than the system allows");
  }
  // Some file systems report no sizes at all.
  const std::filesystem::space_info space = std::filesystem::space(path, error);
  if (!error && space.capacity > 0 && space.available < more) {
    fail(Reason::disk_full, "the disk has no space for its names");
  }
}

}  // namespace

Importer::Importer(Database& database, Table& table, const FileTree& tree, ImportedFiles names,
                   std::string newTable, bool compress)
    : database_(database),
      table_(table),
      newTable_(std::move(newTable)),
      tree_(tree),
      names_(database, table, tree, std::move(names)),
      compress_(compress),
      encoder_(names_.key(), compress),
      batch_(table) {}

// The records that have names. A name without a record is one whose import did not get that far.
void Importer::loadRecords() {
  if (areRecordsLoaded_) return;
  areRecordsLoaded_ = true;
  for (const Record& record : table_.records()) {
    throwIfInterrupted();
    if (names_.has(record.id())) records_[record.id()].push_back(record);
  }
}

// Whether storing this file replaces what the table has under its name.
bool Importer::isReplaced(size_t place) {
  const ImportedFile* old = names_.present(place);
  if (old == nullptr) return false;
  const ImportedFile& now = tree_.files[place].file;
  if (old->kind != now.kind) {
    throw Failure(database_.path().native() + ": '" + now.name + "' in table '" + table_.name() +
                  "' is not " + wordFor(now.kind) + "; import into another table");
  }
  if (old->kind == FileKind::file) {
    loadRecords();
    return records_.contains(old->record);
  }
  // The same link again is no clash: it is what an import that was killed has left.
  return old->kind == FileKind::link && old->target != now.target;
}

void Importer::check(bool replace) {
  uint64_t clashes = 0;
  std::string first;
  for (size_t i = 0; i < tree_.files.size(); ++i) {
    if (isReplaced(i) && clashes++ == 0) first = tree_.files[i].file.name;
  }
  if (clashes == 0 || replace) return;
  throw Failure(database_.path().native() + ": table '" + table_.name() + "' has '" + first + "'" +
                (clashes > 1 ? " and " + counted(clashes - 1, "other file", "other files") : "") +
                " already; use --replace to replace what it has, or --update to replace what has "
                "changed");
}

// A list gets a key with the first file that is compressed.
void Importer::prepareToCompress() {
  const auto isStoredNow = [](const FoundFile& found) {
    return found.file.kind == FileKind::file && !found.isStored;
  };
  if (!compress_ || std::none_of(tree_.files.begin(), tree_.files.end(), isStoredNow)) return;
  names_.giveKey();
  encoder_ = PayloadEncoder(names_.key(), true);
}

void Importer::run() {
  prepareToCompress();
  names_.addNew();
  try {
    if (table_ == Table()) makeTable();
    names_.storeIfChanged();
    storeAll();
  } catch (const Interrupted&) {
    throw Failure("interrupted; " + stop());
  } catch (const Failure& failure) {
    throw Failure(failure.what() + ("; " + stop()), failure.status());
  } catch (const Error& error) {
    const std::string advice = adviceFor(error);
    throw Failure(error.what() + (advice.empty() ? "" : "; " + advice) + "; " + stop());
  } catch (const std::bad_alloc&) {
    throw Failure("there is not enough memory; " + stop());
  }
  names_.replaceOld(tree_.files.size());
  names_.storeIfChanged();
}

// Comes last before the work, because no operation removes a table: what stops the import earlier
// leaves none, and so does a list of names that finds no space.
void Importer::makeTable() {
  throwIfInterrupted();
  requireSpace(database_.path(), names_.storedSize());
  table_ = database_.add_table(newTable_);
}

void Importer::storeAll() {
  Progress progress("importing", tree_.files.size(), "files");
  for (at_ = 0; at_ < tree_.files.size(); ++at_) {
    throwIfInterrupted();
    store(at_);
    progress.step();
  }
  batch_.finish();
}

// Mode and times are those of a file when it was read, and those of others when they were listed.
void Importer::store(size_t place) {
  const ImportedFile& found = tree_.files[place].file;
  if (tree_.files[place].isStored) return names_.note(place, found);
  if (found.kind == FileKind::file) return storeIfThere(place);
  ++(found.kind == FileKind::folder ? folders_ : links_);
  names_.note(place, found);
}

// What the table has of a file that has disappeared stays there.
void Importer::storeIfThere(size_t place) {
  try {
    storeFile(place);
  } catch (const Disappeared& failure) {
    complain(std::string("left out: ") + failure.what());
    names_.forget(place);
    ++disappeared_;
  }
}

void Importer::storeFile(size_t place) {
  const FoundFile& found = tree_.files[place];
  struct stat status = {};
  const Descriptor file = opener_.open(found, &status);
  const auto size = static_cast<uint64_t>(status.st_size);
  const Id record = names_.of(place).record;
  const auto old = records_.find(record);
  if (old != records_.end()) {
    replaceRecords(old->second, place, file, size);
  } else if (size > kLargeFile) {
    bytes_ += batch_.addPieces(record, place, file, found.path, encoder_);
  } else {
    readAll(file.number(), found.path, &buffer_);
    batch_.add(record, place, encoder_.encode(buffer_));
    bytes_ += buffer_.size();
  }
  names_.note(place, propertiesOf(status, found.file.name));
  ++files_;
}

// A change needs the whole payload in memory. For a large file a new record is added under the old
// identifier, and then the old ones are deleted. There are several after a kill between these
// steps.
void Importer::replaceRecords(const std::vector<Record>& old, size_t place, const Descriptor& file,
                              uint64_t size) {
  const std::string& path = tree_.files[place].path;
  const Id id = old.front().id();
  size_t replaced = 0;
  if (size > kLargeFile) {
    bytes_ += batch_.addPieces(id, place, file, path, encoder_);
  } else {
    readAll(file.number(), path, &buffer_);
    batch_.finish();
    if (!table_.modify(old.front(), encoder_.encode(buffer_)))
      throw noSuchRecord(database_, table_, id);
    bytes_ += buffer_.size();
    replaced = 1;
  }
  for (; replaced < old.size(); ++replaced) table_.remove(old[replaced]);
}

uint64_t Importer::filesBetween(size_t from, size_t to) const {
  uint64_t count = 0;
  for (size_t i = from; i < to; ++i) {
    if (tree_.files[i].file.kind == FileKind::file) ++count;
  }
  return count;
}

// Ends the work: removes the names of what is not stored, and reports how much is.
std::string Importer::stop() {
  const size_t firstMissing = batch_.firstMissing(at_);
  names_.cutFrom(firstMissing);
  try {
    names_.replaceOld(firstMissing);
    names_.store();
  } catch (const Error&) {
    // Names without records do no harm. The failure that ended the import is reported.
  }
  const uint64_t missing = filesBetween(firstMissing, tree_.files.size());
  return counted(filesBetween(0, firstMissing) - disappeared_, "file is", "files are") +
         " stored, " + counted(missing, "is", "are") +
         " not; the database is sound; import again with --replace or --update to complete it";
}

std::string Importer::summary() const {
  return "imported " + counted(files_, "file", "files") + ", " +
         counted(folders_, "folder", "folders") + " and " +
         counted(links_, "symbolic link", "symbolic links") + ", " +
         counted(bytes_, "byte", "bytes");
}

}  // namespace qvdb::tool
