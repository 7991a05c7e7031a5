// qvdb::Record, one record of a table, and qvdb::RecordRange, the walk over all of them.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/checksum.hpp>
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
struct KeyMatches;
struct OpenDatabase;
struct Walk;
class Operation;
}  // namespace detail

class Record;

namespace detail {
// Where the record is now that was found, or 0 when that was before the database was opened again,
// or in a transaction that was rolled back.
int64_t positionOf(const Operation& operation, const Record& record);
}  // namespace detail

// What a record's header holds.
struct RecordInfo {
  Id id;                     // the record's identifier
  uint32_t create_time = 0;  // seconds since 1970, modulo 2^32
  uint32_t modify_time = 0;  // seconds since 1970, modulo 2^32
  uint32_t size = 0;         // bytes of payload
  uint32_t capacity = 0;     // bytes that the payload can grow to in place; with a checksum 28 less
  int64_t position = 0;      // of the record's block in the file
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
// record was changed or deleted meanwhile. Several threads may read one record at once.
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

  // What a walk has loaded of the payload: all of it, its first bytes, or nothing (WalkOptions);
  // empty for a record that no walk has delivered. Valid until the walk continues; that of a copy,
  // as long as the copy exists.
  std::span<const std::byte> loaded() const noexcept { return loaded_; }

  // Whether loaded() is the whole payload, as it was when the record was found. payload() reads one
  // that is not.
  bool is_loaded() const noexcept { return loaded_.size() == info_.size; }

  // Reads part of the payload: as many bytes as the buffer takes and the payload has from `offset`
  // on. Returns their number; 0 from the end of the payload on.
  //
  // The record's header is read again first. A record that was changed in place is read as it is
  // now, with its present size. One that was deleted, or that has moved to a new block, is read as
  // it was, as long as its old block is in the file.
  //
  // A read of the whole payload at once, from offset 0 on, compares it with its checksum; parts
  // cannot be compared: see verify().
  //
  // Throws Error: record_missing when the block there is not this record's any more;
  // payload_damaged as payload() does; changed_meanwhile when the record was found before
  // Database::reopen(), or in a transaction that has added or changed it and was rolled back;
  // data_damaged when the payload extends beyond the end of the file; not_open; cannot_read.
  size_t read(uint64_t offset, std::span<std::byte> buffer) const;

  // The whole payload. Memory is allocated for it only when the file is long enough to hold it.
  // Throws Error as read() does; too_large when there is not enough memory; payload_damaged when it
  // has a checksum of the present time and length and does not agree with it.
  std::vector<std::byte> payload() const;

  // Reads the whole payload into a vector, which is resized to it, so that its memory can be
  // reused. Throws as payload() does.
  void payload(std::vector<std::byte>& buffer) const;

  // Reads the payload piece by piece and says what its checksum says of it: for payloads that are
  // read in parts, and for records that a program has changed that does not know checksums, which
  // payload() returns. Throws Error as read() does.
  PayloadState verify() const;

  // The same, where a rotten payload is an error: to be called before a payload is read in parts
  // that matters as a whole. A payload without a checksum costs nothing. Throws Error as read()
  // does; payload_damaged as payload() does.
  void require_sound() const;

 private:
  friend class Table;
  friend class RecordRange;
  friend class WalkStart;
  friend struct detail::KeyMatches;
  friend int64_t detail::positionOf(const detail::Operation& operation, const Record& record);
  Record(std::shared_ptr<detail::OpenDatabase> database, Id table, const RecordInfo& info);
  void keepLoaded();

  std::shared_ptr<detail::OpenDatabase> database_;
  Id table_;
  RecordInfo info_;
  uint32_t opening_ = 0;      // which opening of the database its position is of
  uint32_t transaction_ = 0;  // in which it was found, or 0
  std::span<const std::byte> loaded_;
  std::shared_ptr<const std::byte[]> kept_;  // what loaded_ shows, in a copy
};

// What a walk reads of each record.
enum class Load {
  headers,   // payloads are read one by one, on demand
  payloads,  // payloads too, ahead with the headers: see Record::loaded()
};

// How much a walk loads of each payload: nothing, all of it, or its first bytes.
//
//   table.records({.load = qvdb::Load::payloads})
//   table.records({.load = qvdb::first_bytes(64)})
class LoadedPart {
 public:
  // Nothing with Load::headers, everything with Load::payloads.
  constexpr LoadedPart(Load load = Load::headers) noexcept
      : bytes_(load == Load::payloads ? ~uint32_t{0} : 0), isWhole_(load == Load::payloads) {}

  // The most bytes that are loaded of one payload.
  constexpr uint32_t bytes() const noexcept { return bytes_; }

  // Whether payloads are loaded whole.
  constexpr bool is_whole() const noexcept { return isWhole_; }

