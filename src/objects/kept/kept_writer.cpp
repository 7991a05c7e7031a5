// Writing the file in which indexes are kept.
#include "objects/kept/kept_writer.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "format/big_endian.h"

using namespace qvdbase;

namespace qvdb::detail {

using namespace format::kept;

namespace {

constexpr size_t kPiece = size_t{256} << 10;

}  // namespace

KeptWriter::KeptWriter(WriteAt writeAt, uint64_t generation)
    : writeAt_(std::move(writeAt)), generation_(generation) {
  buffer_.reserve(kPiece);
}

bool KeptWriter::isFull() const {
  return heads_.size() + copied_.size() >= kMostSections;
}

void KeptWriter::flush() {
  const uint64_t first = nextPage_ - buffer_.size() / kPageSize;
  isGood_ = isGood_ && (buffer_.empty() || writeAt_(static_cast<int64_t>(first * kPageSize),
                                                    buffer_.data(), buffer_.size()));
  buffer_.clear();
}

// Pages come in order.
void KeptWriter::write(uint64_t page, const Page& bytes) {
  if (page != nextPage_) flush();
  nextPage_ = page + 1;
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  if (buffer_.size() >= kPiece) flush();
}

void KeptWriter::begin(Head head) {
  flush();
  const unsigned char* name = reinterpret_cast<const unsigned char*>(head.name.data());
  section_ = {.firstPage = nextPage_,
              .pages = 0,
              .generation = generation_++,
              .table = head.table,
              .nameSum = sumOf(name, head.name.size()),
              .kind = head.kind};
  head_ = std::move(head);
  head_.homes = std::max<uint64_t>(1, (head_.entries + kEntriesAtHome - 1) / kEntriesAtHome);
  head_.entries = 0;
  head_.keyBytes = 0;
  nextPage_ = section_.firstPage + 1;
  page_ = {};
  inPage_ = 0;
  hashPage_ = 0;
  last_ = {};
  hasHashes_ = false;
  first_ = kNone;
  keyPage_ = 0;
  beganIn_ = 0;
}

void KeptWriter::endHashPage(bool spills) {
  seal(page_, {.kind = PageKind::hashes,
               .generation = section_.generation,
               .number = numberInSection(),
               .count = static_cast<uint16_t>(inPage_),
               .spills = spills});
  write(nextPage_, page_);
  page_ = {};
  inPage_ = 0;
  ++hashPage_;
}

void KeptWriter::add(const HashEntry& entry) {
  if (!isGood_ || (head_.entries != 0 && entry == last_)) return;
  const uint64_t home = homeOf(entry.hash, head_.homes);
  while (hashPage_ < home) endHashPage(false);
  if (inPage_ == kEntriesInPage) endHashPage(true);
  storeEntry(page_, inPage_++, entry);
  last_ = entry;
  ++head_.entries;
}

void KeptWriter::endHashes() {
  hasHashes_ = true;
  while (inPage_ != 0 || hashPage_ < head_.homes) endHashPage(false);
  head_.hashPages = hashPage_;
}

void KeptWriter::endKeyPage() {
  seal(page_, {.kind = PageKind::keys,
               .generation = section_.generation,
               .number = numberInSection(),
               .first = first_,
               .before = beganIn_});
  write(nextPage_, page_);
  page_ = {};
  inPage_ = 0;
  first_ = kNone;
  ++keyPage_;
}

void KeptWriter::addBytes(const unsigned char* bytes, size_t count) {
  head_.keyBytes += count;
  while (count != 0) {
    const size_t part = std::min(count, kContentSize - inPage_);
    std::copy_n(bytes, part, page_.begin() + static_cast<ptrdiff_t>(kContentAt + inPage_));
    inPage_ += part;
    bytes += part;
    count -= part;
    if (inPage_ == kContentSize) endKeyPage();
  }
}

// `before` of a page is the page in which a key begins that is running when it begins.
void KeptWriter::addKey(std::string_view key, int64_t position) {
  if (!isGood_) return;
  if (!hasHashes_) endHashes();
  if (first_ == kNone) {
    first_ = static_cast<uint32_t>(inPage_);
    beganIn_ = keyPage_;
  }
  std::array<unsigned char, kKeyPositionSize> number;
  format::storeBigEndian(number.data(), static_cast<uint32_t>(key.size()));
  addBytes(number.data(), kKeyLengthSize);
  addBytes(reinterpret_cast<const unsigned char*>(key.data()), key.size());
  format::storeBigEndian(number.data(), static_cast<uint64_t>(position));
  addBytes(number.data(), kKeyPositionSize);
}

void KeptWriter::end() {
  if (!hasHashes_) endHashes();
  if (inPage_ != 0) endKeyPage();
  head_.keyPages = keyPage_;
  flush();
  section_.pages = 1 + head_.hashPages + head_.keyPages;
  heads_.emplace_back(section_, std::move(head_));
}

void KeptWriter::copy(const KeptPages::ReadAt& readAt, const Section& section) {
  Section copied = section;
  copied.firstPage = nextPage_;
  Page page;
  for (uint64_t i = 0; isGood_ && i < section.pages; ++i) {
    const uint64_t from = section.firstPage + i;
    const bool isRead = readAt(static_cast<int64_t>(from * kPageSize), page.data(), page.size());
    const std::optional<PageLabel> label = isRead ? labelOf(page) : std::nullopt;
    if (!label || label->generation != section.generation || label->number != i) {
      flush();
      nextPage_ = copied.firstPage;  // it is left out
      return;
    }
    write(nextPage_, page);
  }
  flush();
  copied_.push_back(copied);
}

bool KeptWriter::finish(const Stamp& stamp) {
  flush();
  std::vector<Section> sections = copied_;
  for (auto& [section, head] : heads_) {
    head.stamp = stamp;
    const Page page = headPage(head, section.generation);
    isGood_ = isGood_ && writeAt_(static_cast<int64_t>(section.firstPage * kPageSize), page.data(),
                                  page.size());
    sections.push_back(section);
  }
  const Page front = frontPage(sections, generation_);
  isGood_ = isGood_ && writeAt_(0, front.data(), front.size());
  return isGood_;
}

}  // namespace qvdb::detail
