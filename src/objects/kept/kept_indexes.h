// Indexes that are kept in a file beside the database: using what is there when they are made, and
// writing the file again when the database is closed.
//
// What the database was like when the file was written is in its stamp. An index by identifier is
// used where the file can only have grown since, after what was added has been read: nothing else
// makes a record appear. One by keys is asked for records in this case, too, each of which is read
// before it is returned; that it knows of all of them is believed only where nothing at all was
// written, which the times of the file say.
//
// The database holds the indexes that are kept until it is closed, so that there is something to
// write: that is a circle, and closing breaks it.
#pragma once

#include <memory>

#include "objects/indexes/table_index.h"
#include "objects/indexes/table_keys.h"
#include "objects/kept/kept_file.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// Makes the index of a table use the file. Within a look. False where it cannot; then the index is
// still to be built.
bool useKept(const Operation& operation, TableIndex& index, const KeptFile& file);

// The same for an index of keys, which may be incomplete then. It throws like a look.
bool useKept(const Operation& operation, TableKeys& keys, const KeptFile& file);

// From now on the database holds it, and it is written to the file.
void keep(OpenDatabase& database, const std::shared_ptr<TableIndex>& index);
void keep(OpenDatabase& database, const std::shared_ptr<TableKeys>& keys);

// Takes them from the database, which is about to be closed, and ends them after it.
class KeptHeld {
 public:
  explicit KeptHeld(OpenDatabase& database);
  KeptHeld(const KeptHeld&) = delete;
  KeptHeld& operator=(const KeptHeld&) = delete;

 private:
  std::vector<std::shared_ptr<TableIndex>> indexes_;
  std::vector<std::shared_ptr<TableKeys>> keys_;
};

// The index of keys that is kept under that name for that table, or null.
std::shared_ptr<TableKeys> keptKeys(const OpenDatabase& database, Id table, std::string_view name);

// Writes all of them. Without the turn of the database. Throws.
void writeKept(const std::shared_ptr<OpenDatabase>& database);

// The same before the database is closed: those that are complete, where it can be done.
void writeKeptBeforeClose(const std::shared_ptr<OpenDatabase>& database) noexcept;

}  // namespace qvdb::detail
