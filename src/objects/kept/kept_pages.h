// An index that is kept in a file, read page by page.
//
// Nothing is believed of a page but what its sum, generation and number confirm. The first page
// that fails there makes the whole index broken: it lists nothing any more, and whoever has it
// builds another one. So a file that was cut, torn or written over costs time only.
//
// A hash is looked up in the page at which it is at home, and in those after it where that is full:
// one page mostly, and never more than the logarithm of a run of full ones, such as a key of
// millions of records makes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "format/index_pages.h"
#include "objects/indexes/ordered_keys.h"
#include "support/seeded_hash.h"

namespace qvdb::detail {

class KeptPages {
 public:
  // Reads so many bytes at a position of the file. False unless all were read.
  using ReadAt = std::function<bool(int64_t position, unsigned char* bytes, size_t count)>;

  // The index of that table, of that kind and name. Null when the file has none that can be read.
  static std::shared_ptr<KeptPages> open(ReadAt readAt, qvdbase::format::kept::IndexKind kind,
                                         uint64_t table, std::string_view name);

  // The index in that section, likewise.
  static std::shared_ptr<KeptPages> openSection(ReadAt readAt,
                                                const qvdbase::format::kept::Section& section);

  KeptPages(ReadAt readAt, const qvdbase::format::kept::Section& section,
            qvdbase::format::kept::Head head);

  const qvdbase::format::kept::Head& head() const { return head_; }
  const qvdbase::format::kept::Section& section() const { return section_; }
  qvdbase::support::HashSeed seed() const { return {head_.seedBefore, head_.seedBetween}; }

  // Whether a page could not be read, or was not right: what was listed meanwhile may be less than
  // there is.
  bool isBroken() const { return isBroken_; }
  void markBroken() { isBroken_ = true; }

  // Appends positions after one, ascending, `most` at most. Throws std::bad_alloc, as the next two.
  void list(uint64_t hash, int64_t after, size_t most, std::vector<int64_t>* positions);

  // Whether there is that position for a hash.
  bool contains(uint64_t hash, int64_t position);

  // Appends keys after a place, up to but not including the key `to`, if there is one; `most` at
  // most.
  void listKeys(const OrderedKeys::Place& after, const std::string* to, size_t most,
                std::vector<OrderedKeys::Place>* places);

  // The memory that it takes, in bytes, whatever the index has.
  size_t bytes() const;

  // How many pages were read from the file.
  uint64_t pagesRead() const { return pagesRead_; }

  // All hashes with their positions, in order, from the first one.
  class Cursor {
   public:
    explicit Cursor(KeptPages& pages) : pages_(pages) {}
    // False at the end, and where the index is broken.
    bool next(qvdbase::format::kept::HashEntry* entry);

   private:
    KeptPages& pages_;
    uint64_t page_ = 0;
    size_t at_ = 0;
  };

 private:
  using Page = qvdbase::format::kept::Page;
  using HashEntry = qvdbase::format::kept::HashEntry;

  // A page in memory that was found right.
  struct Held {
    uint64_t number = 0;  // 0: none, because the head is never held
    qvdbase::format::kept::PageLabel label;
    Page page;
  };

  const Held* hashPage(uint64_t number);
  const Held* keyPage(uint64_t number);
  const Held* read(uint64_t number, qvdbase::format::kept::PageKind kind);
  bool hasReached(uint64_t number, const HashEntry& wanted);
  std::optional<uint64_t> pageOf(const HashEntry& wanted);

  bool readStream(uint64_t from, size_t count, std::string* bytes);
  bool readPlace(uint64_t* at, OrderedKeys::Place* place);
  std::optional<uint64_t> startBefore(uint64_t number, uint64_t* page);
  std::optional<uint64_t> startOf(const OrderedKeys::Place& wanted);

  static constexpr size_t kHeld = 8;

  ReadAt readAt_;
  qvdbase::format::kept::Section section_;
  qvdbase::format::kept::Head head_;
  std::array<std::unique_ptr<Held>, kHeld> held_;
  bool isBroken_ = false;
  uint64_t pagesRead_ = 0;
};

}  // namespace qvdb::detail
