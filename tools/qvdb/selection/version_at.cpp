// The version of a record that was in use at a time.
//
// The file keeps no list of what was in use when. Each version has the time when its record was
// added, which all versions of a record share, and the time when it was last changed; versions come
// in the order in which they were written. A change in place leaves no version, only its time.
#include "selection/version_at.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "archive/imported_files.h"
#include "commands/locate.h"
#include "selection/pattern.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

// The records that a word can mean: one identifier, or those that a name has had.
std::vector<Id> recordsNamed(const std::string& path, const std::string& table,
                             const std::string& word) {
  if (const auto id = parse_id(word)) return {*id};
  const Database database = openToRead(path);
  const Table found = findTable(database, table);
  const ImportedFiles files = namesOfImported(database, found, word);
  const std::string name = nameIn(word);
  std::vector<Id> records;
  bool isOther = false;  // a folder or a link has the name
  for (const ImportedFile& file : files.list()) {
    if (file.name != name) continue;
    const bool isFile = file.kind == FileKind::file || file.kind == FileKind::removed;
    if (!isFile || file.record.value == 0) {
      isOther = true;
    } else if (std::find(records.begin(), records.end(), file.record) == records.end()) {
      records.push_back(file.record);
    }
  }
  if (!records.empty()) return records;
  if (isOther) {
    throw Failure(path + ": '" + name + "' in table '" + found.name() +
                  "' is a folder or a symbolic link, which has no versions; name a file");
  }
  if (Pattern::isOne(word)) {
    throw wrongUsage("--at takes one record or file, and '" + word + "' is a pattern");
  }
  throw noSuchName(database, found, files, word);
}

// Whether a chain may ever have led to it.
bool wasInUse(const FoundBlock& version) {
  return version.label != BlockLabel::unfinished && version.label != BlockLabel::unlinked;
}

bool isDeleted(const FoundBlock& version) {
  return version.label == BlockLabel::deleted || version.label == BlockLabel::deleted_or_unlinked;
}

// The versions of a record, oldest first.
std::vector<FoundBlock> versionsInUse(const std::string& path, const std::string& table,
                                      Id record) {
  const EndsAtOnce atOnce;
  std::vector<FoundBlock> versions = history(path, table, record);
  std::erase_if(versions, [](const FoundBlock& each) { return !wasInUse(each); });
  std::stable_sort(versions.begin(), versions.end(), [](const FoundBlock& a, const FoundBlock& b) {
    return a.modify_time < b.modify_time;
  });
  return versions;
}

uint32_t additionOf(const std::vector<FoundBlock>& versions) {
  const auto first = std::min_element(
      versions.begin(), versions.end(),
      [](const FoundBlock& a, const FoundBlock& b) { return a.create_time < b.create_time; });
  return first->create_time;
}

// Of several records that had a name, the one that was added last until `time`.
struct Candidates {
  std::vector<FoundBlock> versions;  // of that record; empty for none
  std::optional<uint32_t> earliest;  // when the first of all was added; nothing for no versions
};

Candidates recordAt(const std::string& path, const std::string& table, const std::string& word,
                    int64_t time) {
  Candidates found;
  for (const Id record : recordsNamed(path, table, word)) {
    std::vector<FoundBlock> versions = versionsInUse(path, table, record);
    if (versions.empty()) continue;
    const uint32_t added = additionOf(versions);
    found.earliest = std::min(found.earliest.value_or(added), added);
    if (added > time) continue;
    if (!found.versions.empty() && added < additionOf(found.versions)) continue;
    found.versions = std::move(versions);
  }
  return found;
}

std::string nameOf(const std::string& path, const std::string& word) {
  return path + ": '" + nameIn(word) + "'";
}

void reportDoubts(const std::string& path, const std::string& word, const FoundBlock& version,
                  const FoundBlock* next) {
  if (next != nullptr) {
    complain(nameOf(path, word) + " is shown as it was written at " +
             timeText(version.modify_time) + "; the next version is of " +
             timeText(next->modify_time) +
             ", and what was changed in place between them is not in the file");
  } else if (isDeleted(version)) {
    complain(nameOf(path, word) + " is shown as it was written at " +
             timeText(version.modify_time) +
             "; it has been deleted since, and the file does not say when");
  }
}

}  // namespace

FoundBlock versionAt(const std::string& path, const std::string& table, const std::string& word,
                     int64_t time) {
  const Candidates found = recordAt(path, table, word, time);
  const std::vector<FoundBlock>& versions = found.versions;
  if (!found.earliest) {
    throw Failure(nameOf(path, word) +
                  " has no version in the file; 'qvdb records' lists the records, with --deleted "
                  "the deleted ones");
  }
  if (versions.empty()) {
    throw Failure(nameOf(path, word) + " was added at " + timeText(*found.earliest) +
                  ", and was not there at " + timeText(time));
  }
  const auto next = std::find_if(versions.begin(), versions.end(), [time](const FoundBlock& each) {
    return each.modify_time > time;
  });
  if (next == versions.begin()) {
    throw Failure(nameOf(path, word) + " is no longer in the file as it was at " + timeText(time) +
                  ": it was changed in place later, or the file was compacted; its oldest version "
                  "is of " +
                  timeText(next->modify_time));
  }
  const FoundBlock version = *std::prev(next);
  if (version.grade == BlockGrade::c || version.there < version.length) {
    throw Failure(nameOf(path, word) + ": the version of " + timeText(version.modify_time) +
                  " is damaged; 'qvdb history --at " + std::to_string(version.offset) +
                  "' writes what is left of it");
  }
  reportDoubts(path, word, version, next == versions.end() ? nullptr : &*next);
  return version;
}

void deliverVersion(const std::string& path, const FoundBlock& version,
                    const DeliveryOptions& options) {
  const std::vector<std::byte> payload = read_version(path, version);
  deliver(
      [&](uint64_t offset, std::span<std::byte> buffer) {
        const size_t from = std::min<uint64_t>(offset, payload.size());
        const size_t count = std::min(buffer.size(), payload.size() - from);
        if (count > 0) std::memcpy(buffer.data(), payload.data() + from, count);
        return count;
      },
      path, options);
}

}  // namespace qvdb::tool
