// The list of imported files.
#include "archive/imported_files.h"

#include <algorithm>

#include "streams/failure.h"

using namespace qvdbase::format::imported;

namespace qvdb::tool {
namespace {

// The bytes of a list from its first entry on, for its reader.
class Entries {
 public:
  explicit Entries(std::span<const std::byte> data)
      : data_(data), at_(std::min(kHeadSize, data.size())) {}

  size_t position() const { return at_; }
  bool isAtEnd() const {
    return at_ == data_.size() || static_cast<uint8_t>(data_[at_]) == kCutOffHere;
  }

  const unsigned char* take(size_t count) {
    if (count > data_.size() - at_) return nullptr;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data_.data()) + at_;
    at_ += count;
    return bytes;
  }

 private:
  std::span<const std::byte> data_;
  size_t at_;
};

}  // namespace

ImportedFiles::ImportedFiles() {
  const auto mark = std::as_bytes(std::span(kMark));
  bytes_.assign(mark.begin(), mark.end());
  bytes_.push_back(std::byte{kKnownVersion});
  end_ = bytes_.size();
}

ListVersion ImportedFiles::versionOf(std::span<const std::byte> data) {
  if (data.size() < kHeadSize) return ListVersion::none;
  return qvdbase::format::imported::versionOf(reinterpret_cast<const unsigned char*>(data.data()));
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
  Entries entries(data);
  EntryReader reader(entries, data.size());
  while (!entries.isAtEnd()) {
    end_ = entries.position();
    const Entry* const entry = reader.next();
    if (entry == nullptr) {
      isWhole_ = false;
      break;
    }
    starts_.push_back(end_);
    list_.push_back(fileOf(*entry));
  }
  if (isWhole_) {
    end_ = entries.position();
    data.resize(end_);
  }
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
