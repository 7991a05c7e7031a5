// The list of imported files.
#include "archive/imported_files.h"

#include <algorithm>
#include <map>
#include <utility>

#include "streams/failure.h"

using namespace qvdbase::format::imported;

namespace qvdb::tool {
namespace {

// The bytes of a list from its first entry on, for its reader.
class Entries {
 public:
  explicit Entries(std::span<const std::byte> data) : data_(data) {}

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
  size_t at_ = 0;
};

// How many removed entries a list keeps at least, and how many for each that is in use.
constexpr size_t kRemovedKept = 10'000;
constexpr size_t kRemovedForEach = 4;

// Whether the later one of two entries is in the place of the other.
bool replaces(const ImportedFile& later, const ImportedFile& other) {
  return later.kind == other.kind && (later.kind != FileKind::file || later.record == other.record);
}

}  // namespace

ImportedFiles::ImportedFiles() : bytes_(encodeHead(head_)), end_(bytes_.size()) {}

ListVersion ImportedFiles::versionOf(std::span<const std::byte> data) {
  if (data.size() < kHeadSize) return ListVersion::none;
  return qvdbase::format::imported::versionOf(reinterpret_cast<const unsigned char*>(data.data()));
}

ListVersion ImportedFiles::versionOf(const Table& table) {
  std::byte start[kHeadSize] = {};
  const size_t got = table.read_data(0, start);
  return versionOf(std::span(start).first(got));
}

std::array<uint8_t, kKeySize> ImportedFiles::keyOf(const Table& table) {
  std::byte start[kLargeHeadSize] = {};
  Head head;
  try {
    const size_t got = table.read_data(0, start);
    Entries entries(std::span<const std::byte>(start, got));
    return readHead(entries, &head) ? head.key : Head().key;
  } catch (const Error& error) {
    if (error.reason() != Reason::data_damaged) throw;
    return {};
  }
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
  if (!readHead(entries, &head_)) {
    *this = ImportedFiles();
    isWhole_ = false;
    isRewritten_ = true;
    return;
  }
  EntryReader reader(entries, data.size(), head_.version);
  end_ = entries.position();
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
  if (head_.version != kFirstVersion) dropReplaced();
}

// A list has both entries from when the new one was added until the old one is removed.
void ImportedFiles::dropReplaced() {
  std::map<std::string_view, size_t> places;
  for (size_t i = 0; i < list_.size(); ++i) {
    if (list_[i].kind == FileKind::removed) continue;
    const auto [place, isNew] = places.emplace(list_[i].name, i);
    if (isNew) continue;
    if (!replaces(list_[i], list_[place->second])) continue;
    remove(std::exchange(place->second, i), list_[i].since);
  }
}

void ImportedFiles::rebuild(std::vector<ImportedFile> list) {
  index_.forget();
  list_ = std::move(list);
  starts_.clear();
  bytes_ = encodeHead(head_);
  std::string_view before;
  for (const ImportedFile& file : list_) {
    starts_.push_back(bytes_.size());
    appendEntry(head_.version, file, before, &bytes_);
    before = file.name;
  }
  end_ = bytes_.size();
  isWhole_ = true;
  isRewritten_ = true;
}

void ImportedFiles::renew(int64_t time) {
  const auto isRemoved = [](const ImportedFile& file) { return file.kind == FileKind::removed; };
  const auto removed = static_cast<size_t>(std::count_if(list_.begin(), list_.end(), isRemoved));
  const size_t inUse = list_.size() - removed;
  const bool hasTooMany = removed > kRemovedKept && removed / kRemovedForEach > inUse;
  if (head_.version == kNewestVersion && !hasTooMany) return;
  std::vector<ImportedFile> list = std::move(list_);
  if (head_.version != kNewestVersion) head_ = {.version = kNewestVersion, .knownSince = time};
  if (hasTooMany) {
    std::vector<int64_t> ends;
    for (const ImportedFile& file : list) {
      if (isRemoved(file)) ends.push_back(file.until);
    }
    const auto middle = ends.begin() + static_cast<ptrdiff_t>(ends.size() / 2);
    std::nth_element(ends.begin(), middle, ends.end());
    const int64_t last = *middle;
    std::erase_if(list,
                  [&](const ImportedFile& file) { return isRemoved(file) && file.until <= last; });
    head_.knownSince = std::max(head_.knownSince, last);
  }
  rebuild(std::move(list));
}

void ImportedFiles::giveKey() {
  if (head_.key != Head().key) return;
  for (const size_t half : {size_t{0}, kKeySize / 2}) {
    qvdbase::format::storeBigEndian(head_.key.data() + half, uint64_t{new_id().value});
  }
  const std::vector<std::byte> head = encodeHead(head_);
  std::copy(head.begin(), head.end(), bytes_.begin());
  isRewritten_ = true;
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
  appendEntry(head_.version, file, nameBefore(), &bytes_);
  end_ = bytes_.size();
  list_.push_back(std::move(file));
}

void ImportedFiles::remove(size_t index, int64_t time) {
  index_.forget();
  list_[index].kind = FileKind::removed;
  list_[index].until = time;
  rewrite(index);
}

void ImportedFiles::restore(size_t index) {
  index_.forget();
  list_[index].kind = FileKind::file;
  list_[index].until = 0;
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
  rewriteEntry(head_.version, list_[index], bytes_.data() + starts_[index]);
}

std::string_view ImportedFiles::nameBefore() const {
  return list_.empty() ? std::string_view() : std::string_view(list_.back().name);
}

}  // namespace qvdb::tool
