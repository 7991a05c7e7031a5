// Keys in order.
#include "objects/indexes/ordered_keys.h"

#include <cstring>

namespace qvdb::detail {

uint64_t StoredKey::headOf(std::string_view key) {
  uint64_t head = 0;
  for (size_t i = 0; i < kHead; ++i) {
    head = head << 8 | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0u);
  }
  return head;
}

StoredKey::StoredKey(std::string_view key) : head_(headOf(key)), length_(key.size()) {
  if (length_ <= kHead) return;
  tail_.reset(new char[length_ - kHead]);
  std::memcpy(tail_.get(), key.data() + kHead, length_ - kHead);
}

// Where the heads are equal, the shorter of two keys of which one has no tail is the beginning of
// the other.
int StoredKey::compare(std::string_view key, uint64_t keyHead) const {
  if (head_ != keyHead) return head_ < keyHead ? -1 : 1;
  if (length_ > kHead && key.size() > kHead) {
    const size_t count = std::min(length_, key.size()) - kHead;
    const int order = std::memcmp(tail_.get(), key.data() + kHead, count);
    if (order != 0) return order;
  }
  if (length_ == key.size()) return 0;
  return length_ < key.size() ? -1 : 1;
}

std::string StoredKey::text() const {
  std::string text(std::min(length_, kHead), '\0');
  for (size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(static_cast<unsigned char>(head_ >> (8 * (kHead - 1 - i))));
  }
  if (tail_ != nullptr) text.append(tail_.get(), length_ - kHead);
  return text;
}

int OrderedKeys::compare(const Entry& entry, const Wanted& wanted) {
  const int order = entry.key.compare(wanted.key, wanted.head);
  if (order != 0 || entry.position == wanted.position) return order;
  return entry.position < wanted.position ? -1 : 1;
}

// The last piece that does not begin after the pair, or the first.
size_t OrderedKeys::pieceOf(const Wanted& wanted) const {
  const auto after = std::upper_bound(
      pieces_.begin(), pieces_.end(), wanted,
      [](const Wanted& pair, const auto& piece) { return compare(piece->front(), pair) > 0; });
  return after == pieces_.begin() ? 0 : static_cast<size_t>(after - pieces_.begin()) - 1;
}

// Of the first pair that is not before it.
size_t OrderedKeys::placeIn(const Piece& piece, const Wanted& wanted) {
  const auto place = std::lower_bound(
      piece.begin(), piece.end(), wanted,
      [](const Entry& entry, const Wanted& pair) { return compare(entry, pair) < 0; });
  return static_cast<size_t>(place - piece.begin());
}

// Keys that come in order leave the pieces full.
void OrderedKeys::split(size_t number) {
  Piece& full = *pieces_[number];
  const size_t kept = number + 1 == pieces_.size() ? full.size() - 1 : full.size() / 2;
  auto rest = std::make_unique<Piece>();
  rest->reserve(kPiece + 1);
  if (pieces_.capacity() == pieces_.size()) pieces_.reserve(pieces_.size() * 2);
  std::move(full.begin() + static_cast<ptrdiff_t>(kept), full.end(), std::back_inserter(*rest));
  full.erase(full.begin() + static_cast<ptrdiff_t>(kept), full.end());
  pieces_.insert(pieces_.begin() + static_cast<ptrdiff_t>(number) + 1, std::move(rest));
}

bool OrderedKeys::insert(std::string_view key, int64_t position) {
  const Wanted wanted(key, position);
  Entry entry{StoredKey(key), position};
  if (pieces_.empty()) {
    auto piece = std::make_unique<Piece>();
    piece->push_back(std::move(entry));
    pieces_.push_back(std::move(piece));
    return true;
  }
  const size_t number = pieceOf(wanted);
  Piece& piece = *pieces_[number];
  const size_t place = placeIn(piece, wanted);
  if (place < piece.size() && compare(piece[place], wanted) == 0) return false;
  if (piece.size() >= kPiece) {
    split(number);
    return insert(key, position);
  }
  piece.insert(piece.begin() + static_cast<ptrdiff_t>(place), std::move(entry));
  return true;
}

bool OrderedKeys::erase(std::string_view key, int64_t position) {
  if (pieces_.empty()) return false;
  const Wanted wanted(key, position);
  const size_t number = pieceOf(wanted);
  Piece& piece = *pieces_[number];
  const size_t place = placeIn(piece, wanted);
  if (place == piece.size() || compare(piece[place], wanted) != 0) return false;
  piece.erase(piece.begin() + static_cast<ptrdiff_t>(place));
  if (piece.empty()) pieces_.erase(pieces_.begin() + static_cast<ptrdiff_t>(number));
  return true;
}

void OrderedKeys::list(const Place& after, const std::string* to, size_t most,
                       std::vector<Place>* places) const {
  if (pieces_.empty()) return;
  const Wanted wanted(after.key, after.position);
  const uint64_t toHead = to != nullptr ? StoredKey::headOf(*to) : 0;
  size_t number = pieceOf(wanted);
  size_t place = placeIn(*pieces_[number], wanted);
  while (most != 0 && number < pieces_.size()) {
    if (place == pieces_[number]->size()) {
      ++number;
      place = 0;
      continue;
    }
    const Entry& entry = (*pieces_[number])[place++];
    if (compare(entry, wanted) == 0) continue;
    if (to != nullptr && entry.key.compare(*to, toHead) >= 0) return;
    places->push_back({entry.key.text(), entry.position});
    --most;
  }
}

size_t OrderedKeys::bytes() const {
  size_t bytes = pieces_.capacity() * sizeof pieces_[0];
  for (const auto& piece : pieces_) {
    bytes += sizeof *piece + piece->capacity() * sizeof(Entry);
    for (const Entry& entry : *piece) bytes += entry.key.bytesApart();
  }
  return bytes;
}

}  // namespace qvdb::detail
