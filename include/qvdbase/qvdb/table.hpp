// qvdb::Table: one table of an open database, its records and its block of table data.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/bulk.hpp>
#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/index.hpp>
#include <qvdbase/qvdb/record.hpp>
#include <qvdbase/qvdb/writer.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace qvdb {

namespace detail {
struct TableKeys;
}

// What a table's slot in the directory holds.
struct TableInfo {
  Id id;                              // the table's identifier
  std::string name;                   // 1 to 32 bytes
  uint16_t version = 0;               // of the slot
  uint32_t record_count = 0;          // records that the table has
  uint32_t record_write_count = 0;    // records that were ever added
  uint32_t data_write_count = 0;      // table-data blocks that were ever appended
  int64_t first_record_position = 0;  // of the first record's block; 0 when there is none
  int64_t last_record_position = 0;   // of the last record's block; 0 when there is none
  int64_t data_position = 0;          // of the table-data block; 0 when there is none
  uint16_t flags_1 = 0;               // the application's; the library gives them no meaning
  uint16_t flags_2 = 0;               // likewise
  uint32_t data_block_count = 0;      // 1 when the table has data, else 0
  // Of the record that was added last, or what became of it: it may have been deleted or moved.
  int64_t last_written_record_position = 0;
  int64_t last_written_data_position = 0;  // the same as data_position, as last_data_position is
  int64_t last_data_position = 0;          // of the table-data block
};

// A table that is to be added, with what its slot holds from the beginning.
//
//   qvdb::NewTable notes("notes");
//   notes.flags_1 = 7;
//   database.add_table(notes);
struct NewTable {
  // The name: 1 to 32 bytes, none of them zero.
  explicit NewTable(std::string_view table) : name(table) {}

  std::string name;           // as it is given above
  std::optional<Id> id = {};  // nothing: a new one
  uint16_t version = 100;     // of the slot; the library gives it no meaning
  uint16_t flags_1 = 0;       // the application's
  uint16_t flags_2 = 0;       // the application's
  // Where the counters begin, which count every record and every block of data that is added: so
  // that they end where they were in a table that is restored.
  uint32_t record_write_count = 0;  // modulo 2^32
  uint32_t data_write_count = 0;    // modulo 2^32
  // Whether the name may be another table's, too: for a table that is restored, since names that
  // the C functions have cut at 32 bytes can be equal. find_table() then finds the first one.
  bool may_repeat_name = false;
};

// A table of an open database. Tables come from a Database and are cheap to copy; all copies refer
// to the same table. A table may outlive its Database object: once the database is closed, each
// operation throws Error not_open.
//
// Every operation can throw Error with not_open, not_a_database, version_out_of_range,
// directory_damaged and table_missing (the file was replaced or damaged since the table was found),
// and cannot_read. Operations that write can also throw read_only, disk_full, cannot_write, and
// opened_elsewhere in a child process that got the database by fork. What else each can throw is
// said with it.
//
// Several threads may call the operations of one table, or of copies of it, at once: each operation
// is done as a whole before the next one begins. Only assigning to a table excludes other uses of
// that object.
//
// A record is found by walking the table's chain from its first record, which takes time in
// proportion to the number of records before it. The operations that take a Record instead of an
// identifier go straight to it.
class QVDBASE_API Table {
 public:
  // No table, to be assigned to: each operation throws not_open, the name is empty, the identifier
  // 0.
  Table() = default;

  // Whether both refer to the same table of the same open database: that of one Database object.
  friend bool operator==(const Table& a, const Table& b) noexcept {
    return a.database_ == b.database_ && a.id_ == b.id_;
  }

  // The table's identifier.
  Id id() const noexcept { return id_; }

  // The table's name, 1 to 32 bytes.
  const std::string& name() const noexcept { return name_; }

  // Reads the table's slot from the file.
  TableInfo info() const;

  // Reads the number of records from the slot.
  uint32_t count() const;

  // ---- Reading records

  // All records, oldest first; with Load::payloads, with their payloads, whatever their size.
  // Nothing is read before the walk begins.
  RecordRange records(Load load = Load::headers) const;

  // The records in the order, from the place and with the part of their payloads that is asked for.
  // WalkOptions says what that can be:
  //
  //   for (const qvdb::Record& record : table.records({.order = qvdb::Order::newest_first})) ...
  //
  // The records of a walk cost what reading them costs: the last ten about ten reads, when the walk
  // is left after them. Nothing is read before it begins; then it throws record_missing when the
  // record to begin with is not in the table.
  RecordRange records(const WalkOptions& options) const;

  // The records that were added after this one, oldest first: none when it is the last. It begins
  // in constant time; where the record has moved, as find() does. With Load::payloads payloads are
  // loaded whatever their size. The walk throws record_missing when the record is no longer in the
  // table.
  RecordRange records_after(const Record& record, LoadedPart load = {}) const;

  // The same after the record with an identifier, which is found by the table's index, or by a walk
  // from the first record.
  RecordRange records_after(Id record, LoadedPart load = {}) const;

