// qvdb::Cache: what was read of a database stays in memory.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstddef>
#include <memory>
#include <utility>

namespace qvdb {

namespace detail {
struct OpenDatabase;
}

// As long as a database that is open exclusively has a cache, its operations in this layer read
// each part of the file once and then find it in memory, within a budget. No other process may
// write to the file, so that nothing has to be asked again; what this process writes by any means,
// the C functions included, is seen.
//
//   const qvdb::Cache cache = database.cache();
//   const qvdb::RecordIndex index = table.index();
//   table.get(id);                                    // no system call, once it has been read
//
// What operations do, return and write is the same with and without a cache, and so is the order of
// writes: the system has every byte before the cache has it. Changes make no other system calls
// than their writes, and the question for the limit on file sizes; once in a while they ask whether
// a reader in another process has announced itself.
//
// It takes memory in pieces of 64 KiB, as they are read, up to its budget, and addresses for the
// file and its growth. When the budget is used up, what is not in memory is read from the file as
// without a cache. Appended records take the place of others then.
//
// It has no effect, and takes no memory: where the process has a limit on its addresses or few of
// them, as on 32-bit hosts, and in builds without cheap transfers; after a fork, in both processes,
// because the other one may write to the file (a new call of Database::cache() begins again);
// and for the Readers of the database, which read from the file.
//
// A program that writes to the file in spite of the lock is not noticed. What is in memory then
// differs from the file: records may be found as they were before, and what is written may refer to
// what is no longer there. Memory of the process is safe from that. A file that such a program cuts
// short makes operations fail that read what is not in memory.
//
// Several threads may use the database meanwhile.
class QVDBASE_API Cache {
 public:
  Cache() noexcept = default;                 // none: to be assigned to
  Cache(Cache&&) noexcept = default;          // the other one is none then
  Cache& operator=(Cache&& other) noexcept {  // ends what this one holds
    Cache taken(std::move(other));
    database_.swap(taken.database_);
    return *this;
  }
  // Ends the cache, unless another object holds it too. Payloads that a walk has loaded stay valid
  // for as long as Record::loaded() says.
  ~Cache();

  // The memory that it takes at present, in bytes; at most the budget, and a little for tables. 0
  // when the database is closed.
  size_t bytes() const noexcept;

 private:
  friend class Database;
  explicit Cache(std::shared_ptr<detail::OpenDatabase> database) noexcept
      : database_(std::move(database)) {}

  std::shared_ptr<detail::OpenDatabase> database_;
};

}  // namespace qvdb
