// The version of a record that was in use at a time.
#include "selection/version_at.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "archive/list_at.h"
#include "commands/locate.h"
#include "compression/coded_payload.h"
#include "selection/pattern.h"
#include "selection/record_versions.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

std::string nameOf(const std::string& path, const std::string& word) {
  return path + ": '" + nameIn(word) + "'";
}

// The records that a word can mean: one identifier, or those that a name has had.
struct Named {
  std::vector<Id> records;
  bool isListed = false;  // the list of names says that it is this record, at that time
};

Named recordsNamed(const std::string& path, const std::string& table, const std::string& word,
                   int64_t time) {
  if (const auto id = parse_id(word)) return {.records = {*id}};
  const Database database = openToRead(path);
  const Table found = findTable(database, table);
  const ImportedFiles files = namesOfImported(database, found, word);
  const std::string name = nameIn(word);
  for (const ImportedFile& file : entriesAt(files, time)) {
    if (file.name == name && file.since != 0 && file.kind == FileKind::file) {
      return {.records = {file.record}, .isListed = true};
    }
  }
  if (const auto removed = removalBefore(files, name, time)) {
    throw Failure(nameOf(path, word) + " was removed at " + timeText(*removed) +
                  ", and was not there at " + timeText(time));
  }
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
  if (!records.empty()) return {.records = records};
  if (isOther) {
    throw Failure(path + ": '" + name + "' in table '" + found.name() +
                  "' is a folder or a symbolic link, which has no versions; name a file");
  }
  if (Pattern::isOne(word)) {
    throw wrongUsage("--at takes one record or file, and '" + word + "' is a pattern");
  }
  throw noSuchName(database, found, files, word);
}

// The versions of a record, oldest first.
std::vector<FoundBlock> versionsInUse(const std::string& path, const std::string& table,
                                      Id record) {
  const EndsAtOnce atOnce;
  return thoseInUse(history(path, table, record));
}

// Of several records that had a name, the one that was added last until `time`.
struct Candidates {
  bool isListed = false;             // see Named
  std::vector<FoundBlock> versions;  // of that record; empty for none
  std::optional<uint32_t> earliest;  // when the first of all was added; nothing for no versions
};

Candidates candidatesAt(const std::string& path, const std::string& table, const std::string& word,
                        int64_t time) {
  const Named named = recordsNamed(path, table, word, time);
  Candidates found = {.isListed = named.isListed, .versions = {}, .earliest = {}};
  for (const Id record : named.records) {
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

void reportDoubts(const std::string& path, const std::string& word, const RecordAt& record,
                  bool isListed) {
  const FoundBlock& version = *record.version;
  if (record.next != nullptr) {
    complain(nameOf(path, word) + " is shown as it was written at " +
             timeText(version.modify_time) + "; the next version is of " +
             timeText(record.next->modify_time) +
             ", and what was changed in place between them is not in the file");
  } else if (isDeleted(version) && !isListed) {
    complain(nameOf(path, word) + " is shown as it was written at " +
             timeText(version.modify_time) +
             "; it has been deleted since, and the file does not say when");
  }
}

// A table that the directory does not have any more has no key.
ListKey keyOf(const std::string& path, const std::string& table) {
  try {
    const Database database = openToRead(path);
    return ImportedFiles::keyOf(findTable(database, table));
  } catch (const Failure&) {
    return {};
  } catch (const Error&) {
    return {};  // a file that is too damaged to be opened
  }
}

}  // namespace

FoundBlock versionAt(const std::string& path, const std::string& table, const std::string& word,
                     int64_t time) {
  const Candidates found = candidatesAt(path, table, word, time);
  if (!found.earliest) {
    throw Failure(nameOf(path, word) +
                  " has no version in the file; 'qvdb records' lists the records, with --deleted "
                  "the deleted ones");
  }
  if (found.versions.empty()) {
    throw Failure(nameOf(path, word) + " was added at " + timeText(*found.earliest) +
                  ", and was not there at " + timeText(time));
  }
  const RecordAt record = recordAt(found.versions, time);
  const FoundBlock& version = *record.version;
  if (record.state == RecordAt::State::lost) {
    throw Failure(nameOf(path, word) + " is no longer in the file as it was at " + timeText(time) +
                  ": it was changed in place later, or the file was compacted; its oldest version "
                  "is of " +
                  timeText(version.modify_time));
  }
  if (record.state == RecordAt::State::damaged) {
    throw Failure(nameOf(path, word) + ": the version of " + timeText(version.modify_time) +
                  " is damaged; 'qvdb history --at " + std::to_string(version.offset) +
                  "' writes what is left of it");
  }
  reportDoubts(path, word, record, found.isListed);
  return version;
}

void deliverVersion(const std::string& path, const std::string& table, const FoundBlock& version,
                    const DeliveryOptions& options) {
  const std::vector<std::byte> payload = read_version(path, version);
  const PieceReader stored = [&](uint64_t offset, std::span<std::byte> buffer) {
    const auto from = static_cast<size_t>(std::min<uint64_t>(offset, payload.size()));
    const size_t count = std::min(buffer.size(), payload.size() - from);
    if (count > 0) std::memcpy(buffer.data(), payload.data() + from, count);
    return count;
  };
  CodedPayload contents(keyOf(path, table), payload.size(), stored,
                        path + ": the version at " + std::to_string(version.offset));
  deliver(
      [&](uint64_t offset, std::span<std::byte> buffer) { return contents.read(offset, buffer); },
      path, options);
}

}  // namespace qvdb::tool
