// The list of imported files: eight bytes, "QVfiles" and the format's version 1, and then entries
// until the end.
#include "imported_files.h"

#include <algorithm>
#include <cstring>

namespace qvdb::tool {
namespace {

constexpr char kMark[8] = {'Q', 'V', 'f', 'i', 'l', 'e', 's', 1};

// What a list that is being shortened has in place of its next entry's kind, for the moment until
// its length is written: the mark that ends every block of the file.
constexpr char kCutOffHere = 'i';

// Names that share their beginnings take little space in the block, and much more in memory. No
// real folder comes near this limit; a hostile block could fill all memory without it.
constexpr uint64_t kLargestExpansion = 64;

}  // namespace

ImportedFiles::ImportedFiles() {
  const auto mark = std::as_bytes(std::span(kMark));
  bytes_.assign(mark.begin(), mark.end());
  end_ = bytes_.size();
}

bool ImportedFiles::isOurs(std::span<const std::byte> data) {
  return data.size() >= sizeof kMark && std::memcmp(data.data(), kMark, sizeof kMark) == 0;
}

std::optional<ImportedFiles> ImportedFiles::of(const Table& table) {
  std::byte start[sizeof kMark] = {};
  const size_t got = table.read_data(0, start);
  if (!isOurs(std::span(start).first(got))) return std::nullopt;
  ImportedFiles files;
  files.decode(*table.data());
  return files;
}

std::optional<ImportedFiles> ImportedFiles::from(std::span<const std::byte> data) {
  if (!isOurs(data)) return std::nullopt;
  ImportedFiles files;
  files.decode({data.begin(), data.end()});
  return files;
}

void ImportedFiles::decode(std::vector<std::byte> data) {
  uint64_t namesTogether = 0;
  for (size_t at = sizeof kMark; at < data.size();) {
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
