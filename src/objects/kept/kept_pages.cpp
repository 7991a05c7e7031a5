// Reading an index that is kept in a file.
#include "objects/kept/kept_pages.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "format/big_endian.h"

using namespace qvdbase;

namespace qvdb::detail {

using namespace format::kept;

namespace {

int64_t placeOfPage(uint64_t number) {
  return static_cast<int64_t>(number * kPageSize);
}

bool isAfter(const OrderedKeys::Place& place, const OrderedKeys::Place& wanted) {
  const int order = place.key.compare(wanted.key);
  return order != 0 ? order > 0 : place.position > wanted.position;
}

}  // namespace

std::shared_ptr<KeptPages> KeptPages::open(ReadAt readAt, IndexKind kind, uint64_t table,
                                           std::string_view name) {
  Page page;
  if (!readAt(0, page.data(), page.size())) return nullptr;
  const std::optional<std::vector<Section>> sections = sectionsOf(page);
  if (!sections) return nullptr;
  const uint64_t nameSum = sumOf(reinterpret_cast<const unsigned char*>(name.data()), name.size());
  for (const Section& section : *sections) {
    if (section.kind != kind || section.table != table || section.nameSum != nameSum) continue;
    std::shared_ptr<KeptPages> pages = openSection(readAt, section);
    if (pages != nullptr && pages->head().name == name) return pages;
  }
  return nullptr;
}

std::shared_ptr<KeptPages> KeptPages::openSection(ReadAt readAt, const Section& section) {
  Page page;
  if (!readAt(placeOfPage(section.firstPage), page.data(), page.size())) return nullptr;
  const std::optional<PageLabel> label = labelOf(page);
  std::optional<Head> head = headOf(page);
  if (!head || label->generation != section.generation || head->kind != section.kind ||
      head->table != section.table || 1 + head->hashPages + head->keyPages != section.pages) {
    return nullptr;
  }
  return std::make_shared<KeptPages>(std::move(readAt), section, *std::move(head));
}

KeptPages::KeptPages(ReadAt readAt, const Section& section, Head head)
    : readAt_(std::move(readAt)), section_(section), head_(std::move(head)) {}

size_t KeptPages::bytes() const {
  const auto isHeld = [](const auto& held) { return held != nullptr; };
  const auto count = std::count_if(held_.begin(), held_.end(), isHeld);
  return sizeof *this + static_cast<size_t>(count) * sizeof(Held);
}

const KeptPages::Held* KeptPages::read(uint64_t number, PageKind kind) {
  if (isBroken_) return nullptr;
  std::unique_ptr<Held>& held = held_[number % kHeld];
  if (held != nullptr && held->number == number) return held.get();
  if (held == nullptr) held = std::make_unique<Held>();
  held->number = 0;
  ++pagesRead_;
  std::optional<PageLabel> label;
  if (readAt_(placeOfPage(section_.firstPage + number), held->page.data(), kPageSize)) {
    label = labelOf(held->page);
  }
  isBroken_ = !label || label->kind != kind || label->generation != section_.generation ||
              label->number != number;
  if (isBroken_) return nullptr;
  held->label = *label;
  held->number = number;
  return held.get();
}

// After the head.
const KeptPages::Held* KeptPages::hashPage(uint64_t number) {
  return read(1 + number, PageKind::hashes);
}

const KeptPages::Held* KeptPages::keyPage(uint64_t number) {
  return read(1 + head_.hashPages + number, PageKind::keys);
}

// Whether everything before `wanted` is in this page or before it. Of pages from the home of a hash
// on, this holds for all after the first one for which it does.
bool KeptPages::hasReached(uint64_t number, const HashEntry& wanted) {
  const Held* held = hashPage(number);
  if (held == nullptr) return true;
  const size_t count = held->label.count;
  return !held->label.spills || (count != 0 && !(loadEntry(held->page, count - 1) < wanted));
}

// The first page in which `wanted` or what comes after it can be, in steps that double.
std::optional<uint64_t> KeptPages::pageOf(const HashEntry& wanted) {
  const uint64_t last = head_.hashPages - 1;
  uint64_t before = homeOf(wanted.hash, head_.homes);
  if (hasReached(before, wanted)) return before;
  uint64_t reached = before;
  for (uint64_t step = 1; reached == before; step *= 2) {
    if (before == last) return std::nullopt;
    const uint64_t next = before + std::min(step, last - before);
    if (!hasReached(next, wanted)) {
      before = reached = next;
    } else {
      reached = next;
    }
  }
  while (reached - before > 1) {
    const uint64_t middle = before + (reached - before) / 2;
    (hasReached(middle, wanted) ? reached : before) = middle;
  }
  return reached;
}

void KeptPages::list(uint64_t hash, int64_t after, size_t most, std::vector<int64_t>* positions) {
  if (most == 0 || after == std::numeric_limits<int64_t>::max()) return;
  const HashEntry wanted = {hash, after + 1};
  const std::optional<uint64_t> first = pageOf(wanted);
  if (!first) return markBroken();  // the last page says that there are more
  for (uint64_t number = *first; number < head_.hashPages; ++number) {
    const Held* held = hashPage(number);
    if (held == nullptr) return;
    for (size_t i = 0; i < held->label.count; ++i) {
      const HashEntry entry = loadEntry(held->page, i);
      if (entry < wanted) continue;
      if (entry.hash != hash) return;
      positions->push_back(entry.position);
      if (--most == 0) return;
    }
    if (!held->label.spills) return;
  }
}

bool KeptPages::contains(uint64_t hash, int64_t position) {
  if (position <= 0) return false;
  std::vector<int64_t> positions;
  list(hash, position - 1, 1, &positions);
  return !positions.empty() && positions[0] == position;
}

bool KeptPages::Cursor::next(HashEntry* entry) {
  for (; page_ < pages_.head_.hashPages; ++page_) {
    const Held* held = pages_.hashPage(page_);
    if (held == nullptr) return false;
    if (at_ < held->label.count) {
      *entry = loadEntry(held->page, at_++);
      return true;
    }
    at_ = 0;
  }
  return false;
}

// ---- Keys in order: one after the other, regardless of where pages end

bool KeptPages::readStream(uint64_t from, size_t count, std::string* bytes) {
  if (from > head_.keyBytes || count > head_.keyBytes - from) {
    markBroken();
    return false;
  }
  while (count != 0) {
    const Held* held = keyPage(from / kContentSize);
    if (held == nullptr) return false;
    const auto offset = static_cast<size_t>(from % kContentSize);
    const size_t part = std::min(count, kContentSize - offset);
    const auto* content = reinterpret_cast<const char*>(held->page.data() + kContentAt);
    bytes->append(content + offset, part);
    from += part;
    count -= part;
  }
  return true;
}

// Its length bounds nothing that is allocated: pages that are there do.
bool KeptPages::readPlace(uint64_t* at, OrderedKeys::Place* place) {
  std::string number;
  if (!readStream(*at, kKeyLengthSize, &number)) return false;
  const auto length =
      format::loadBigEndian<uint32_t>(reinterpret_cast<const unsigned char*>(number.data()));
  place->key.clear();
  if (!readStream(*at + kKeyLengthSize, length, &place->key)) return false;
  number.clear();
  if (!readStream(*at + kKeyLengthSize + length, kKeyPositionSize, &number)) return false;
  place->position = static_cast<int64_t>(
      format::loadBigEndian<uint64_t>(reinterpret_cast<const unsigned char*>(number.data())));
  *at += kKeyLengthSize + length + kKeyPositionSize;
  return true;
}

// Where the first key begins of the last page that is not after this one and has the beginning of
// any.
std::optional<uint64_t> KeptPages::startBefore(uint64_t number, uint64_t* page) {
  const Held* held = keyPage(number);
  if (held != nullptr && held->label.first == kNone) {
    const uint64_t before = held->label.before;
    if (before >= number) {
      markBroken();
      return std::nullopt;
    }
    number = before;
    held = keyPage(number);
  }
  if (held == nullptr) return std::nullopt;
  if (held->label.first == kNone) {
    markBroken();
    return std::nullopt;
  }
  *page = number;
  return number * kContentSize + held->label.first;
}

// Where to begin in order to reach what comes after a place: by halves over the pages.
std::optional<uint64_t> KeptPages::startOf(const OrderedKeys::Place& wanted) {
  uint64_t begin = 0;
  uint64_t end = head_.keyPages;
  uint64_t start = 0;
  while (end - begin > 1) {
    const uint64_t middle = begin + (end - begin) / 2;
    uint64_t page = 0;
    const std::optional<uint64_t> first = startBefore(middle, &page);
    OrderedKeys::Place place;
    uint64_t at = first.value_or(0);
    if (!first || !readPlace(&at, &place)) return std::nullopt;
    if (isAfter(place, wanted)) {
      end = middle;
    } else {
      begin = middle;
      start = *first;
    }
  }
  return start;
}

void KeptPages::listKeys(const OrderedKeys::Place& after, const std::string* to, size_t most,
                         std::vector<OrderedKeys::Place>* places) {
  if (most == 0 || isBroken_) return;
  const std::optional<uint64_t> start = startOf(after);
  if (!start) return;
  OrderedKeys::Place place;
  for (uint64_t at = *start; most != 0 && at < head_.keyBytes;) {
    if (!readPlace(&at, &place)) return;
    if (!isAfter(place, after)) continue;
    if (to != nullptr && place.key >= *to) return;
    places->push_back(place);
    --most;
  }
}

}  // namespace qvdb::detail
