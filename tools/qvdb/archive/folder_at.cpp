// A folder that was imported, as it was at an earlier time.
#include "archive/folder_at.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "archive/list_at.h"
#include "selection/name_choice.h"
#include "selection/record_versions.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

std::string firstOf(const std::vector<std::string>& names) {
  std::string text = "'";
  text += escaped(names.front());
  text += names.size() > 1 ? "' for one" : "'";
  return text;
}

}  // namespace

FolderAt::FolderAt(const Database& database, const Table& table, const ImportedFiles& files,
                   int64_t time)
    : database_(database),
      table_(table),
      time_(time),
      knownSince_(files.head().knownSince),
      isComplete_(isCompleteAt(files, time)) {
  for (ImportedFile& file : entriesAt(files, time)) {
    FileAt entry;
    entry.file = std::move(file);
    entries_.push_back(std::move(entry));
  }
  if (!entries_.empty()) return;
  throw Failure(database.path().native() + ": table '" + table.name() + "' had no files at " +
                timeText(time) + "; 'qvdb records' lists what it has now");
}

std::optional<std::string> FolderAt::choose(const std::vector<std::string>& words) {
  if (words.empty()) return std::nullopt;
  std::vector<ChoosableName> names;
  names.reserve(entries_.size());
  for (const FileAt& each : entries_) {
    names.push_back({each.file.name, each.file.kind == FileKind::folder});
  }
  const NameChoice choice(std::move(names));
  std::unordered_set<size_t> taken;
  std::vector<size_t> chosen;
  for (const std::string& word : words) {
    const std::vector<size_t> found = choice.find(word);
    if (found.empty()) return word;
    for (const size_t place : found) {
      if (taken.insert(place).second) chosen.push_back(place);
    }
  }
  std::vector<FileAt> entries;
  entries.reserve(chosen.size());
  for (const size_t place : chosen) entries.push_back(std::move(entries_[place]));
  entries_ = std::move(entries);
  return std::nullopt;
}

// The version in use is read as a record: in pieces, and compared with its checksum if it has one.
void FolderAt::addLive() {
  std::unordered_map<Id, FileAt*> live;
  for (FileAt& each : entries_) {
    if (each.version && each.version->label == BlockLabel::live) {
      live.emplace(each.file.record, &each);
    }
  }
  for (const Record& record : table_.records()) {
    throwIfInterrupted();
    const auto found = live.find(record.id());
    if (found == live.end()) continue;
    FileAt& file = *found->second;
    if (record.size() == file.version->length &&
        record.info().modify_time == file.version->modify_time) {
      file.record = record;
    }
    live.erase(found);
    if (live.empty()) return;
  }
}

void FolderAt::findContents(const std::string& table) {
  const TableVersions versions(database_.path(), table);
  const auto isMissing = [&](FileAt& each) {
    throwIfInterrupted();
    if (each.file.kind != FileKind::file) return false;
    const RecordAt found = versions.at(each.file.record, time_);
    if (found.state == RecordAt::State::notYet) return true;  // the import was not that far
    if (found.state != RecordAt::State::found || found.version->is_trimmed) {
      lost_.push_back(each.file.name);
      return true;
    }
    each.version = *found.version;
    if (found.next != nullptr) doubtful_.push_back(each.file.name);
    return false;
  };
  std::erase_if(entries_, isMissing);
  addLive();
}

bool FolderAt::report() const {
  const std::string where = database_.path().native() + ": ";
  if (!isComplete_) {
    complain(where + "what was removed from table '" + table_.name() +
             (knownSince_ == 0 ? "', and when, is not known: its list of names has no times"
                               : "' before " + timeText(knownSince_) + " is not known") +
             "; files, folders and links may be missing");
  }
  if (!lost_.empty()) {
    complain(where + counted(lost_.size(), "file, ", "files, ") + firstOf(lost_) + ", " +
             (lost_.size() == 1 ? "is" : "are") + " no longer in the file as " +
             (lost_.size() == 1 ? "it was" : "they were") + " at " + timeText(time_) +
             ": changed in place later, or the file was compacted, trimmed or damaged; nothing is "
             "written for " +
             (lost_.size() == 1 ? "it" : "them"));
  }
  if (!doubtful_.empty()) {
    complain(where + counted(doubtful_.size(), "file, ", "files, ") + firstOf(doubtful_) +
             ", changed after " + timeText(time_) +
             ": the last version until then is written; what was changed in place between it and "
             "the next one is not in the file");
  }
  return isComplete_ && lost_.empty();
}

size_t ContentsAt::readStored(const FileAt& file, uint64_t offset, std::span<std::byte> buffer) {
  if (file.record) return file.record->read(offset, buffer);
  const auto from = static_cast<size_t>(std::min<uint64_t>(offset, payload_.size()));
  const size_t count = std::min(buffer.size(), payload_.size() - from);
  if (count > 0) std::memcpy(buffer.data(), payload_.data() + from, count);
  return count;
}

size_t ContentsAt::read(const FileAt& file, uint64_t offset, std::span<std::byte> buffer) {
  if (of_ != &file) {
    contents_.reset();
    payload_ = file.record ? std::vector<std::byte>() : read_version(path_, *file.version);
    of_ = &file;
  }
  if (!contents_) {
    contents_.emplace(
        key_, file.version->length,
        [this, &file](uint64_t from, std::span<std::byte> to) {
          return readStored(file, from, to);
        },
        path_ + ": '" + escaped(file.file.name) + "'");
  }
  return contents_->read(offset, buffer);
}

}  // namespace qvdb::tool
