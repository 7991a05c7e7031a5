// What an update of a table from a tree of files has to change.
#include "archive/import_update.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "archive/found_file_opener.h"
#include "compression/coded_payload.h"
#include "streams/failure.h"
#include "streams/given_time.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

// File systems keep times in steps of up to two seconds, and those of records are whole seconds.
constexpr int64_t kSettled = 3;

// The one record of each identifier; none where an identifier has several, of which a killed import
// has left the older ones.
class StoredFiles {
 public:
  StoredFiles(const Table& table, const ImportedFiles& names) {
    for (const Record& record : table.records()) {
      throwIfInterrupted();
      if (!names.find(record.id())) continue;
      const auto [place, isNew] = records_.emplace(record.id(), record);
      if (!isNew) place->second.reset();
    }
  }

  const Record* find(Id id) const {
    const auto found = records_.find(id);
    return found == records_.end() || !found->second ? nullptr : &*found->second;
  }

 private:
  std::unordered_map<Id, std::optional<Record>> records_;
};

bool hasTimeOf(const ImportedFile& one, const ImportedFile& other) {
  return one.seconds == other.seconds && one.nanoseconds == other.nanoseconds;
}

bool wasSettled(const Record& record, const ImportedFile& file) {
  return int64_t{record.info().modify_time} - file.seconds >= kSettled;
}

class Comparison {
 public:
  explicit Comparison(const ListKey& key) : key_(key) {}

  // Whether the record holds so many bytes of a file. A damaged one is stored again.
  bool hasSize(const Record& record, uint64_t size) const {
    if (!isKey(key_)) return record.size() == size;
    try {
      return CodedPayload(key_, record).size() == size;
    } catch (const DamagedContents&) {
      return false;
    }
  }

  // A file that has disappeared meanwhile is for the import to report.
  bool areSame(const Record& record, const FoundFile& found) {
    try {
      return areSameNow(record, found);
    } catch (const Disappeared&) {
      return false;
    } catch (const DamagedContents&) {
      return false;
    } catch (const Error& error) {
      if (error.reason() != Reason::payload_damaged) throw;
      return false;  // what is stored again is right again
    }
  }

 private:
  static constexpr size_t kPiece = 256 * 1024;
  static ptrdiff_t distance(size_t size) { return static_cast<ptrdiff_t>(size); }

  bool areSameNow(const Record& record, const FoundFile& found) {
    struct stat status = {};
    const Descriptor file = opener_.open(found, &status);
    there_.resize(kPiece);
    here_.resize(kPiece);
    CodedPayload contents(key_, record);
    for (uint64_t offset = 0;;) {
      const size_t stored = readFully(contents, offset);
      const size_t read = readFully(file.number(), found.path);
      if (stored != read || !std::equal(there_.begin(), there_.begin() + distance(stored),
                                        here_.begin(), here_.begin() + distance(read))) {
        return false;
      }
      if (stored == 0) return true;
      offset += stored;
    }
  }

  size_t readFully(CodedPayload& contents, uint64_t offset) {
    size_t got = 0;
    while (got < kPiece) {
      const size_t more = contents.read(offset + got, std::span(there_).subspan(got));
      if (more == 0) break;
      got += more;
    }
    return got;
  }

  size_t readFully(int file, const std::string& path) {
    size_t got = 0;
    while (got < kPiece) {
      const size_t more = readSome(file, path, here_.data() + got, kPiece - got);
      if (more == 0) break;
      got += more;
    }
    return got;
  }

  const ListKey key_;
  FoundFileOpener opener_;
  std::vector<std::byte> there_;
  std::vector<std::byte> here_;
};

bool isBelow(std::string_view name, std::string_view folder) {
  return folder.empty() ||
         (name.size() > folder.size() && name.starts_with(folder) && name[folder.size()] == '/');
}

std::unordered_map<std::string_view, FileKind> kindsIn(const FileTree& tree) {
  std::unordered_map<std::string_view, FileKind> kinds;
  kinds.reserve(tree.files.size());
  for (const FoundFile& found : tree.files) kinds.emplace(found.file.name, found.file.kind);
  return kinds;
}

// Whether there is something below the folder of that name, and nothing else.
bool hasNothingBeside(std::string_view top, const ImportedFiles& names) {
  bool isAny = false;
  for (const ImportedFile& file : names.list()) {
    if (file.kind == FileKind::removed || file.name == top) continue;
    if (!isBelow(file.name, top)) return false;
    isAny = true;
  }
  return isAny;
}

}  // namespace

