// qvdb::Record, one record of a table, and qvdb::RecordRange, the walk over all of them.
#ifndef QVDBASE_QVDB_RECORD_HPP
#define QVDBASE_QVDB_RECORD_HPP

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <ranges>
#include <span>
#include <vector>

namespace qvdb {

namespace detail {
struct OpenDatabase;
struct Walk;
}  // namespace detail

// What a record's header tells.
struct RecordInfo {
  Id id;
  std::uint32_t create_time = 0;  // seconds since 1970, modulo 2^32
  std::uint32_t modify_time = 0;
  std::uint32_t size = 0;          // bytes of payload
  std::uint32_t capacity = 0;      // bytes of room for it
  std::int64_t position = 0;       // of the record's block in the file
  std::int64_t data_position = 0;  // of the payload in the file
};

// A record as it was found. It knows where the record lies, so that its payload is read without
// another search. It stays usable while the database is open; when the record was changed or
// deleted in the meantime, see read().
class QVDBASE_API Record {
 public:
  Record() = default;

  // The header as it was when the record was found.
  const RecordInfo& info() const noexcept { return info_; }
  Id id() const noexcept { return info_.id; }
  std::uint32_t size() const noexcept { return info_.size; }
  Id table() const noexcept { return table_; }

  // The payload as a walk over records(Load::payloads) has read it; empty for any other record. It
  // holds until the walk goes on.
  std::span<const std::byte> loaded() const noexcept { return loaded_; }

  // Reads part of the payload: as many bytes as the buffer takes and the payload has from `offset`
  // on. Returns how many that were; 0 from the end of the payload on.
  //
  // The record's header is read again first. A record that was changed in place is read as it is
  // now, with its present size. One that was deleted, or that has moved to a new block, is read as
  // it was, for as long as its old block stands in the file.
  //
  // Throws Error: record_missing when no block of this record stands there any more; data_damaged
  // when the payload reaches beyond the end of the file; not_open; cannot_read.
  std::size_t read(std::uint64_t offset, std::span<std::byte> buffer) const;

  // The whole payload. Memory for it is asked for only when the file is long enough to hold it.
  // Throws Error as read() does, and too_large when there is not enough memory.
  std::vector<std::byte> payload() const;

  // The same into a vector that can be used again and again; it is resized to the payload.
  void payload(std::vector<std::byte>& buffer) const;

 private:
  friend class Table;
  friend class RecordRange;
  Record(std::shared_ptr<detail::OpenDatabase> database, Id table, const RecordInfo& info);

  std::shared_ptr<detail::OpenDatabase> database_;
  Id table_;
  RecordInfo info_;
  std::span<const std::byte> loaded_;
};

// What a walk reads of each record.
enum class Load {
  headers,   // payloads are read one by one, when they are asked for
  payloads,  // payloads too, ahead with the headers: see Record::loaded()
};

// The records of a table in the order of their chain: an input range that is walked once, forward,
// with one header read per record. Headers are read ahead in batches; payloads only when the walk
// was asked to load them, which is the fastest way to go through all of a table.
//
//   for (const qvdb::Record& record : table.records()) ...
//
// The walk never goes beyond the number of records that the table counted when it began, and a
// damaged chain that loops ends it too. Where the chain is damaged, the increment that gets there
// throws Error: chain_damaged with the number of the record that cannot be read; all records before
// it have been delivered by then.
//
// Records may be added, changed and deleted during the walk. What this layer changes in the same
// open database is noticed: a record that was deleted ahead of the walk is not delivered any more,
// and one that moved is delivered from where it now is. A change made past this layer, through the
// C functions or by another program, can go unnoticed within a batch; it never does harm.
class QVDBASE_API RecordRange {
 public:
  class iterator;

  RecordRange(RecordRange&&) noexcept;
  RecordRange& operator=(RecordRange&&) noexcept;
  ~RecordRange();

  // Starts the walk, or starts it again from the first record. Throws Error when the table cannot
  // be read or its first record is damaged.
  iterator begin();
  std::default_sentinel_t end() const noexcept { return std::default_sentinel; }

 private:
  friend class Table;
  RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table, Load load);
  void start();
  void advance();
  void readOn(bool hasChanged);

  std::unique_ptr<detail::Walk> walk_;
  Record current_;
  bool done_ = true;
};

class RecordRange::iterator {
 public:
  using iterator_concept = std::input_iterator_tag;
  using value_type = Record;
  using difference_type = std::ptrdiff_t;

  iterator() = default;

  const Record& operator*() const noexcept { return range_->current_; }
  const Record* operator->() const noexcept { return &range_->current_; }
  iterator& operator++() {
    range_->advance();
    return *this;
  }
  void operator++(int) { range_->advance(); }
  friend bool operator==(const iterator& i, std::default_sentinel_t) noexcept { return i.isDone(); }

 private:
  friend class RecordRange;
  explicit iterator(RecordRange* range) : range_(range) {}
  bool isDone() const noexcept { return range_ == nullptr || range_->done_; }

  RecordRange* range_ = nullptr;
};

}  // namespace qvdb

#endif
