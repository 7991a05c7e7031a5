// The pages of kept indexes: sums, labels, and the codec of their contents.
#include "format/index_pages.h"

#include <algorithm>

#include "format/big_endian.h"

namespace qvdbase::format::kept {
namespace {

constexpr uint64_t kFactor = 0xD6E8FEB86659FD93u;

// Invertible in both: a change of one never leaves the sum as it was.
uint64_t stirred(uint64_t sum, uint64_t word) {
  sum = (sum ^ word) * kFactor;
  return sum ^ (sum >> 32);
}

// The content of a page, number after number.
class Writer {
 public:
  explicit Writer(Page& page) : page_(page) {}

  template <typename Unsigned>
  void put(Unsigned value) {
    storeBigEndian(page_.data() + at_, value);
    at_ += sizeof value;
  }
  void put(int64_t value) { put(static_cast<uint64_t>(value)); }
  void put(const std::string& text) {
    std::copy(text.begin(), text.end(), page_.begin() + static_cast<ptrdiff_t>(at_));
    at_ += text.size();
  }

 private:
  Page& page_;
  size_t at_ = kContentAt;
};

class Reader {
 public:
  explicit Reader(const Page& page) : page_(page) {}

  template <typename Unsigned>
  void get(Unsigned* value) {
    *value = loadBigEndian<Unsigned>(page_.data() + at_);
    at_ += sizeof *value;
  }
  void get(int64_t* value) {
    uint64_t number = 0;
    get(&number);
    *value = static_cast<int64_t>(number);
  }
  void get(std::string* text, size_t count) {
    text->assign(reinterpret_cast<const char*>(page_.data() + at_), count);
    at_ += count;
  }

