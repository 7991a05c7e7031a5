// The names and properties of imported files.
//
// The block: "QVfiles" and the format's version 1; then entries until the end, each of
//   1  kind: 'f' file, 'd' folder, 'l' symbolic link, '-' removed
//   2  permission bits
//   8  time of last modification: seconds since 1970, signed
//   4  and nanoseconds
//   8  the record's identifier; 0 for a folder or a link
//   n  how many bytes the name shares with the beginning of the entry's before
//   n  how many bytes follow of it, and these
//   n  how many bytes the link's target has, and these; 0 for others
// Integers most significant byte first; n is a number in groups of 7 bits, least significant group
// first, the top bit set in all bytes but the last.
#include "imported_files.h"

#include <algorithm>
#include <cstring>

#include "failure.h"
#include "format/big_endian.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

constexpr char kMark[8] = {'Q', 'V', 'f', 'i', 'l', 'e', 's', 1};
constexpr size_t kFixedSize = 23;

// What a list that is being shortened has in place of its next entry's kind, for the moment until
// its length is written: the mark that ends every block of the file.
constexpr char kCutOffHere = 'i';

// Names that share their beginnings take little space in the block, and much more in memory. No
// real folder comes near this limit; a hostile block could fill all memory without it.
constexpr uint64_t kLargestExpansion = 64;
constexpr size_t kLongestName = 65'535;

template <typename Unsigned>
std::byte* putNumber(std::byte* to, Unsigned value) {
  storeBigEndian(reinterpret_cast<unsigned char*>(to), value);
  return to + sizeof value;
}

