// qvdb::Transaction: several changes of a database that are made together, or not at all.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace qvdb {

// A transaction that is open on a database. It can be moved, not copied; one that is destroyed
// before it was committed is rolled back.
//
//   database.transaction([&](qvdb::Transaction& t) {
//     qvdb::Table accounts = t.table("accounts");
//     accounts.modify(from, less);
//     accounts.modify(to, more);
//   });                                  // committed; rolled back where the function throws
//
//   auto t = database.begin();
//   ...
//   t.commit();
//
// From begin() until it ends, every operation of the thread that has begun it belongs to the
// transaction, by whichever object of the database it is made: adding, changing, touching and
// removing records, appenders and writers, data of tables, new tables. What they read is what they
// have made of it. Nothing of it is in the file where anything could reach it: other programs,
// readers (Reader, and databases opened by other processes) and the C functions see the state
// before. Operations of other threads on the same Database wait until the transaction has ended,
// and so does their begin(); they must not be waited for meanwhile.
//
// commit() writes everything as one: after the end of the process at any moment the next opener of
// the file finds all of it, or nothing. OpenOptions::durability says whether that holds for a power
// failure, too.
//
// A change in a transaction always makes a new block in the file: it grows by every record that is
// changed, also by those that are changed in place outside of one. Blocks beyond 16 MiB are written
// to the end of the file early, so that a transaction of any length needs little memory; rolling
// back cuts them off again.
//
// Limits: Mode::exclusive only. One transaction at a time on a database. Database::set_version() is
// not possible in one. An appender or a writer that is open when it begins is refused, and so is
// committing while one is open; while one is open, records that were in the file before cannot be
// changed. Where a C function, or another object of this process, writes to the file meanwhile,
// commit() fails and nothing is applied.
//
// Tables, records and indexes that were found in it stay usable after commit(). After a rollback
// they are what they were before it; a table that was added in it throws table_missing, and a
// record that was added or changed in it throws changed_meanwhile when it is read: find it again. A
// walk that has come to such a record throws the same when it goes on.
class QVDBASE_API Transaction {
 public:
  Transaction() noexcept = default;                      // none: ended
  Transaction(Transaction&& other) noexcept;             // the other one is none then
  Transaction& operator=(Transaction&& other) noexcept;  // rolls back the one that this was
  ~Transaction();                                        // rolls back, unless it has ended

  // Commits: makes all changes in the file.
  //
  // Throws Error, and is rolled back with nothing applied: changed_meanwhile when the file was
  // written to by other means; disk_full, size_limit and cannot_write when a write was refused, now
  // or in one of its operations; cannot_read; too_large. cannot_write also where the system failed
  // at a moment after which it does not know what the file holds: the message says so, nothing more
  // can be written then, and the next opener finds the transaction whole or not at all.
  // changed_meanwhile also when the C functions have changed one of its tables while it waited for
  // the device (Durability::power, in several threads): it is missing in that table then, in which
  // they have lost nothing, and made in the others; the message says that, too.
  //
  // Throws, and it stays open: appender_open while an appender or a writer is open; bad_argument in
  // another thread than the one that has begun it. bad_argument also when it has ended;
  // opened_elsewhere in a child process that got it by fork; not_open.
  void commit();

  // Takes everything back. Without effect when it has ended. Any thread may do that.
  void rollback() noexcept;

  // Whether it has not ended: not committed, not rolled back, its database not closed or opened
  // again.
  bool is_active() const noexcept;

  // The tables as the transaction sees them: the functions of Database. Throw bad_argument when it
  // has ended.
  std::vector<Table> tables() const;
  std::optional<Table> find_table(std::string_view name) const;  // likewise
  std::optional<Table> find_table(Id table) const;               // likewise
  bool contains(std::string_view name) const;                    // likewise
  bool contains(Id table) const;                                 // likewise
  Table table(std::string_view name) const;                      // likewise
  Table add_table(std::string_view name);                        // likewise
  Table find_or_add_table(std::string_view name);                // likewise

 private:
  friend class Database;
  struct Borrowed;
  Transaction(std::shared_ptr<detail::OpenDatabase> database, uint32_t number) noexcept;
  Borrowed database() const;

  std::shared_ptr<detail::OpenDatabase> database_;
  uint32_t number_ = 0;
};

}  // namespace qvdb
