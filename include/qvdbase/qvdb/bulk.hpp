// qvdb::BulkAppender: adding many records at the speed of the device.
#ifndef QVDBASE_QVDB_BULK_HPP
#define QVDBASE_QVDB_BULK_HPP

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace qvdb {

namespace detail {
struct OpenDatabase;
struct Bulk;
}  // namespace detail

// A record that is to be added. Bytes turn into one by themselves.
struct NewRecord {
  template <std::convertible_to<std::span<const std::byte>> Bytes>
  NewRecord(const Bytes& bytes, std::uint32_t room = 0, std::optional<Id> identifier = std::nullopt)
      : payload(bytes), reserve(room), id(identifier) {}

  std::span<const std::byte> payload;
  std::uint32_t reserve;  // the record has room for the larger of reserve and its payload
  std::optional<Id> id;   // nothing: a new one. Nothing checks whether the table has it already
};

// Adds records behind the last one of a table. Their blocks are gathered in memory (256 KiB) and
// written in large pieces; the table takes them in all at once, when finish() is called. The file
// is then the same as if they had been added one by one.
//
// Until finish() no reader sees any of the records, and a process that is killed has added none of
// them. Meanwhile nothing else may be added to the database and nothing changed in this table: the
// appender would notice and fail. Reading is fine.
//
//   qvdb::BulkAppender bulk = table.appender();
//   for (...) bulk.add(payload);
//   bulk.finish();
class QVDBASE_API BulkAppender {
 public:
  BulkAppender(BulkAppender&&) noexcept;
  BulkAppender& operator=(BulkAppender&&) noexcept;
  // Finishes, if that has not been done; a failure goes unnoticed then. In a child that got the
  // appender by fork it does nothing: the batch is still the parent's.
  ~BulkAppender();

  // Adds a record and returns its identifier. Throws Error as Table::add() does. When the file
  // cannot be written, those records are taken in that are wholly in the file, in order, and the
  // appender takes no more.
  Id add(const NewRecord& record);

  // Takes the records into the table; the appender takes no more after that. Returns how many there
  // are in this batch. Throws Error as add() does.
  std::uint32_t finish();

  // How many records of the batch are in the table: 0 before finish().
  std::uint32_t taken() const noexcept;

 private:
  friend class Table;
  BulkAppender(std::shared_ptr<detail::OpenDatabase> database, Id table);

  std::unique_ptr<detail::Bulk> bulk_;
};

}  // namespace qvdb

#endif