void appendCount(size_t value, std::vector<std::byte>* to) {
  while (value >= 0x80) {
    to->push_back(static_cast<std::byte>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  to->push_back(static_cast<std::byte>(value));
}

void appendText(std::string_view text, std::vector<std::byte>* to) {
  const auto bytes = std::as_bytes(std::span(text));
  to->insert(to->end(), bytes.begin(), bytes.end());
}

// Takes values from the front of a block; fails, and keeps failing, when it has too few bytes.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> data) : data_(data) {}

  bool isAtEnd() const { return at_ == data_.size(); }
  bool hasFailed() const { return failed_; }
  size_t position() const { return at_; }

  template <typename Unsigned>
  Unsigned number() {
    unsigned char bytes[sizeof(Unsigned)];
    for (unsigned char& byte : bytes) byte = next();
    return loadBigEndian<Unsigned>(bytes);
  }

  size_t count() {
    uint64_t value = 0;
    for (int shift = 0; shift < 35; shift += 7) {
      const uint8_t byte = next();
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if (byte < 0x80) return static_cast<size_t>(value);
    }
    failed_ = true;
    return 0;
  }

  std::string_view text(size_t size) {
    if (size > data_.size() - at_) {
      failed_ = true;
      return {};
    }
    const auto* from = reinterpret_cast<const char*>(data_.data()) + at_;
    at_ += size;
    return {from, size};
  }

 private:
  uint8_t next() {
    if (at_ == data_.size()) {
      failed_ = true;
      return 0;
    }
    return static_cast<uint8_t>(data_[at_++]);
  }

  std::span<const std::byte> data_;
  size_t at_ = 0;
  bool failed_ = false;
};

bool isKind(char kind) {
  return kind == '-' || kind == 'f' || kind == 'd' || kind == 'l';
}

// A target has no zero byte, and only a link, or one that was removed, has a target.
bool isSoundEntry(const ImportedFile& file, char kind) {
  if (!isKind(kind) || !isSafeName(file.name)) return false;
  if (file.name.size() > kLongestName || file.target.size() > kLongestName) return false;
  if (file.kind == FileKind::link && file.target.empty()) return false;
  return file.target.find('\0') == std::string::npos;
}

// The next entry of a list; nothing when it is invalid. A time that was half written counts as 0.
std::optional<ImportedFile> nextEntry(Reader* reader, const std::vector<ImportedFile>& before) {
  ImportedFile file;
  const auto kind = static_cast<char>(reader->number<uint8_t>());
  file.kind = static_cast<FileKind>(kind);
  file.mode = reader->number<uint16_t>();
  file.seconds = static_cast<int64_t>(reader->number<uint64_t>());
  file.nanoseconds = reader->number<uint32_t>();
  if (file.nanoseconds >= 1'000'000'000) file.nanoseconds = 0;
  file.record = Id{reader->number<uint64_t>()};
  const size_t shared = reader->count();
  if (shared > (before.empty() ? 0 : before.back().name.size())) return std::nullopt;
  if (shared > 0) file.name = before.back().name.substr(0, shared);
  file.name += reader->text(reader->count());
  file.target = reader->text(reader->count());
  if (reader->hasFailed() || !isSoundEntry(file, kind)) return std::nullopt;
  return file;
}

}  // namespace

bool isSafeName(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) return false;
  for (size_t from = 0; from <= name.size();) {
    const size_t end = std::min(name.find('/', from), name.size());
    const std::string_view part = name.substr(from, end - from);
    if (part.empty() || part == "." || part == "..") return false;
    from = end + 1;
  }
  return true;
}

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
  Reader reader(data);
  static_cast<void>(reader.text(sizeof kMark));
  uint64_t namesTogether = 0;
  while (!reader.isAtEnd()) {
    end_ = reader.position();
    if (static_cast<char>(data[end_]) == kCutOffHere) {
      data.resize(end_);
      break;
    }
    std::optional<ImportedFile> file = nextEntry(&reader, list_);
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

void ImportedFiles::index() const {
  if (areIndexed_) return;
  areIndexed_ = true;
  byRecord_.reserve(list_.size());
  for (size_t i = 0; i < list_.size(); ++i) {
    if (list_[i].kind == FileKind::removed) {
      // Folders and links have no record.
      if (list_[i].record.value == 0) continue;
      removedByName_.insert_or_assign(list_[i].name, i);
      removedByRecord_.insert_or_assign(list_[i].record, i);
      continue;
    }
    const auto [there, isNew] = byName_.emplace(list_[i].name, i);
    // A link that is being replaced: see addNames of the import.
    if (!isNew && list_[i].kind == FileKind::link && list_[there->second].kind == FileKind::link) {
      there->second = i;
    }
    if (list_[i].kind == FileKind::file) byRecord_.emplace(list_[i].record, i);
  }
}

void ImportedFiles::forgetIndex() {
  areIndexed_ = false;
  byName_.clear();
  byRecord_.clear();
  removedByName_.clear();
  removedByRecord_.clear();
}

std::optional<size_t> ImportedFiles::findRemoved(std::string_view name) const {
  index();
  const auto found = removedByName_.find(name);
  return found == removedByName_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> ImportedFiles::findRemoved(Id record) const {
  index();
  const auto found = removedByRecord_.find(record);
  return found == removedByRecord_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> ImportedFiles::find(std::string_view name) const {
  index();
  const auto found = byName_.find(name);
  return found == byName_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> ImportedFiles::find(Id record) const {
  index();
  const auto found = byRecord_.find(record);
  return found == byRecord_.end() ? std::nullopt : std::optional(found->second);
}

void ImportedFiles::add(ImportedFile file) {
  bytes_.resize(end_);
  isWhole_ = true;
  const std::string_view before = list_.empty() ? std::string_view() : list_.back().name;
  const auto differs =
      std::mismatch(before.begin(), before.end(), file.name.begin(), file.name.end());
  const auto shared = static_cast<size_t>(differs.first - before.begin());
  starts_.push_back(bytes_.size());
  bytes_.resize(bytes_.size() + kFixedSize);
  appendCount(shared, &bytes_);
  appendCount(file.name.size() - shared, &bytes_);
  appendText(std::string_view(file.name).substr(shared), &bytes_);
  appendCount(file.target.size(), &bytes_);
  appendText(file.target, &bytes_);
  end_ = bytes_.size();
  list_.push_back(std::move(file));
  putFixed(list_.size() - 1);
  forgetIndex();
}

void ImportedFiles::remove(size_t index) {
  forgetIndex();
  list_[index].kind = FileKind::removed;
  putFixed(index);
}

void ImportedFiles::restore(size_t index) {
  forgetIndex();
  list_[index].kind = FileKind::file;
  putFixed(index);
}

void ImportedFiles::update(size_t index, const ImportedFile& as) {
  ImportedFile& file = list_[index];
  if (file.record != as.record) forgetIndex();
  file.mode = as.mode;
  file.seconds = as.seconds;
  file.nanoseconds = as.nanoseconds;
  file.record = as.record;
  putFixed(index);
}

void ImportedFiles::cut(size_t index) {
  if (index >= list_.size()) return;
  forgetIndex();
  end_ = starts_[index];
  bytes_.resize(end_);
  isWhole_ = true;
  starts_.resize(index);
  list_.resize(index);
}

void ImportedFiles::putFixed(size_t index) {
  const ImportedFile& file = list_[index];
  std::byte* to = bytes_.data() + starts_[index];
  to = putNumber(to, static_cast<uint8_t>(file.kind));
  to = putNumber(to, uint16_t{file.mode});
  to = putNumber(to, static_cast<uint64_t>(file.seconds));
  to = putNumber(to, uint32_t{file.nanoseconds});
  putNumber(to, uint64_t{file.record.value});
}

}  // namespace qvdb::tool
