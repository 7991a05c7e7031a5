// The list of the pieces that a backup consists of.
#include "backup/manifest.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <span>
#include <string_view>

#include "streams/sha256.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr std::string_view kFirstLine = "backup-of-qvdb 1";
constexpr std::string_view kHashKey = "sha256 ";
constexpr size_t kHashLine = kHashKey.size() + 64 + 1;
constexpr std::string_view kNameForm = "backup-00000000T000000Z-000.manifest";

std::string digits(uint64_t value, int base, size_t width = 0) {
  char text[24];
  const auto end = std::to_chars(text, text + sizeof text, value, base).ptr;
  std::string result(text, end);
  if (result.size() < width) result.insert(size_t{0}, width - result.size(), '0');
  return result;
}

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::string bodyOf(const Manifest& manifest) {
  std::string text(kFirstLine);
  text += "\ntime " + timeText(manifest.time);
  text += "\ndatabase 0x" + digits(manifest.database, 16, 16);
  text += "\nmode " + digits(manifest.mode, 8);
  text += "\nlength " + digits(manifest.length, 10) + "\n";
  for (const std::string& piece : manifest.pieces) text += piece + "\n";
  return text;
}

// The lines of a text, one after the other.
class Lines {
 public:
  explicit Lines(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }

  std::string_view next() {
    const size_t end = std::min(rest_.find('\n'), rest_.size());
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return line;
  }

  // The value after "KEY ".
  std::string_view value(std::string_view key) {
    const std::string_view line = next();
    const bool fits = line.size() > key.size() && line.starts_with(key) && line[key.size()] == ' ';
    return fits ? line.substr(key.size() + 1) : std::string_view();
  }

 private:
  std::string_view rest_;
};

bool parseNumber(std::string_view text, int base, uint64_t* value) {
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, *value, base);
  return error == std::errc() && stopped == end;
}

bool parseFields(Lines& lines, Manifest* manifest) {
  if (lines.next() != kFirstLine) return false;
  const auto time = parseTime(lines.value("time"));
  std::string_view database = lines.value("database");
  if (!time || *time < 0 || !database.starts_with("0x")) return false;
  database.remove_prefix(2);
  uint64_t mode = 0;
  const bool isParsed = parseNumber(database, 16, &manifest->database) &&
                        parseNumber(lines.value("mode"), 8, &mode) &&
                        parseNumber(lines.value("length"), 10, &manifest->length);
  manifest->time = *time;
  manifest->mode = static_cast<uint32_t>(mode & 0777);
  return isParsed && manifest->length <= uint64_t{std::numeric_limits<int64_t>::max()};
}

}  // namespace

uint64_t Manifest::sizeOf(size_t piece) const {
  return std::min(kPieceSize, length - piece * kPieceSize);
}

std::string textOf(const Manifest& manifest) {
  const std::string body = bodyOf(manifest);
  return body + std::string(kHashKey) + sha256(bytesOf(body)) + "\n";
}

// Whatever can be written in two ways is taken in one: the text that is made of what was understood
// must be the same.
std::optional<Manifest> parseManifest(const std::string& text) {
  if (text.size() <= kHashLine) return std::nullopt;
  Lines lines(std::string_view(text).substr(0, text.size() - kHashLine));
  Manifest manifest;
  if (!parseFields(lines, &manifest)) return std::nullopt;
  while (!lines.atEnd()) {
    std::string hash(lines.next());
    if (!isHash(hash)) return std::nullopt;
    manifest.pieces.push_back(std::move(hash));
  }
  const uint64_t count = manifest.length / kPieceSize + (manifest.length % kPieceSize != 0);
  if (manifest.pieces.size() != count || textOf(manifest) != text) return std::nullopt;
  return manifest;
}

std::string manifestName(int64_t time, int number) {
  std::string name = "backup-";
  for (const char each : timeText(time)) {
    if (each != '-' && each != ':') name += each;
  }
  return name + "-" + digits(static_cast<uint64_t>(number), 10, 3) + ".manifest";
}

bool isManifestName(const std::string& name) {
  return name.size() == kNameForm.size() &&
         std::equal(name.begin(), name.end(), kNameForm.begin(), [](char is, char form) {
           return form == '0' ? is >= '0' && is <= '9' : is == form;
         });
}

}  // namespace qvdb::tool
