// One entry of the list of imported files.
#include "imported_entry.h"

#include <algorithm>

#include "format/big_endian.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

constexpr size_t kFixedSize = 23;
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
  Reader(std::span<const std::byte> data, size_t at) : data_(data), at_(at) {}

  bool hasFailed() const { return failed_; }
  size_t position() const { return at_; }

  template <typename Unsigned>
  Unsigned number() {
    const std::string_view bytes = text(sizeof(Unsigned));
    if (bytes.empty()) return 0;
    return loadBigEndian<Unsigned>(reinterpret_cast<const unsigned char*>(bytes.data()));
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
  size_t at_;
  bool failed_ = false;
};

bool isKind(char kind) {
  return kind == '-' || kind == 'f' || kind == 'd' || kind == 'l';
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

// A target has no zero byte, and only a link, or one that was removed, has a target.
bool isSound(const ImportedFile& file) {
  if (!isKind(static_cast<char>(file.kind)) || !isSafeName(file.name)) return false;
  if (file.name.size() > kLongestName || file.target.size() > kLongestName) return false;
  if (file.kind == FileKind::link && file.target.empty()) return false;
  return file.target.find('\0') == std::string::npos;
}

void appendEntry(const ImportedFile& file, std::string_view before, std::vector<std::byte>* to) {
  const auto differs =
      std::mismatch(before.begin(), before.end(), file.name.begin(), file.name.end());
  const auto shared = static_cast<size_t>(differs.first - before.begin());
  const size_t start = to->size();
  to->resize(start + kFixedSize);
  rewriteEntry(file, to->data() + start);
  appendCount(shared, to);
  appendCount(file.name.size() - shared, to);
  appendText(std::string_view(file.name).substr(shared), to);
  appendCount(file.target.size(), to);
  appendText(file.target, to);
}

void rewriteEntry(const ImportedFile& file, std::byte* to) {
  to = putNumber(to, static_cast<uint8_t>(file.kind));
  to = putNumber(to, uint16_t{file.mode});
  to = putNumber(to, static_cast<uint64_t>(file.seconds));
  to = putNumber(to, uint32_t{file.nanoseconds});
  putNumber(to, uint64_t{file.record.value});
}

std::optional<ImportedFile> readEntry(std::span<const std::byte> data, std::string_view before,
                                      size_t* at) {
  Reader reader(data, *at);
  ImportedFile file;
  file.kind = static_cast<FileKind>(reader.number<uint8_t>());
  file.mode = reader.number<uint16_t>();
  file.seconds = static_cast<int64_t>(reader.number<uint64_t>());
  file.nanoseconds = reader.number<uint32_t>();
  if (file.nanoseconds >= 1'000'000'000) file.nanoseconds = 0;
  file.record = Id{reader.number<uint64_t>()};
  const size_t shared = reader.count();
  if (shared > before.size()) return std::nullopt;
  file.name = before.substr(0, shared);
  file.name += reader.text(reader.count());
  file.target = reader.text(reader.count());
  if (reader.hasFailed() || !isSound(file)) return std::nullopt;
  *at = reader.position();
  return file;
}

}  // namespace qvdb::tool