 private:
  const Page& page_;
  size_t at_ = kContentAt;
};

constexpr uint16_t kUnique = 1;
constexpr uint16_t kOrdered = 2;
constexpr uint16_t kDuplicates = 4;

// More pages than any file has, and few enough for sums.
constexpr uint64_t kMostPages = uint64_t{1} << 48;

// The parts of stamp, chain and head in their order, for both directions.
template <typename Each, typename StampOf>
void eachOf(StampOf& stamp, const Each& each) {
  each(stamp.device);
  each(stamp.inode);
  each(stamp.size);
  each(stamp.modifyTime);
  each(stamp.statusTime);
  each(stamp.slots);
  each(stamp.lastRecords);
  each(stamp.lastBlock);
  each(stamp.lastBlockHeader);
  each(stamp.lastBlockMarks);
}

template <typename Each, typename ChainOf>
void eachOfChain(ChainOf& chain, const Each& each) {
  each(chain.recordCount);
  each(chain.recordWriteCount);
  each(chain.first);
  each(chain.lastWritten);
  each(chain.last);
  each(chain.lastMarks);
}

template <typename Each, typename HeadOf>
void eachOfHead(HeadOf& head, const Each& each) {
  each(head.table);
  each(head.keyType);
  each(head.seedBefore);
  each(head.seedBetween);
  each(head.entries);
  each(head.homes);
  each(head.hashPages);
  each(head.keyPages);
  each(head.keyBytes);
  each(head.usualBlock);
}

template <typename Each, typename SectionOf>
void eachOfSection(SectionOf& section, const Each& each) {
  each(section.firstPage);
  each(section.pages);
  each(section.generation);
  each(section.table);
  each(section.nameSum);
}

bool isKind(uint16_t kind) {
  return kind == static_cast<uint16_t>(IndexKind::identifiers) ||
         kind == static_cast<uint16_t>(IndexKind::keys);
}

bool isPossible(const Head& head) {
  return head.homes >= 1 && head.homes <= head.hashPages && head.hashPages <= kMostPages &&
         head.keyPages <= kMostPages && head.entries <= head.hashPages * kEntriesInPage &&
         head.keyBytes <= head.keyPages * kContentSize && head.stamp.size >= 0 &&
         head.chain.last >= 0;
}

}  // namespace

// Four sums side by side, so that none of them waits for the one before.
uint64_t sumOf(const unsigned char* bytes, size_t count) {
  std::array<uint64_t, 4> sums = {1, 2, 3, count};
  constexpr size_t kWord = sizeof(uint64_t);
  for (; count >= sums.size() * kWord; count -= sums.size() * kWord) {
    for (uint64_t& sum : sums) {
      sum = stirred(sum, loadBigEndian<uint64_t>(bytes));
      bytes += kWord;
    }
  }
  for (size_t i = 0; i < count; ++i) sums[i / kWord] = stirred(sums[i / kWord], bytes[i]);
  uint64_t all = 0;
  for (const uint64_t sum : sums) all = stirred(all, sum);
  return all;
}

void seal(Page& page, const PageLabel& label) {
  unsigned char* bytes = page.data();
  storeBigEndian(bytes + kMarkAt, kMark);
  storeBigEndian(bytes + kVersionAt, kVersion);
  storeBigEndian(bytes + kKindAt, static_cast<uint16_t>(label.kind));
  storeBigEndian(bytes + kGenerationAt, label.generation);
  storeBigEndian(bytes + kNumberAt, label.number);
  storeBigEndian(bytes + kCountAt, label.count);
  storeBigEndian(bytes + kSpillsAt, static_cast<uint16_t>(label.spills ? 1 : 0));
  storeBigEndian(bytes + kFirstAt, label.first);
  storeBigEndian(bytes + kBeforeAt, label.before);
  storeBigEndian(bytes + kSumAt, sumOf(bytes, kSumAt));
}

std::optional<PageLabel> labelOf(const Page& page) {
  const unsigned char* bytes = page.data();
  if (loadBigEndian<uint32_t>(bytes + kMarkAt) != kMark ||
      loadBigEndian<uint16_t>(bytes + kVersionAt) != kVersion ||
      loadBigEndian<uint64_t>(bytes + kSumAt) != sumOf(bytes, kSumAt)) {
    return std::nullopt;
  }
  PageLabel label;
  label.kind = static_cast<PageKind>(loadBigEndian<uint16_t>(bytes + kKindAt));
  label.generation = loadBigEndian<uint64_t>(bytes + kGenerationAt);
  label.number = loadBigEndian<uint64_t>(bytes + kNumberAt);
  label.count = loadBigEndian<uint16_t>(bytes + kCountAt);
  label.spills = loadBigEndian<uint16_t>(bytes + kSpillsAt) != 0;
  label.first = loadBigEndian<uint32_t>(bytes + kFirstAt);
  label.before = loadBigEndian<uint64_t>(bytes + kBeforeAt);
  if (label.count > kEntriesInPage) return std::nullopt;
  if (label.first != kNone && label.first >= kContentSize) return std::nullopt;
  return label;
}

bool hasMark(const unsigned char* bytes, size_t count) {
  return count >= sizeof kMark && loadBigEndian<uint32_t>(bytes + kMarkAt) == kMark;
}

void storeEntry(Page& page, size_t index, const HashEntry& entry) {
  unsigned char* at = page.data() + kContentAt + index * kEntrySize;
  storeBigEndian(at, entry.hash);
  storeBigEndian(at + 8, static_cast<uint64_t>(entry.position));
}

HashEntry loadEntry(const Page& page, size_t index) {
  const unsigned char* at = page.data() + kContentAt + index * kEntrySize;
  return {loadBigEndian<uint64_t>(at), static_cast<int64_t>(loadBigEndian<uint64_t>(at + 8))};
}

// The hash's share of the homes: the upper half of the product, in 32-bit steps.
uint64_t homeOf(uint64_t hash, uint64_t homes) {
  const uint64_t high = hash >> 32;
  const uint64_t low = hash & 0xFFFFFFFFu;
  const uint64_t highHomes = homes >> 32;
  const uint64_t lowHomes = homes & 0xFFFFFFFFu;
  const uint64_t middle = high * lowHomes + (low * lowHomes >> 32);
  const uint64_t other = low * highHomes + (middle & 0xFFFFFFFFu);
  return high * highHomes + (middle >> 32) + (other >> 32);
}

Page frontPage(const std::vector<Section>& sections, uint64_t generation) {
  Page page = {};
  Writer writer(page);
  for (const Section& section : sections) {
    eachOfSection(section, [&writer](const auto& part) { writer.put(part); });
    writer.put(static_cast<uint64_t>(section.kind));
  }
  seal(page, {.kind = PageKind::front,
              .generation = generation,
              .count = static_cast<uint16_t>(sections.size())});
  return page;
}

std::optional<std::vector<Section>> sectionsOf(const Page& page) {
  const std::optional<PageLabel> label = labelOf(page);
  if (!label || label->kind != PageKind::front || label->count > kMostSections) return std::nullopt;
  std::vector<Section> sections(label->count);
  Reader reader(page);
  for (Section& section : sections) {
    uint64_t kind = 0;
    eachOfSection(section, [&reader](auto& part) { reader.get(&part); });
    reader.get(&kind);
    if (section.firstPage > kMostPages || section.pages > kMostPages) return std::nullopt;
    section.kind = static_cast<IndexKind>(kind);
  }
  return sections;
}

Page headPage(const Head& head, uint64_t generation) {
  Page page = {};
  Writer writer(page);
  const auto put = [&writer](const auto& part) { writer.put(part); };
  eachOf(head.stamp, put);
  eachOfChain(head.chain, put);
  eachOfHead(head, put);
  writer.put(static_cast<uint16_t>(head.kind));
  writer.put(static_cast<uint16_t>((head.isUnique ? kUnique : 0) | (head.isOrdered ? kOrdered : 0) |
                                   (head.hasDuplicates ? kDuplicates : 0)));
  writer.put(static_cast<uint16_t>(head.name.size()));
  writer.put(head.name);
  seal(page, {.kind = PageKind::head, .generation = generation});
  return page;
}

std::optional<Head> headOf(const Page& page) {
  const std::optional<PageLabel> label = labelOf(page);
  if (!label || label->kind != PageKind::head || label->number != 0) return std::nullopt;
  Head head;
  Reader reader(page);
  const auto get = [&reader](auto& part) { reader.get(&part); };
  eachOf(head.stamp, get);
  eachOfChain(head.chain, get);
  eachOfHead(head, get);
  uint16_t kind = 0;
  uint16_t flags = 0;
  uint16_t length = 0;
  get(kind);
  get(flags);
  get(length);
  if (!isKind(kind) || length > kLongestName || !isPossible(head)) return std::nullopt;
  head.kind = static_cast<IndexKind>(kind);
  head.isUnique = (flags & kUnique) != 0;
  head.isOrdered = (flags & kOrdered) != 0;
  head.hasDuplicates = (flags & kDuplicates) != 0;
  reader.get(&head.name, length);
  return head;
}

}  // namespace qvdbase::format::kept