uint64_t leaveOutUnchanged(const Table& table, const ImportedFiles& names, FileTree* tree) {
  const StoredFiles stored(table, names);
  Comparison comparison(names.head().key);
  Progress progress("comparing", tree->files.size(), "files");
  uint64_t unchanged = 0;
  const auto isUnchanged = [&](FoundFile& found) {
    progress.step();
    throwIfInterrupted();
    const auto index = names.find(found.file.name);
    if (!index) return false;
    const ImportedFile& old = names.list()[*index];
    const bool isSame = hasTimeOf(old, found.file) && old.mode == found.file.mode &&
                        old.fields == renewedFields(old.fields, found.file.fields, tree->fields);
    if (old.kind != found.file.kind) return false;
    if (old.kind == FileKind::folder) return isSame;
    if (old.kind == FileKind::link) return isSame && old.target == found.file.target;
    const Record* record = stored.find(old.record);
    if (record == nullptr || !hasTimeOf(old, found.file) ||
        !comparison.hasSize(*record, found.size)) {
      return false;
    }
    found.isStored = wasSettled(*record, old) || comparison.areSame(*record, found);
    if (found.isStored) ++unchanged;
    return found.isStored && isSame;
  };
  std::erase_if(tree->files, isUnchanged);
  return unchanged;
}

std::vector<size_t> entriesInTheWay(const ImportedFiles& names, const FileTree& tree) {
  const auto kinds = kindsIn(tree);
  const auto wasReplaced = [&](std::string_view name, FileKind kind) {
    const auto found = kinds.find(name);
    return found != kinds.end() && found->second != kind;
  };
  const auto isInTheWay = [&](const ImportedFile& file) {
    if (wasReplaced(file.name, file.kind)) return true;
    const std::string_view name = file.name;
    for (size_t end = name.find('/'); end != name.npos; end = name.find('/', end + 1)) {
      if (wasReplaced(name.substr(0, end), FileKind::folder)) return true;
    }
    return false;
  };
  std::vector<size_t> entries;
  for (size_t i = 0; i < names.list().size(); ++i) {
    const ImportedFile& file = names.list()[i];
    if (file.kind != FileKind::removed && isInTheWay(file)) entries.push_back(i);
  }
  return entries;
}

void refuseOtherTop(const ImportedFiles& names, const FileTree& tree) {
  for (const FoundRoot& root : tree.roots) {
    std::error_code none;
    const std::string top = std::filesystem::canonical(root.path, none).filename();
    if (!root.name.empty() || top.empty() || !hasNothingBeside(top, names)) continue;
    const bool isInIt = std::any_of(tree.files.begin(), tree.files.end(),
                                    [&](const auto& found) { return found.file.name == top; });
    if (isInIt) continue;
    throw Failure(root.path + ": the table has its files as '" + top +
                  "/...'; all of them would be stored again under other names, and then deleted; "
                  "nothing was changed; leave out the '/' at the end, as when they were imported, "
                  "or delete them first with 'qvdb rm'");
  }
}

void refuseLostRoots(const ImportedFiles& names, const FileTree& tree, bool mirror) {
  for (const FoundRoot& root : tree.roots) {
    if (root.isFolder && !(mirror && root.isEmpty)) continue;
    const auto lost = std::find_if(names.list().begin(), names.list().end(), [&](const auto& file) {
      return file.kind != FileKind::removed && isBelow(file.name, root.name);
    });
    if (lost == names.list().end()) continue;
    throw Failure(root.path + (root.isFolder ? ": is empty" : ": is no folder any more") +
                  ", but the table has files of it, '" + lost->name +
                  "' for one; nothing was changed; mount or restore the folder, or delete the "
                  "files with 'qvdb rm'");
  }
}

std::vector<size_t> entriesThatAreGone(const ImportedFiles& names, const FileTree& tree,
                                       const Excluded& excluded) {
  const auto kinds = kindsIn(tree);
  std::vector<size_t> entries;
  for (size_t i = 0; i < names.list().size(); ++i) {
    const ImportedFile& file = names.list()[i];
    if (file.kind == FileKind::removed || kinds.contains(file.name)) continue;
    const auto root =
        std::find_if(tree.roots.begin(), tree.roots.end(), [&](const FoundRoot& each) {
          return file.name == each.name || isBelow(file.name, each.name);
        });
    if (root == tree.roots.end() || excluded.covers(file.name, file.kind == FileKind::folder)) {
      continue;
    }
    entries.push_back(i);
  }
  return entries;
}

void removeEntries(Table& table, ImportedFiles& names, const std::vector<size_t>& entries) {
  if (entries.empty()) return;
  std::unordered_set<Id> unwanted;
  for (const size_t entry : entries) {
    const ImportedFile& file = names.list()[entry];
    if (file.kind == FileKind::file) unwanted.insert(file.record);
  }
  erase_if(table, [&](const Record& record) {
    throwIfInterrupted();
    return unwanted.contains(record.id());
  });
  for (const size_t entry : entries) names.remove(entry, timeNow());
  table.set_data(names.bytes());
}

}  // namespace qvdb::tool