 private:
  friend constexpr LoadedPart first_bytes(uint32_t count) noexcept;
  uint32_t bytes_;
  bool isWhole_;
};

// The first `count` bytes of each payload, or all of a shorter one.
constexpr LoadedPart first_bytes(uint32_t count) noexcept {
  LoadedPart part;
  part.bytes_ = count;
  return part;
}

// The order in which a walk delivers the records. A table keeps the order in which they were added.
enum class Order {
  oldest_first,  // along the chain
  newest_first,  // back along the chain
};

// The record with which a walk begins; made of a Record, or of a position.
class WalkStart {
 public:
  // The first record of the walk's order.
  constexpr WalkStart() noexcept = default;

  // This record. It is looked for where it was found; if it is not there any more, by its
  // identifier.
  WalkStart(const Record& record) noexcept
      : kind_(Kind::record),
        id_(record.id()),
        position_(record.info().position),
        opening_(record.opening_) {}

  // The record whose block is at this position of the file (RecordInfo::position).
  constexpr WalkStart(int64_t position) noexcept : kind_(Kind::position), position_(position) {}

  // The record that follows this one in the order of the walk, if there is one.
  static WalkStart after(const Record& record) noexcept {
    WalkStart start(record);
    start.isAfter_ = true;
    return start;
  }

  // The same for the record with an identifier, which is found by the table's index, or by a walk.
  static constexpr WalkStart after(Id record) noexcept {
    WalkStart start;
    start.kind_ = Kind::record;
    start.id_ = record;
    start.isAfter_ = true;
    return start;
  }

 private:
  friend struct detail::Walk;
  enum class Kind : uint8_t { end, record, position };

  Kind kind_ = Kind::end;
  bool isAfter_ = false;
  Id id_;
  int64_t position_ = 0;
  uint32_t opening_ = 0;
};

// How the records of a table are walked, with everything that can be asked for.
struct WalkOptions {
  // Which way it goes.
  Order order = Order::oldest_first;

  // Where the walk begins, that record included. It goes on to the end of its order.
  WalkStart from = {};

  // What is loaded of each payload, ahead with the headers: see Record::loaded().
  LoadedPart load = {};

  // Payloads of more bytes than this are not loaded when payloads are loaded whole, so that memory
  // never holds much more: Record::is_loaded() is false then, and Record::payload() reads one.
  uint32_t largest_loaded = 1024 * 1024;
};

// The records of a table in the order of their chain, or in the reverse order: an input range that
// is walked once, with one header read per record. Headers are read ahead in batches; payloads only
// when the walk was asked to load them, which is the fastest way to go through all of a table. The
// first records of either order cost what reading them costs, however many the table has.
//
//   for (const qvdb::Record& record : table.records()) ...
//
// The walk never goes beyond the number of records that the table counted when it began, and a
// damaged chain that loops ends it too. Where the chain is damaged, the increment that gets there
// throws Error: chain_damaged; all records before it have been delivered by then. The error has the
// number of the record that cannot be read, counted from the oldest, where the walk began at either
// end of the chain. A walk that began at another record may end with a chain that was cut off where
// the table has been changed meanwhile.
//
// Records may be added, changed and deleted during the walk. What this layer changes in the same
// open database is noticed: a record that was deleted ahead of the walk is not delivered any more,
// and one that moved is delivered from its new place. Deleting or changing the record that the walk
// has just delivered costs nothing extra; after a change of any other record of the table, what was
// read ahead is read again. A change by other means, through the C functions or by another program,
// can go unnoticed within a batch, without further consequences.
//
// A walk belongs to one thread at a time. Other threads may change the table meanwhile through the
// same database: that is noticed likewise. A step for which nothing has changed waits for no
// thread.
class QVDBASE_API RecordRange {
 public:
  class iterator;

  RecordRange(RecordRange&&) noexcept;             // iterators of the other one become invalid
  RecordRange& operator=(RecordRange&&) noexcept;  // iterators of both become invalid
  ~RecordRange();                                  // its iterators become invalid

  // Starts the walk, or starts it again from its first record. Throws Error when the table cannot
  // be read or that record is damaged, and record_missing when there is no record to begin with as
  // asked for. The iterator belongs to the range, which therefore must be a variable, or the range
  // of a range-based for.
  iterator begin() &;
  iterator begin() && = delete;

  // The end of every walk.
  std::default_sentinel_t end() const noexcept { return std::default_sentinel; }

 private:
  friend class Table;
  RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table, const WalkOptions& options);
  void start();
  void advance();
  void readOn(bool mayTake);

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

  // Goes to the next record. Throws Error: chain_damaged; changed_meanwhile after
  // Database::reopen(); not_open; cannot_read; and what Table says about every operation.
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
