// The list of the names of imported files, which the command-line tool keeps as the data of a
// table, and which a check reads. docs/imported-files.md describes it; to the engine it is opaque.
//
// There are two versions of it; the second also says when entries were added and removed.
//
// A list is a head, and then entries until the data ends. Integers are stored most significant byte
// first. A count is a number in groups of 7 bits, least significant group first, the top bit set in
// all bytes but the last.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "format/big_endian.h"
#include "format/layout.h"

namespace qvdbase::format::imported {

// Head, offsets from its start.
inline constexpr std::string_view kMark = "QVfiles";
inline constexpr size_t kVersion = kMark.size();  // uint8
inline constexpr size_t kHeadSize = kVersion + 1;
inline constexpr uint8_t kFirstVersion = 1;
inline constexpr uint8_t kNewestVersion = 2;
// From version 2 on there follow:
inline constexpr size_t kKnownSince = kHeadSize;  // int64, seconds since 1970
inline constexpr size_t kKey = kKnownSince + 8;   // with which compressed payloads begin
inline constexpr size_t kKeySize = 16;
inline constexpr size_t kLargeHeadSize = kKey + kKeySize;
static_assert(kLargeHeadSize == 32);

struct Head {
  uint8_t version = kNewestVersion;
  // The list has all that was in it at this time, and since; 0 for always.
  int64_t knownSince = 0;
  std::array<uint8_t, kKeySize> key{};
};

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
// From version 2 on these come in between, and the fields after its count at the end.
inline constexpr size_t kSince = kFixedSize;  // int64, when the entry was added; 0: not known
inline constexpr size_t kUntil = kSince + 8;  // int64, when it was removed; 0: not, or not known
inline constexpr size_t kLargeFixedSize = kUntil + 8;
static_assert(kLargeFixedSize == 39);

constexpr size_t fixedSize(uint8_t version) {
  return version == kFirstVersion ? kFixedSize : kLargeFixedSize;
}
}  // namespace entry

constexpr size_t headSize(uint8_t version) {
  return version == kFirstVersion ? kHeadSize : kLargeHeadSize;
}

inline constexpr uint32_t kNanosecondsEnd = 1'000'000'000;  // a time with more was half written
inline constexpr size_t kLongestName = 65'535;              // of a name or a target
inline constexpr size_t kLongestFields = size_t{1} << 20;   // of an entry, together

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
  int64_t since = 0;   // when it was added, and when it was removed: seconds since 1970, or 0
  int64_t until = 0;
  std::string fields;  // see areSoundFields()
};

// Of a block of table data: whether it is such a list at all, and one that can be read here.
enum class Version : uint8_t { none, known, unknown };

// What the first kHeadSize bytes of the data say.
Version versionOf(const unsigned char* head);

// Whether the fields of an entry are what a reader takes: one after the other, each a byte that
// says what it is, a count and so many bytes.
bool areSoundFields(std::string_view fields);

// Whether the name leads to a place inside a folder and nowhere else: parts that are not empty, not
// "." and not "..", without zero bytes, and no '/' at either end.
bool isSafeName(std::string_view name);

// Whether a reader takes an entry with this kind, name and target.
bool isSound(Kind kind, std::string_view name, std::string_view target);

// Reads the head of a list: all of it. False where it is not there, or the version is not known.
// `Bytes` is as for EntryReader.
template <typename Bytes>
bool readHead(Bytes& bytes, Head* head) {
  const unsigned char* const start = bytes.take(kHeadSize);
  if (start == nullptr || versionOf(start) != Version::known) return false;
  head->version = start[kVersion];
  if (head->version == kFirstVersion) return true;
  const unsigned char* const rest = bytes.take(kLargeHeadSize - kHeadSize);
  if (rest == nullptr) return false;
  head->knownSince =
      static_cast<int64_t>(loadBigEndian<uint64_t>(rest + (kKnownSince - kHeadSize)));
  std::memcpy(head->key.data(), rest + (kKey - kHeadSize), kKeySize);
  return true;
}

// Reads the entries of a list, one after the other. It keeps the name of one entry at a time.
//
// `Bytes` is what follows in the data: take(count) returns the next bytes, at most kLargestPiece,
// valid until the next call. Null when there are not so many.
template <typename Bytes>
class EntryReader {
 public:
  static constexpr size_t kLargestPiece = 4096;

  // The list has `size` bytes, head included. `bytes` must outlive the reader.
  EntryReader(Bytes& bytes, uint64_t size, uint8_t version)
      : bytes_(bytes), version_(version), allowed_(kLargestExpansion * size) {}

  // The next entry, valid until the next call. Null where it makes no sense: what follows cannot
  // be read either.
  const Entry* next() {
    const unsigned char* const fixed = bytes_.take(entry::fixedSize(version_));
    if (fixed == nullptr) return nullptr;
    entry_.kind = static_cast<Kind>(fixed[entry::kKind]);
    entry_.mode = loadBigEndian<uint16_t>(fixed + entry::kMode);
    entry_.seconds = static_cast<int64_t>(loadBigEndian<uint64_t>(fixed + entry::kSeconds));
    entry_.nanoseconds = loadBigEndian<uint32_t>(fixed + entry::kNanoseconds);
    entry_.record = loadBigEndian<uint64_t>(fixed + entry::kRecord);
    if (version_ != kFirstVersion) {
      entry_.since = static_cast<int64_t>(loadBigEndian<uint64_t>(fixed + entry::kSince));
      entry_.until = static_cast<int64_t>(loadBigEndian<uint64_t>(fixed + entry::kUntil));
    }
    uint64_t shared = 0;
    if (!count(&shared) || shared > entry_.name.size()) return nullptr;
    entry_.name.resize(static_cast<size_t>(shared));
    entry_.target.clear();
    entry_.fields.clear();
    if (!text(&entry_.name, kLongestName) || !text(&entry_.target, kLongestName)) return nullptr;
    if (version_ != kFirstVersion && !text(&entry_.fields, kLongestFields)) return nullptr;
    namesTogether_ += entry_.name.size();
    if (namesTogether_ > allowed_) return nullptr;
    return isSound(entry_.kind, entry_.name, entry_.target) && areSoundFields(entry_.fields)
               ? &entry_
               : nullptr;
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
  bool text(std::string* to, size_t longest) {
    uint64_t left = 0;
    if (!count(&left) || to->size() + left > longest) return false;
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
  const uint8_t version_;
  const uint64_t allowed_;  // bytes of all names together
  uint64_t namesTogether_ = 0;
  Entry entry_;
};

}  // namespace qvdbase::format::imported