  // The record that was added first, of those that are in the table; nothing when it has none.
  // Throws chain_damaged when it cannot be read.
  std::optional<Record> first() const;

  // The record that was added last, likewise, in constant time.
  std::optional<Record> last() const;

  // Finds a record; of several with the identifier, the first. Nothing when there is none.
  // Throws chain_damaged when the record is not found before the damage.
  std::optional<Record> find(Id record) const;

  // Whether there is such a record. Throws as find().
  bool contains(Id record) const;

  // A record's payload; nothing when there is no such record. Throws as find() and
  // Record::payload().
  std::optional<std::vector<std::byte>> get(Id record) const;

  // Reads the beginning of a record's payload, as much as the buffer takes. Returns the payload's
  // whole size, which may be more than that; nothing when there is no such record. Throws as the
  // other get(), payload_damaged only where the buffer takes all of it.
  std::optional<uint32_t> get(Id record, std::span<std::byte> buffer) const;

  // Reads the payloads of many records, those that lie close together with one read: faster than
  // one after the other where the table has an index, and the database no cache.
  //
  // ids       the records wanted, in any order; one that is there twice is read twice
  // function  called once for each of them, in the order in which they lie in the file, with its
  //           number in `ids` and its payload, or nothing when there is no such record. The payload
  //           is valid during the call, which may use the database. What it throws ends the reading
  //           and is passed on
  //
  // What others change meanwhile is seen or not, record by record. Throws as get(); the function
  // has been called for a part of the records then.
  void get_many(
      std::span<const Id> ids,
      const std::function<void(size_t, std::optional<std::span<const std::byte>>)>& function) const;

  // ---- Writing records

  // Adds a record after the last one and returns its new identifier.
  //
  // payload   bytes or text, as ByteView takes them
  // reserve   capacity for later growth, in bytes; the record has the larger of this and its size
  // checksum  whether it gets a checksum of its payload, by which readers notice that its bytes
  //           have changed; for that it has 32 bytes more capacity
  //
  // Throws too_large for a payload of 2^32 bytes or more, or 2^32 - 32 with a checksum;
  // chain_damaged when the table's last record cannot be linked to; appender_open. The record is
  // then not in the table, and a database that is open exclusively has its former length: a full
  // disk does not get fuller.
  Id add(ByteView payload, uint32_t reserve = 0, Checksum checksum = Checksum::by_default);

  // The same without a reserve. A template, so that {} is still a reserve.
  template <std::same_as<Checksum> Protection>
  Id add(ByteView payload, Protection checksum) {
    return add(payload, 0, checksum);
  }

  // The same under a given identifier. Nothing checks whether the table has it already. Throws as
  // add(), and bad_argument for identifier 0, which means no record.
  void add_with_id(Id record, ByteView payload, uint32_t reserve = 0,
                   Checksum checksum = Checksum::by_default);

  // Adds a record with times, identifier and capacity as the NewRecord says, and returns its
  // identifier. Throws as add(); and record_exists and bad_argument for its identifier, with
  // nothing written, as GivenIds says. To look for the identifier costs what find() costs.
  template <typename Record>
  requires std::same_as<std::remove_cvref_t<Record>, NewRecord> Id add(Record&& record) {
    return addNew(record);
  }

  // Adds a record whose payload comes in pieces, of any number and size. See RecordWriter.
  //
  // reserve   as for add()
  // record    the new record's identifier; nothing: a new one
  // checksum  as for add()
  //
  // Throws as add() and add_with_id().
  RecordWriter writer(uint32_t reserve = 0, std::optional<Id> record = std::nullopt,
                      Checksum checksum = Checksum::by_default);

  // The same for a record with times, or an identifier that is checked; see BulkAppender::writer.
  // Throws as add() of a NewRecord.
  RecordWriter writer(const NewRecord& record);

  // Adds many records: gathers them and writes them in large pieces; see BulkAppender. Throws
  // chain_damaged when the table's last record cannot be linked to; appender_open.
  BulkAppender appender();

  // Adds all records of a range, whose elements are, or convert to, NewRecord: byte vectors,
  // strings, spans of bytes, ... Returns their number. Adds all of them or none: none when one
  // cannot be written, which throws as BulkAppender does, and none when the range itself throws.
  template <std::ranges::input_range Range>
  requires std::convertible_to<std::ranges::range_reference_t<Range>, NewRecord> uint32_t
  append_all(Range&& records) {
    BulkAppender bulk = appender();
    for (auto&& record : records) bulk.add(record);
    return bulk.finish();
  }

  // Builds an index, by which the operations on records by identifier take constant time as long as
  // it or a copy of it exists. See RecordIndex. Throws chain_damaged when the records cannot all be
  // reached, and std::bad_alloc.
  RecordIndex index() const { return index({}); }

  // The same. With `kept` it is read from the file beside the database where that has it: then
  // damage of the chain that a walk would find is not noticed here.
  RecordIndex index(const RecordIndexOptions& options) const;

