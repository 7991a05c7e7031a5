// qvdb::Record, one record of a table, and qvdb::RecordRange, the walk over all of them.
#ifndef QVDBASE_QVDB_RECORD_HPP
#define QVDBASE_QVDB_RECORD_HPP

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
  Id id;
  uint32_t create_time = 0;  // seconds since 1970, modulo 2^32
  uint32_t modify_time = 0;
  uint32_t size = 0;          // bytes of payload
  uint32_t capacity = 0;      // bytes that the payload can grow to in place
  int64_t position = 0;       // of the record's block in the file
  int64_t data_position = 0;  // of the payload in the file

  // The times, from 1970 to the year 2106, where the numbers in the file begin again at 0.
  std::chrono::sys_seconds created() const noexcept { return timeOf(create_time); }
  std::chrono::sys_seconds modified() const noexcept { return timeOf(modify_time); }

  friend bool operator==(const RecordInfo&, const RecordInfo&) = default;

 private:
  static std::chrono::sys_seconds timeOf(uint32_t seconds) noexcept {
    return std::chrono::sys_seconds(std::chrono::seconds(seconds));
  }
};

// A record as it was found. It knows where the record lies, so that its payload is read without
// another search. It stays usable while the database is open; when the record was changed or
// deleted in the meantime, see read(). A Record that was made without one finds nothing to read:
// its operations throw not_open.
class QVDBASE_API Record {
 public:
  Record() = default;
  // A copy keeps a payload of its own where there is a loaded one, for as long as it lives; copies
  // of a copy share it. Throws std::bad_alloc.
  Record(const Record& other);
  Record& operator=(const Record& other);
  Record(Record&&) noexcept = default;
  Record& operator=(Record&&) noexcept = default;
  ~Record() = default;

  // Whether both are the same record, as it was found, of the same open database: that of one
  // Database object. What is loaded does not count.
  friend bool operator==(const Record& a, const Record& b) noexcept {
    return a.database_ == b.database_ && a.table_ == b.table_ && a.info_ == b.info_;
  }

  // The header as it was when the record was found.
  const RecordInfo& info() const noexcept { return info_; }
  Id id() const noexcept { return info_.id; }
  uint32_t size() const noexcept { return info_.size; }
  Id table() const noexcept { return table_; }

  // The payload as a walk over records(Load::payloads) has read it; empty for any other record.
  // That of the record that the walk delivers holds until the walk continues, that of a copy as
  // long as the copy.
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
  size_t read(uint64_t offset, std::span<std::byte> buffer) const;

  // The whole payload. Memory for it is asked for only when the file is long enough to hold it.
  // Throws Error as read() does, and too_large when there is not enough memory.
  std::vector<std::byte> payload() const;

  // The same into a vector that can be used again and again; it is resized to the payload.
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
// and one that moved is delivered from where it now is. To delete or change the record that the
// walk has just delivered costs no more than elsewhere; after a change of any other record of the
// table, what was read ahead is read again. A change made past this layer, through the C functions
// or by another program, can go unnoticed within a batch; it never does harm.
class QVDBASE_API RecordRange {
 public:
  class iterator;

  RecordRange(RecordRange&&) noexcept;
  RecordRange& operator=(RecordRange&&) noexcept;
  ~RecordRange();

  // Starts the walk, or starts it again from the first record. Throws Error when the table cannot
  // be read or its first record is damaged. The iterator belongs to the range, which so must have a
  // name, or be that of a range-based for.
  iterator begin() &;
  iterator begin() && = delete;
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
