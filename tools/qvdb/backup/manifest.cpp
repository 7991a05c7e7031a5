// The list of the pieces that a backup consists of.
#include "backup/manifest.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <span>
#include <string_view>
#include <utility>

#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr std::string_view kFirstLine = "backup-of-qvdb 1";
constexpr std::string_view kSumKey = "sha256 ";
constexpr size_t kSumLine = kSumKey.size() + kHashDigits + 1;
constexpr size_t kLongestLine = 200;
constexpr int kHeadLines = 5;
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

bool parseNumber(std::string_view text, int base, uint64_t* value) {
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, *value, base);
  return error == std::errc() && stopped == end;
}

// The value after "KEY ", or nothing where the line begins otherwise.
std::string_view valueOf(std::string_view line, std::string_view key) {
  const bool fits = line.size() > key.size() && line.starts_with(key) && line[key.size()] == ' ';
  return fits ? line.substr(key.size() + 1) : std::string_view();
}

bool parseField(int number, std::string_view line, Manifest* manifest) {
  uint64_t mode = 0;
  switch (number) {
    case 0:
      return line == kFirstLine;
    case 1: {
      const auto time = parseTime(valueOf(line, "time"));
      manifest->time = time.value_or(-1);
      return manifest->time >= 0;
    }
    case 2: {
      const std::string_view database = valueOf(line, "database");
      return database.starts_with("0x") && parseNumber(database.substr(2), 16, &manifest->database);
    }
    case 3:
      if (!parseNumber(valueOf(line, "mode"), 8, &mode)) return false;
      manifest->mode = static_cast<uint32_t>(mode & 0777);
      return true;
    default:
      return parseNumber(valueOf(line, "length"), 10, &manifest->length) &&
             manifest->length <= uint64_t{std::numeric_limits<int64_t>::max()};
  }
}

std::string headOf(const Manifest& manifest) {
  std::string text(kFirstLine);
  text += "\ntime " + timeText(manifest.time);
  text += "\ndatabase 0x" + digits(manifest.database, 16, 16);
  text += "\nmode " + digits(manifest.mode, 8);
  text += "\nlength " + digits(manifest.length, 10) + "\n";
  return text;
}

}  // namespace

uint64_t Manifest::sizeOf(size_t index) const {
  return std::min(kPieceSize, length - index * kPieceSize);
}

std::string textOf(const Manifest& manifest) {
  std::string text = headOf(manifest);
  for (size_t i = 0; i < manifest.pieceCount(); ++i) (text += manifest.piece(i)) += '\n';
  text += std::string(kSumKey) + sha256(bytesOf(text)) + "\n";
  return text;
}

bool ManifestParser::add(std::string_view text) {
  while (isOne_ && !text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view part = text.substr(0, end);
    if (begun_.size() + part.size() > kLongestLine) return isOne_ = false;
    begun_ += part;
    if (end == std::string_view::npos) return true;
    text.remove_prefix(end + 1);
    begun_ += '\n';
    isOne_ = addLine(begun_);
    begun_.clear();
  }
  return isOne_;
}

// The line ends with its end.
bool ManifestParser::addLine(std::string_view line) {
  if (isComplete_) return false;
  const std::string_view content = line.substr(0, line.size() - 1);
  if (headLines_ == kHeadLines && manifest_.pieceCount() == pieces_) {
    isComplete_ = true;
    return content == std::string(kSumKey) + hexOf(sum_.finish());
  }
  sum_.add(bytesOf(line));
  if (headLines_ < kHeadLines) return addHead(line);
  if (!isHash(content)) return false;
  manifest_.hashes += content;
  return true;
}

// Whatever can be written in two ways is taken in one: the text that is made of what was understood
// must be the same.
bool ManifestParser::addHead(std::string_view line) {
  head_ += line;
  if (!parseField(headLines_++, line.substr(0, line.size() - 1), &manifest_)) return false;
  return headLines_ < kHeadLines || endHead();
}

bool ManifestParser::endHead() {
  pieces_ = manifest_.length / kPieceSize + (manifest_.length % kPieceSize != 0);
  const uint64_t rest = size_ - std::min<uint64_t>(size_, head_.size() + kSumLine);
  return head_ == headOf(manifest_) && rest % (kHashDigits + 1) == 0 &&
         rest / (kHashDigits + 1) == pieces_;
}

std::optional<Manifest> ManifestParser::finish() {
  if (!isOne_ || !isComplete_ || !begun_.empty()) return std::nullopt;
  return std::move(manifest_);
}

std::string manifestName(int64_t time, int number) {
  std::string name = "backup-";
  for (const char each : timeText(time)) {
    if (each != '-' && each != ':') name += each;
  }
  return name + "-" + digits(static_cast<uint64_t>(number), 10, 3) + ".manifest";
}

bool isManifestName(std::string_view name) {
  return name.size() == kNameForm.size() &&
         std::equal(name.begin(), name.end(), kNameForm.begin(), [](char is, char form) {
           return form == '0' ? is >= '0' && is <= '9' : is == form;
         });
}

}  // namespace qvdb::tool
