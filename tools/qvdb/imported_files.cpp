// The list of imported files: eight bytes, "QVfiles" and the format's version 1, and then entries
// until the end.
#include "imported_files.h"

#include <algorithm>
#include <cstring>

#include "failure.h"

namespace qvdb::tool {
namespace {

constexpr char kMark[] = {'Q', 'V', 'f', 'i', 'l', 'e', 's'};
constexpr std::byte kVersion{1};
constexpr size_t kHeadSize = sizeof kMark + 1;

// What a list that is being shortened has in place of its next entry's kind, for the moment until
// its length is written: the mark that ends every block of the file.
constexpr char kCutOffHere = 'i';

// Names that share their beginnings take little space in the block, and much more in memory: a
// hostile block could fill all memory. All names together have at most this many times the bytes of
// the block. A name takes 28 bytes there at least, so one of up to 4,480 bytes never reaches the
// limit, and the paths of a system are shorter.
constexpr uint64_t kLargestExpansion = 160;

}  // namespace

ImportedFiles::ImportedFiles() {
  const auto mark = std::as_bytes(std::span(kMark));
  bytes_.assign(mark.begin(), mark.end());
  bytes_.push_back(kVersion);
  end_ = bytes_.size();
}

ListVersion ImportedFiles::versionOf(std::span<const std::byte> data) {
  if (data.size() < kHeadSize || std::memcmp(data.data(), kMark, sizeof kMark) != 0) {
    return ListVersion::none;
  }
  return data[sizeof kMark] == kVersion ? ListVersion::known : ListVersion::unknown;
}

ListVersion ImportedFiles::versionOf(const Table& table) {
  std::byte start[kHeadSize] = {};
  const size_t got = table.read_data(0, start);
  return versionOf(std::span(start).first(got));
}

std::optional<ImportedFiles> ImportedFiles::of(const Database& database, const Table& table) {
  const ListVersion version = versionOf(table);
  if (version == ListVersion::none) return std::nullopt;
  if (version == ListVersion::unknown) {
    throw Failure(database.path().native() + ": the list of names of table '" + table.name() +
                  "' was made by a newer qvdb; use that one");
  }
  ImportedFiles files;
  files.decode(*table.data());
  return files;
}

std::optional<ImportedFiles> ImportedFiles::from(std::span<const std::byte> data) {
  if (versionOf(data) != ListVersion::known) return std::nullopt;
  ImportedFiles files;
  files.decode({data.begin(), data.end()});
  return files;
}

bool ImportedFiles::isReadable() const {
  uint64_t namesTogether = 0;
  for (const ImportedFile& file : list_) {
    if (!isSound(file)) return false;
    namesTogether += file.name.size();
  }
  return namesTogether <= kLargestExpansion * bytes_.size();
}

void ImportedFiles::decode(std::vector<std::byte> data) {
  uint64_t namesTogether = 0;
  for (size_t at = kHeadSize; at < data.size();) {
    end_ = at;
    if (static_cast<char>(data[end_]) == kCutOffHere) {
      data.resize(end_);
      break;
    }
    std::optional<ImportedFile> file = readEntry(data, nameBefore(), &at);
    if (file) namesTogether += file->name.size();
    if (!file || namesTogether > kLargestExpansion * data.size()) {
      isWhole_ = false;
      break;
    }
    starts_.push_back(end_);
    list_.push_back(*std::move(file));
  }
  if (isWhole_) end_ = data.size();
  bytes_ = std::move(data);
}

std::optional<size_t> ImportedFiles::findRemoved(std::string_view name) const {
  return index_.of(list_).findRemoved(name);
}

std::optional<size_t> ImportedFiles::findRemoved(Id record) const {
  return index_.of(list_).findRemoved(record);
}

std::optional<size_t> ImportedFiles::find(std::string_view name) const {
  return index_.of(list_).find(name);
}

std::optional<size_t> ImportedFiles::find(Id record) const {
  return index_.of(list_).find(record);
}

void ImportedFiles::add(ImportedFile file) {
  index_.forget();
  bytes_.resize(end_);
  isWhole_ = true;
  starts_.push_back(end_);
  appendEntry(file, nameBefore(), &bytes_);
  end_ = bytes_.size();
  list_.push_back(std::move(file));
}

void ImportedFiles::remove(size_t index) {
  index_.forget();
  list_[index].kind = FileKind::removed;
  rewrite(index);
}

void ImportedFiles::restore(size_t index) {
  index_.forget();
  list_[index].kind = FileKind::file;
  rewrite(index);
}

void ImportedFiles::update(size_t index, const ImportedFile& as) {
  ImportedFile& file = list_[index];
  if (file.record != as.record) index_.forget();
  file.mode = as.mode;
  file.seconds = as.seconds;
  file.nanoseconds = as.nanoseconds;
  file.record = as.record;
  rewrite(index);
}

void ImportedFiles::cut(size_t index) {
  if (index >= list_.size()) return;
  index_.forget();
  end_ = starts_[index];
  bytes_.resize(end_);
  isWhole_ = true;
  starts_.resize(index);
  list_.resize(index);
}

void ImportedFiles::rewrite(size_t index) {
  rewriteEntry(list_[index], bytes_.data() + starts_[index]);
}

std::string_view ImportedFiles::nameBefore() const {
  return list_.empty() ? std::string_view() : std::string_view(list_.back().name);
}

}  // namespace qvdb::tool
