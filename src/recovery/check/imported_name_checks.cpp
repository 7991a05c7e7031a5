// The lists of names that the command-line tool keeps as the data of tables of imported files: I1
// and I2. To the library such a list is opaque; docs/imported-files.md describes it.
#include <algorithm>
#include <cstring>
#include <optional>

#include "format/block_heads.h"
#include "recovery/check/parts.h"
#include "recovery/check/payload_cursor.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

constexpr char kMark[8] = {'Q', 'V', 'f', 'i', 'l', 'e', 's', 1};

// An entry: kind, permissions, seconds, nanoseconds, record; then counted texts.
constexpr size_t kFixedSize = 23;
constexpr size_t kNanoseconds = 11;
constexpr size_t kRecord = 15;
constexpr uint64_t kNanosecondsEnd = 1'000'000'000;
constexpr uint64_t kLongestName = 65'535;
constexpr uint64_t kLargestExpansion = 160;  // of all names, against the bytes of the list

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

struct Entry {
  char kind = 0;
  uint64_t record = 0;
  bool hasWrongTime = false;
};

// Reads one list from its front. It keeps the name of one entry at a time.
class NameList {
 public:
  NameList(const ByteSource& source, const Block& block)
      : window_(source), bytes_(window_, block), size_(bytes_.left()) {}

  bool isOurs() {
    const uint8_t* mark = bytes_.take(sizeof kMark);
    return mark != nullptr && std::memcmp(mark, kMark, sizeof kMark) == 0;
  }

  // 'i' is what follows a list that was being shortened.
  bool isAtEnd() { return bytes_.left() == 0 || window_.byteAt(position()) == kBlockEndMark; }

  int64_t position() const { return bytes_.position(); }

  // None where the entry makes no sense.
  std::optional<Entry> next() {
    const uint8_t* fixed = bytes_.take(kFixedSize);
    if (fixed == nullptr) return std::nullopt;
    const Entry entry = {static_cast<char>(fixed[0]), loadBigEndian<uint64_t>(fixed + kRecord),
                         loadBigEndian<uint32_t>(fixed + kNanoseconds) >= kNanosecondsEnd};
    uint64_t shared = 0;
    if (!count(&shared) || shared > name_.size()) return std::nullopt;
    name_.resize(static_cast<size_t>(shared));
    std::string target;
    if (!text(&name_) || !text(&target)) return std::nullopt;
    together_ += name_.size();
    if (together_ > kLargestExpansion * static_cast<uint64_t>(size_)) return std::nullopt;
    const bool isKnown = std::string_view("fdl-").find(entry.kind) != std::string_view::npos;
    const bool isSound = isKnown && isSafeName(name_) && target.find('\0') == std::string::npos &&
                         (entry.kind != 'l' || !target.empty());
    return isSound ? std::optional(entry) : std::nullopt;
  }

 private:
  bool count(uint64_t* value) {
    *value = 0;
    for (int shift = 0; shift < 35; shift += 7) {
      const uint8_t* byte = bytes_.take(1);
      if (byte == nullptr) return false;
      *value |= uint64_t{*byte & 0x7Fu} << shift;
      if (*byte < 0x80) return true;
    }
    return false;
  }

  // Adds a counted text to what there is.
  bool text(std::string* to) {
    uint64_t left = 0;
    if (!count(&left) || left > static_cast<uint64_t>(bytes_.left())) return false;
    if (to->size() + left > kLongestName) return false;
    while (left > 0) {
      const auto piece = static_cast<size_t>(std::min<uint64_t>(left, Window::kLargestView));
      const uint8_t* bytes = bytes_.take(piece);
      if (bytes == nullptr) return false;
      to->append(reinterpret_cast<const char*>(bytes), piece);
      left -= piece;
    }
    return true;
  }

  Window window_;
  PayloadCursor bytes_;
  int64_t size_;  // of the list
  std::string name_;
  uint64_t together_ = 0;
};

}  // namespace

void checkImportedNames(Check& check, const Table& table) {
  if (table.dataState != DataState::sound) return;
  const Slot& slot = check.survey.slotOf(table);
  const Block& block = check.survey.blocks[table.dataBlock];
  NameList list(check.source, block);
  if (!list.isOurs()) return;
  const std::vector<uint64_t> records = sortedRecords(check.survey, table.forward.blocks);
  uint64_t entries = 0;
  uint64_t withoutRecord = 0;
  while (!list.isAtEnd()) {
    const About about = {.slot = &slot, .offset = list.position()};
    const std::optional<Entry> entry = list.next();
    if (!entry) {
      return check.warning("I1", about, "The list of imported files cannot be read beyond its ",
                           "first ", counted(entries, "entry", "entries"), ".");
    }
    ++entries;
    if (entry->hasWrongTime) {
      check.warning("I1", about, "The time of an imported file is impossible.");
    }
    if (entry->kind == 'f' && !std::ranges::binary_search(records, entry->record)) {
      ++withoutRecord;
    }
  }
  if (withoutRecord == 0) return;
  check.information(
      "I2", {.slot = &slot, .offset = block.dataPos()},
      counted(withoutRecord, "name of an imported file has", "names of imported files have"),
      " no record.");
}

}  // namespace qvdbase::check
