// qvdb::Record, one record of a table, and qvdb::RecordRange, the walk over all of them.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>

#include <chrono>
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

// What a record's header holds.
struct RecordInfo {
  Id id;                      // the record's identifier
  uint32_t create_time = 0;   // seconds since 1970, modulo 2^32
  uint32_t modify_time = 0;   // seconds since 1970, modulo 2^32
  uint32_t size = 0;          // bytes of payload
  uint32_t capacity = 0;      // bytes that the payload can grow to in place
  int64_t position = 0;       // of the record's block in the file
  int64_t data_position = 0;  // of the payload in the file

  // create_time as a point in time, 1970 to 2106 (where the numbers in the file begin again at 0).
  std::chrono::sys_seconds created() const noexcept { return timeOf(create_time); }

  // modify_time as a point in time, likewise.
  std::chrono::sys_seconds modified() const noexcept { return timeOf(modify_time); }

  // Whether all members are equal.
  friend bool operator==(const RecordInfo&, const RecordInfo&) = default;

 private:
  static std::chrono::sys_seconds timeOf(uint32_t seconds) noexcept {
    return std::chrono::sys_seconds(std::chrono::seconds(seconds));
  }
};

// A record as it was found. It knows the record's position, so that its payload is read without
// another search. It can be used while the database is open; read() says what happens when the
// record was changed or deleted meanwhile.
class QVDBASE_API Record {
 public:
  // No record, to be assigned to: reading throws not_open.
  Record() = default;

  // A copy, which has a copy of the loaded payload, too, if there is one; copies of a copy share
  // it. Throws std::bad_alloc.
  Record(const Record& other);

  // Copies likewise.
  Record& operator=(const Record& other);

  Record(Record&&) noexcept = default;             // takes the loaded payload along
  Record& operator=(Record&&) noexcept = default;  // takes the loaded payload along
  ~Record() = default;                             // the record in the file stays

  // Whether both are the same record, as it was found, of the same open database: that of one
  // Database object. What is loaded does not count.
  friend bool operator==(const Record& a, const Record& b) noexcept {
    return a.database_ == b.database_ && a.table_ == b.table_ && a.info_ == b.info_;
  }

  // The header as it was when the record was found.
  const RecordInfo& info() const noexcept { return info_; }

  // The record's identifier.
  Id id() const noexcept { return info_.id; }

  // The bytes of payload when the record was found.
  uint32_t size() const noexcept { return info_.size; }

  // The identifier of the table.
  Id table() const noexcept { return table_; }

  // The payload as a walk over records(Load::payloads) has read it; empty for any other record.
  // Valid until the walk continues; that of a copy, as long as the copy exists.
  std::span<const std::byte> loaded() const noexcept { return loaded_; }

  // Reads part of the payload: as many bytes as the buffer takes and the payload has from `offset`
  // on. Returns their number; 0 from the end of the payload on.
  //
  // The record's header is read again first. A record that was changed in place is read as it is
  // now, with its present size. One that was deleted, or that has moved to a new block, is read as
  // it was, as long as its old block is in the file.
  //
  // Throws Error: record_missing when the block there is not this record's any more; data_damaged
  // when the payload extends beyond the end of the file; not_open; cannot_read.
  size_t read(uint64_t offset, std::span<std::byte> buffer) const;

  // The whole payload. Memory is allocated for it only when the file is long enough to hold it.
  // Throws Error as read() does, and too_large when there is not enough memory.
  std::vector<std::byte> payload() const;

  // Reads the whole payload into a vector, which is resized to it, so that its memory can be
  // reused. Throws as payload() does.
  void payload(std::vector<std::byte>& buffer) const;

 private:
  friend class Table;
  friend class RecordRange;
  Record(std::shared_ptr<detail::OpenDatabase> database, Id table, const RecordInfo& info);
  void keepLoaded();

  std::shared_ptr<detail::OpenDatabase> database_;
  Id table_;
  RecordInfo info_;
  std::span<const std::byte> loaded_;
  std::shared_ptr<const std::byte[]> kept_;  // what loaded_ shows, in a copy
};

// What a walk reads of each record.
enum class Load {
  headers,   // payloads are read one by one, on demand
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
// and one that moved is delivered from its new place. Deleting or changing the record that the walk
// has just delivered costs nothing extra; after a change of any other record of the table, what was
// read ahead is read again. A change by other means, through the C functions or by another program,
// can go unnoticed within a batch, without further consequences.
class QVDBASE_API RecordRange {
 public:
  class iterator;

  RecordRange(RecordRange&&) noexcept;             // iterators of the other one become invalid
  RecordRange& operator=(RecordRange&&) noexcept;  // iterators of both become invalid
  ~RecordRange();                                  // its iterators become invalid

  // Starts the walk, or starts it again from the first record. Throws Error when the table cannot
  // be read or its first record is damaged. The iterator belongs to the range, which therefore must
  // be a variable, or the range of a range-based for.
  iterator begin() &;
  iterator begin() && = delete;

  // The end of every walk.
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

// The place of a walk: an input iterator. All iterators of a range are at the same place.
class RecordRange::iterator {
 public:
  using iterator_concept = std::input_iterator_tag;  // walks once, forward
  using value_type = Record;                         // what it points to
  using difference_type = std::ptrdiff_t;            // required of every iterator

  iterator() = default;  // at the end

  // The record, which belongs to the range and is valid until the next increment.
  const Record& operator*() const noexcept { return range_->current_; }

  // The same for members of the record.
  const Record* operator->() const noexcept { return &range_->current_; }

  // Goes to the next record. Throws Error: chain_damaged, not_open, cannot_read, and what Table
  // says about every operation.
  iterator& operator++() {
    range_->advance();
    return *this;
  }

  // Goes to the next record likewise.
  void operator++(int) { range_->advance(); }

  // Whether the walk has ended.
  friend bool operator==(const iterator& i, std::default_sentinel_t) noexcept { return i.isDone(); }

 private:
  friend class RecordRange;
  explicit iterator(RecordRange* range) : range_(range) {}
  bool isDone() const noexcept { return range_ == nullptr || range_->done_; }

  RecordRange* range_ = nullptr;
};

}  // namespace qvdb