  // Replaces a record's payload and sets its time of last modification. A payload that fits the
  // record's capacity, an empty one always, is written over the old one; a larger one goes to a new
  // block without spare capacity. Returns false when there is no such record.
  //
  // A record with a checksum keeps one: a payload that would leave no capacity for it goes to a new
  // block. A record without gets one where it gets a new block, or has the capacity, and the
  // table's default is Checksum::yes.
  //
  // Throws too_large; chain_damaged when the record cannot be reached or its neighbours cannot be
  // linked to a new block; appender_open when it would need a new block.
  bool modify(Id record, ByteView payload);

  // Writes over a part of a record's payload, from byte `offset` of it on, and sets its time of
  // last modification. The payload keeps its size. Returns false when there is no such record.
  //
  // Throws bad_argument, with nothing written, when offset + bytes.size() is beyond the payload's
  // present size; chain_damaged when the record cannot be reached; payload_damaged, with nothing
  // written, when the payload does not agree with its checksum. Where there is a checksum, all of
  // the payload is read for a new one.
  bool write(Id record, uint64_t offset, ByteView bytes);

  // Sets a record's time of last modification to now. Returns false when there is no such record.
  // Throws chain_damaged when the record cannot be reached; payload_damaged as write() does, and
  // reads the payload in the same case.
  bool touch(Id record);

  // Takes a record out of the table. Its bytes stay in the file until the database is compacted or
  // packed. Returns false when there is no such record. Throws chain_damaged when its neighbours
  // cannot be linked; appender_open while records are being added to this table.
  bool remove(Id record);

  // Modifies a record that was found before, in constant time. The record is first looked for where
  // it was found; if it is not there, or its neighbours do not point to it, by its identifier.
  // Returns and throws as the form with an identifier.
  bool modify(const Record& record, ByteView payload);

  // Writes over a part of the payload of a record that was found before, likewise.
  bool write(const Record& record, uint64_t offset, ByteView bytes);

  // Sets the time of last modification of a record that was found before, likewise.
  bool touch(const Record& record);

  // Takes a record that was found before out of the table, likewise.
  bool remove(const Record& record);

  // Notes in the table's slot that this record is the one that was written last, as adding it does;
  // for a table that is restored. Nothing else changes, and nothing in the library relies on it.
  // Returns and throws as the others.
  bool set_last_written(const Record& record);

  // ---- Checksums

  // Says whether records that are added to this table through this database get a checksum, unless
  // the call that adds one says otherwise: all copies of the Table share it. The file does not hold
  // it; a program that wants it says so each time that it has opened the database, or for all
  // tables with OpenOptions::checksums. Throws not_open only.
  void set_checksum(Checksum checksum);

  // Whether they get one: `yes` or `no`. Throws not_open only.
  Checksum checksum() const;

  // ---- Table data

  // The size of the table's block of data, in bytes; nothing when it has none. Throws data_damaged
  // when the block is not where it should be, as do the others here.
  std::optional<uint32_t> data_size() const;

  // The capacity of that block: the bytes that the data can grow to in place. Nothing when the
  // table has none.
  std::optional<uint32_t> data_capacity() const;

  // The data; nothing when the table has none. Throws too_large when there is not enough memory.
  std::optional<std::vector<std::byte>> data() const;

  // Reads part of the data: as many bytes as the buffer takes and the data has from `offset` on.
  // Returns their number; 0 from the end of the data on, and when the table has none.
  size_t read_data(uint64_t offset, std::span<std::byte> buffer) const;

  // Stores data: over the present block when that has the capacity, else in a new block with
  // the capacity of the larger of size and reserve, in bytes. Throws too_large; appender_open.
  void set_data(ByteView data, uint32_t reserve = 0);

 private:
  friend class Database;
  friend struct detail::TableKeys;
  Table(std::shared_ptr<detail::OpenDatabase> database, Id id, std::string name);
  std::optional<Record> recordAtEnd(Order order) const;
  Id addNew(const NewRecord& record);
  void setDataOf(ByteView data, uint32_t reserve);

  std::shared_ptr<detail::OpenDatabase> database_;
  Id id_;
  std::string name_;
};

// Deletes all records of a table for which the predicate, called with a const Record&, is true.
// Returns their number. It walks over the table once: the cost of each deletion does not depend on
// the number of records.
//
// load  Load::payloads when the predicate looks at Record::loaded()
//
// The predicate may call the library, and other threads may use the table meanwhile.
//
// Throws Error as the walk and Table::remove() do; the records that were deleted before stay
// deleted.
template <std::predicate<const Record&> Predicate>
uint32_t erase_if(Table& table, Predicate predicate, Load load = Load::headers) {
  uint32_t erased = 0;
  for (const Record& record : table.records(load)) {
    if (predicate(record) && table.remove(record)) ++erased;
  }
  return erased;
}

}  // namespace qvdb
