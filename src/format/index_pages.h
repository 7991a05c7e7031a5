// The file in which indexes are kept beside a database: its pages, byte by byte.
//
// It is a row of pages of 4,096 bytes. The first one, the front, lists sections; each section is
// one index, in neighbouring pages that it numbers from 0: its head, then pages of hashes, then
// pages of keys in order. Numbers are stored most significant byte first. docs/kept-indexes.md
// describes it for readers.
//
// Each page carries its own sum, the generation of its section, a number drawn when that was
// written, and its number in it: so a page of another file, of an older one, or of another place is
// noticed like one with a wrong byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvdbase::format::kept {

inline constexpr size_t kPageSize = 4096;
inline constexpr uint32_t kMark = 0x6B696478;  // "kidx", at the beginning of every page
inline constexpr uint16_t kVersion = 1;

// Parts of a page.
inline constexpr size_t kMarkAt = 0;        // uint32
inline constexpr size_t kVersionAt = 4;     // uint16
inline constexpr size_t kKindAt = 6;        // uint16, a PageKind
inline constexpr size_t kGenerationAt = 8;  // uint64
inline constexpr size_t kNumberAt = 16;     // uint64: in the section
inline constexpr size_t kCountAt = 24;      // uint16: entries, of a front or a page of hashes
inline constexpr size_t kSpillsAt = 26;  // uint16: 1 where entries at home here or before are after
inline constexpr size_t kFirstAt = 28;   // uint32: of keys: where the first one begins, or kNone
inline constexpr size_t kBeforeAt = 32;  // uint64: of keys: the page in which the one begins that
                                         // runs into this one
inline constexpr size_t kContentAt = 40;
inline constexpr size_t kSumAt = kPageSize - 8;  // uint64: of everything before it
inline constexpr size_t kContentSize = kSumAt - kContentAt;

inline constexpr uint32_t kNone = 0xFFFFFFFF;

// An entry of a page of hashes: the hash, and the position of a record.
inline constexpr size_t kEntrySize = 16;
inline constexpr size_t kEntriesInPage = kContentSize / kEntrySize;
static_assert(kEntriesInPage == 253);

// So many entries are meant for one page: a few hashes more than that are at home in some.
inline constexpr uint64_t kEntriesAtHome = 200;

// Before and after each key in the pages of keys: its length and the position of a record.
inline constexpr size_t kKeyLengthSize = 4;
inline constexpr size_t kKeyPositionSize = 8;

inline constexpr size_t kMostSections = 64;
inline constexpr size_t kLongestName = 255;

enum class PageKind : uint16_t { front = 1, head = 2, hashes = 3, keys = 4 };

using Page = std::array<unsigned char, kPageSize>;

// A sum of bytes that every change of up to eight neighbouring bytes alters, and every other one
// but for a chance of 2^-64. The same on every host.
uint64_t sumOf(const unsigned char* bytes, size_t count);

// What a page says of itself.
struct PageLabel {
  PageKind kind = PageKind::front;
  uint64_t generation = 0;
  uint64_t number = 0;
  uint16_t count = 0;
  bool spills = false;
  uint32_t first = kNone;
  uint64_t before = 0;
};

// Writes the label and the sum; the content is in its place.
void seal(Page& page, const PageLabel& label);

// Nothing where mark, version or sum is not right, or the count more than a page holds.
std::optional<PageLabel> labelOf(const Page& page);

// Whether bytes begin like a page, right or not.
bool hasMark(const unsigned char* bytes, size_t count);

struct HashEntry {
  uint64_t hash = 0;
  int64_t position = 0;

  bool operator==(const HashEntry&) const = default;
  bool operator<(const HashEntry& other) const {
    return hash != other.hash ? hash < other.hash : position < other.position;
  }
};
void storeEntry(Page& page, size_t index, const HashEntry& entry);
HashEntry loadEntry(const Page& page, size_t index);

// The page, of `homes`, at which a hash is at home.
uint64_t homeOf(uint64_t hash, uint64_t homes);

enum class IndexKind : uint16_t { identifiers = 1, keys = 2 };

// One line of the front.
struct Section {
  uint64_t firstPage = 0;  // in the file
  uint64_t pages = 0;
  uint64_t generation = 0;
  uint64_t table = 0;    // its identifier
  uint64_t nameSum = 0;  // sumOf the name
  IndexKind kind = IndexKind::identifiers;
};

Page frontPage(const std::vector<Section>& sections, uint64_t generation);
// Nothing where the page is not a front.
std::optional<std::vector<Section>> sectionsOf(const Page& page);

// What the database was like when the section was written.
struct Stamp {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t size = 0;
  int64_t modifyTime = 0;  // in nanoseconds, like the next one
  int64_t statusTime = 0;
  uint64_t slots = 0;            // sum of the directory
  uint64_t lastRecords = 0;      // sum of the headers of the tables' last records
  int64_t lastBlock = 0;         // position of the file's last block, 0 for none
  uint64_t lastBlockHeader = 0;  // sum of its header
  uint64_t lastBlockMarks = 0;   // sum of the part of that which never changes

  bool operator==(const Stamp&) const = default;
};

// The chain of the table then.
struct Chain {
  uint32_t recordCount = 0;
  uint32_t recordWriteCount = 0;
  int64_t first = 0;
  int64_t lastWritten = 0;
  int64_t last = 0;
  uint64_t lastMarks = 0;  // sum of the part of the last record's header that never changes

  bool operator==(const Chain&) const = default;
};

struct Head {
  Stamp stamp;
  Chain chain;
  IndexKind kind = IndexKind::identifiers;
  uint64_t table = 0;
  bool isUnique = false;
  bool isOrdered = false;
  bool hasDuplicates = false;
  uint32_t keyType = 0;  // which type of keys: see KeyCodec
  uint64_t seedBefore = 0;
  uint64_t seedBetween = 0;
  uint64_t entries = 0;     // hashes
  uint64_t homes = 0;       // pages at which hashes are at home
  uint64_t hashPages = 0;   // the same, and those after them into which entries spill
  uint64_t keyPages = 0;    // pages of keys in order
  uint64_t keyBytes = 0;    // the contents of these
  uint64_t usualBlock = 0;  // bytes from one record to the next, about
  std::string name;         // which the caller has given
};

Page headPage(const Head& head, uint64_t generation);
// Nothing where the page is not a head, or its numbers contradict each other.
std::optional<Head> headOf(const Page& page);

}  // namespace qvdbase::format::kept
