// Keys in order, each with the position of a record that has it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::detail {

// A key with its first eight bytes at hand: comparing most keys needs no more of them.
class StoredKey {
 public:
  explicit StoredKey(std::string_view key);

  // Below 0, 0, above 0: as its bytes are before, equal to or after those of a key.
  int compare(std::string_view key, uint64_t keyHead) const;

  std::string text() const;
  size_t bytesApart() const { return length_ > kHead ? length_ - kHead : 0; }

  static uint64_t headOf(std::string_view key);

 private:
  static constexpr size_t kHead = 8;

  uint64_t head_;
  size_t length_;
  std::unique_ptr<char[]> tail_;  // what follows the head, where anything does
};

// Pairs of key and position, in the order of the keys' bytes, and of the positions where keys are
// equal. They are kept in pieces of limited size, so that one is added or taken out in little time.
class OrderedKeys {
 public:
  struct Place {
    std::string key;
    int64_t position = 0;
  };

  // False when the pair is there already. Throws std::bad_alloc, and is then as it was.
  bool insert(std::string_view key, int64_t position);
  // False when it is not there.
  bool erase(std::string_view key, int64_t position);

  // Appends those after a place, up to but not including the key `to`, if there is one; `most` at
  // most.
  void list(const Place& after, const std::string* to, size_t most,
            std::vector<Place>* places) const;

  size_t bytes() const;

 private:
  static constexpr size_t kPiece = 128;

  struct Entry {
    StoredKey key;
    int64_t position;
  };
  using Piece = std::vector<Entry>;

  // A pair that is looked for.
  struct Wanted {
    Wanted(std::string_view text, int64_t at)
        : key(text), head(StoredKey::headOf(text)), position(at) {}
    std::string_view key;
    uint64_t head;
    int64_t position;
  };

  static int compare(const Entry& entry, const Wanted& wanted);
  size_t pieceOf(const Wanted& wanted) const;
  static size_t placeIn(const Piece& piece, const Wanted& wanted);
  void split(size_t number);

  std::vector<std::unique_ptr<Piece>> pieces_;
};

}  // namespace qvdb::detail
