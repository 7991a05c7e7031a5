// qvdb::BulkAppender: adding many records at the speed of the device.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/writer.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>

namespace qvdb {

// Identifiers that a caller gives to new records.
enum class GivenIds : uint8_t {
  // One that the table or the batch has already is refused with record_exists, and identifier 0
  // with bad_argument. The first costs a lookup; with the second, an appender builds the table's
  // index (RecordIndex), unless there is one, and keeps it until its end, and it keeps the
  // identifiers of its batch.
  unique,
  // Nothing is checked: where it is known that an identifier is new, and for records that are
  // restored as they were in a file that has one of them several times, or identifier 0.
  as_they_are,
};

// A record that is to be added. Bytes and text convert to one implicitly; they stay the caller's
// and must exist until the record has been added.
//
//   qvdb::NewRecord restored(payload, capacity, id);
//   restored.create_time = created;
//   restored.modify_time = modified;
//   table.add(restored);
struct NewRecord {
  // bytes       the payload, as ByteView takes it
  // spare       `reserve`
  // identifier  `id`
  // protection  `checksum`
  template <std::convertible_to<ByteView> Bytes>
  NewRecord(Bytes&& bytes, uint32_t spare = 0, std::optional<Id> identifier = std::nullopt,
            Checksum protection = Checksum::by_default)
      : payload(ByteView(std::forward<Bytes>(bytes)).span()),
        reserve(spare),
        id(identifier),
        checksum(protection) {}

  std::span<const std::byte> payload;  // at most 2^32 - 1 bytes
  uint32_t reserve;      // in bytes; the record's capacity is the larger of this and its payload
  std::optional<Id> id;  // nothing: a new one
  std::optional<uint32_t> create_time = {};  // seconds since 1970, modulo 2^32; nothing: now
  std::optional<uint32_t> modify_time = {};  // the same; nothing: create_time
  GivenIds given_ids = GivenIds::unique;     // how `id` is taken
  Checksum checksum = Checksum::by_default;  // whether it gets one, as for Table::add()
};

// Adds records after the last one of a table. Their blocks are gathered in memory (256 KiB) and
// written in large pieces; the table takes them in all at once, when finish() is called. The file
// is then the same as if they had been added one by one.
//
//   qvdb::BulkAppender bulk = table.appender();
//   for (...) bulk.add(payload);
//   bulk.finish();
//
// Until finish() no reader sees any of the records, and a process that is killed has added none of
// them. An appender that ends without finish(), as it does when an exception leaves its block, or
// whose database is closed before, discards them: the file is cut back to where the batch began,
// and none of them can be salvaged. Where the file cannot be cut, because the database is open
// in Mode::shared or because something was appended by other means, zeros are written over them.
//
// As long as it exists the appender is the open batch of its database, which has one at most. Calls
// that would disturb it throw Error appender_open at once, before anything is written: those that
// add a record or set table data anywhere in the database, those that open another appender or
// writer, a change by which a record of any table has to move, and a deletion from this table.
// Reading, changes in place, deletions from other tables and new tables are allowed. Changes by
// other means, through the C functions or by another program, cannot be refused: the batch notices
// them when it next writes, and is discarded.
//
// An appender belongs to one thread at a time; its thread and others may use the database meanwhile
// within these limits.
class QVDBASE_API BulkAppender {
 public:
  BulkAppender(BulkAppender&&) noexcept;             // takes the batch; the other one has none then
  BulkAppender& operator=(BulkAppender&&) noexcept;  // discards what this one had open
  ~BulkAppender();                                   // discards, unless finish() was called

  // Adds a record to the batch and returns its identifier.
  //
  // Throws Error: too_large for a payload of 2^32 bytes or more, and record_exists and bad_argument
  // for its identifier as GivenIds says (nothing is written then, and the batch can continue);
  // chain_damaged when damage keeps the identifier from being looked for; bad_argument when the
  // batch was finished or discarded; appender_open while a writer of this appender is open;
  // not_open. When the file cannot be written, or was changed by other means, it
  // throws disk_full or cannot_write, and the batch is discarded.
  Id add(const NewRecord& record);

  // Adds a record whose payload is written in pieces. Until the writer is finished or discarded the
  // appender takes no other record. Throws as add() does.
  //
  // reserve   capacity for later growth, in bytes; the record has the larger of this and its size
  // record    its identifier; nothing: a new one. Nothing checks whether the table has it already
  // checksum  whether it gets one, as for Table::add()
  RecordWriter writer(uint32_t reserve = 0, std::optional<Id> record = std::nullopt,
                      Checksum checksum = Checksum::by_default);

  // The same for a record with times, or an identifier that is checked. Its payload is the
  // beginning of what the writer writes; mostly it is empty.
  RecordWriter writer(const NewRecord& record);

  // Puts the records into the table, all of them or, when it throws, none; the appender takes no
  // more after that. Returns the number of records in this batch. Throws Error as add() does. A
  // second call returns the same number again.
  //
  // A failure to write the last few bytes, the link to the batch and the table's entry, can leave
  // the link there without the entry: qvdb::check() reports that.
  uint32_t finish();

  // The number of records of the batch that are in the table: 0 before finish().
  uint32_t taken() const noexcept;

 private:
  friend class Table;
  explicit BulkAppender(std::shared_ptr<detail::Bulk> bulk);

  std::shared_ptr<detail::Bulk> bulk_;
};

}  // namespace qvdb
