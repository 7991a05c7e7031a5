// The list of the names of imported files, which the command-line tool keeps as the data of a
// table, and which a check reads. docs/imported-files.md describes it; to the engine it is opaque.
//
// A list is a head, and then entries until the data ends. Integers are stored most significant byte
// first. A count is a number in groups of 7 bits, least significant group first, the top bit set in
// all bytes but the last.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "format/big_endian.h"
#include "format/layout.h"

namespace qvdbase::format::imported {

// Head, offsets from its start.
inline constexpr std::string_view kMark = "QVfiles";
inline constexpr size_t kVersion = kMark.size();  // uint8
inline constexpr size_t kHeadSize = kVersion + 1;
inline constexpr uint8_t kKnownVersion = 1;

// Entry, offsets from its start.
namespace entry {
inline constexpr size_t kKind = 0;                    // uint8, a Kind
inline constexpr size_t kMode = kKind + 1;            // uint16, permission bits
inline constexpr size_t kSeconds = kMode + 2;         // int64, last modification, since 1970
inline constexpr size_t kNanoseconds = kSeconds + 8;  // uint32
inline constexpr size_t kRecord = kNanoseconds + 4;   // uint64, 0 for a folder or a link
inline constexpr size_t kFixedSize = kRecord + 8;
// There follow, each after its count, the bytes of the name and those of the target. In front of
// the name's is the count of bytes that it shares with the beginning of the name before it.
static_assert(kFixedSize == 23);
}  // namespace entry

inline constexpr uint32_t kNanosecondsEnd = 1'000'000'000;  // a time with more was half written
inline constexpr size_t kLongestName = 65'535;              // of a name or a target

// In place of the kind of an entry: the list ends here. It is there while a list is shortened, from
// the time when its end mark is written until its length is.
inline constexpr uint8_t kCutOffHere = kBlockEndMark;

// Names that share their beginnings take little space in the list, and much more in memory: a
// hostile list could fill all memory. All names together have at most this many times the bytes of
// the list. A name takes 28 bytes there at least, so one of up to 4,480 bytes never reaches the
// limit, and the paths of a system are shorter.
inline constexpr uint64_t kLargestExpansion = 160;

enum class Kind : char {
  removed = '-',
  file = 'f',
  folder = 'd',
  link = 'l',
};

struct Entry {
  Kind kind = Kind::file;
  uint16_t mode = 0;
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  uint64_t record = 0;
  std::string name;    // relative, '/' between its parts
  std::string target;  // of a link
};

// Of a block of table data: whether it is such a list at all, and one that can be read here.
enum class Version : uint8_t { none, known, unknown };

// What the first kHeadSize bytes of the data say.
Version versionOf(const unsigned char* head);

// Whether the name leads to a place inside a folder and nowhere else: parts that are not empty, not
// "." and not "..", without zero bytes, and no '/' at either end.
bool isSafeName(std::string_view name);

// Whether a reader takes an entry with this kind, name and target.
bool isSound(Kind kind, std::string_view name, std::string_view target);

// Reads the entries of a list, one after the other. It keeps the name of one entry at a time.
//
// `Bytes` is what follows in the data: take(count) returns the next bytes, at most kLargestPiece,
// valid until the next call. Null when there are not so many.
template <typename Bytes>
class EntryReader {
 public:
  static constexpr size_t kLargestPiece = 4096;

  // The list has `size` bytes, head included. `bytes` must outlive the reader.
  EntryReader(Bytes& bytes, uint64_t size) : bytes_(bytes), allowed_(kLargestExpansion * size) {}

  // The next entry, valid until the next call. Null where it makes no sense: what follows cannot
  // be read either.
  const Entry* next() {
    const unsigned char* const fixed = bytes_.take(entry::kFixedSize);
    if (fixed == nullptr) return nullptr;
    entry_.kind = static_cast<Kind>(fixed[entry::kKind]);
    entry_.mode = loadBigEndian<uint16_t>(fixed + entry::kMode);
    entry_.seconds = static_cast<int64_t>(loadBigEndian<uint64_t>(fixed + entry::kSeconds));
    entry_.nanoseconds = loadBigEndian<uint32_t>(fixed + entry::kNanoseconds);
    entry_.record = loadBigEndian<uint64_t>(fixed + entry::kRecord);
    uint64_t shared = 0;
    if (!count(&shared) || shared > entry_.name.size()) return nullptr;
    entry_.name.resize(static_cast<size_t>(shared));
    entry_.target.clear();
    if (!text(&entry_.name) || !text(&entry_.target)) return nullptr;
    namesTogether_ += entry_.name.size();
    if (namesTogether_ > allowed_) return nullptr;
    return isSound(entry_.kind, entry_.name, entry_.target) ? &entry_ : nullptr;
  }

 private:
  bool count(uint64_t* value) {
    *value = 0;
    for (int shift = 0; shift < 35; shift += 7) {
      const unsigned char* const byte = bytes_.take(1);
      if (byte == nullptr) return false;
      *value |= uint64_t{*byte & 0x7Fu} << shift;
      if (*byte < 0x80) return true;
    }
    return false;
  }

  // Adds a counted text to what there is.
  bool text(std::string* to) {
    uint64_t left = 0;
    if (!count(&left) || to->size() + left > kLongestName) return false;
    while (left > 0) {
      const auto piece = static_cast<size_t>(std::min<uint64_t>(left, kLargestPiece));
      const unsigned char* const bytes = bytes_.take(piece);
      if (bytes == nullptr) return false;
      to->append(reinterpret_cast<const char*>(bytes), piece);
      left -= piece;
    }
    return true;
  }

  Bytes& bytes_;
  const uint64_t allowed_;  // bytes of all names together
  uint64_t namesTogether_ = 0;
  Entry entry_;
};

}  // namespace qvdbase::format::imported
