// qvdb::RecordWriter: a new record whose payload comes in pieces.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/id.hpp>

#include <cstdint>
#include <memory>
#include <optional>

namespace qvdb {

namespace detail {
struct Bulk;
}

struct NewRecord;

// Writes a new record whose payload does not have to be in memory as a whole, nor its size known
// beforehand. Whatever the size, the writer takes 256 KiB of memory.
//
//   qvdb::RecordWriter writer = table.writer();
//   while (const size_t count = read(buffer)) writer.write(std::span(buffer).first(count));
//   const qvdb::Id id = writer.finish();
//
// Until finish() no reader sees the record; it is then as if it had been added whole. A writer that
// ends without finish() discards what it has written: the file is cut back to where it was. Where
// that is not possible, because the database is open in Mode::shared or because something was
// appended by other means, zeros are written over it. A process that is killed leaves the beginning
// of a block at the end of the file, to which nothing leads.
//
// As long as it exists the writer is an open batch: BulkAppender says what cannot be done to the
// database meanwhile, and what its threads may do.
class QVDBASE_API RecordWriter {
 public:
  RecordWriter(RecordWriter&&) noexcept;             // takes the record; the other one is closed
  RecordWriter& operator=(RecordWriter&&) noexcept;  // discards what this one had open
  ~RecordWriter();                                   // discards, unless finish() was called

  // The identifier that the record will have.
  Id id() const noexcept { return id_; }

  // The bytes written so far.
  uint32_t size() const noexcept { return size_; }

  // Adds bytes to the end of the payload, any number of them.
  //
  // Throws Error: too_large when the payload would have 2^32 bytes or more (nothing of these bytes
  // is written then, and the writer can continue); bad_argument when the writer was finished or
  // discarded; not_open. When the file cannot be written, or was changed by other means, it throws
  // disk_full or cannot_write, and everything is discarded: the record, and with it the batch of
  // the appender that the writer comes from.
  void write(ByteView bytes);

  // Completes the record and returns its identifier. A writer of a table puts it into the table;
  // one of an appender adds it to the batch. Throws as write() does; never chain_damaged, since the
  // end of the chain was looked at when the writer was made.
  Id finish();

  // Discards the record. An appender's batch goes on without it. No effect after finish().
  void discard() noexcept;

 private:
  friend class Table;
  friend class BulkAppender;
  RecordWriter(std::shared_ptr<detail::Bulk> bulk, const NewRecord& record, bool isAlone);
  void requireOpen() const;

  std::shared_ptr<detail::Bulk> bulk_;
  Id id_;
  uint32_t size_ = 0;
  bool isProtected_ = false;
  bool isAlone_;  // the record is all of its batch
};

}  // namespace qvdb
