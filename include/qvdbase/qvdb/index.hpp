// qvdb::RecordIndex: records of one table by identifier, in constant time.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>

#include <cstddef>
#include <memory>

namespace qvdb {

namespace detail {
struct TableIndex;
}

// What an index by identifier is asked to do.
struct RecordIndexOptions {
  // Whether it is kept in a file beside the database: see Database::keep_indexes().
  bool kept = false;
};

// While a table has an index, every operation of Table that takes an identifier (find, get, modify,
// touch, remove) goes straight to the record instead of walking the chain, and every operation of
// this layer keeps the index up to date. It lives in memory, as long as this object or a copy of it
// does; it is built in one walk over the table and takes 24 bytes for each record.
// One that is kept beside the database (RecordIndexOptions::kept) begins with what is there, and
// lives until the database is closed: see Database::keep_indexes().
// When added records make it grow, it takes up to 27 bytes for each, and more than twice that
// for a moment.
//
//   const qvdb::RecordIndex index = table.index();
//   table.get(id);                                    // constant time from here on
//
// The file decides, not the index: before a record is used, its block is read and must belong to
// this table, carry the identifier, and have neighbours that point back to it; that a record is
// absent is asked of the table's slot. So the results are those of a table without an index, in
// every mode:
//   - In a database that is open exclusively, an operation that finds the index wrong, because of
//     changes by other means, walks the chain, and the next one builds the index again.
//   - Beside writers, an index to which others have added catches up from the last record that it
//     knows. A record that others have moved or deleted is looked for along the chain, and only its
//     entry is corrected. The index is built again where its last record no longer leads on.
//
// Several threads may use an index, or copies of it, at once.
class QVDBASE_API RecordIndex {
 public:
  // The number of different identifiers in it.
  size_t size() const noexcept;

  // The memory that it takes, in bytes.
  size_t bytes() const noexcept;

  // Whether it uses the file in which it is kept, so that it takes memory for what has changed
  // since only. False for one that was built.
  bool is_from_file() const noexcept;

 private:
  friend class Table;
  explicit RecordIndex(std::shared_ptr<detail::TableIndex> index);

  std::shared_ptr<detail::TableIndex> index_;
};

}  // namespace qvdb
