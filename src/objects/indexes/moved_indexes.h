// Indexes of a database that continues with a compacted file: the records are elsewhere, and
// nothing else has changed, so that only the positions in the indexes do.
#pragma once

#include <memory>
#include <vector>

#include "objects/indexes/table_index.h"
#include "objects/indexes/table_keys.h"
#include "objects/open_database.h"

namespace qvdb::detail {

class MovedIndexes {
 public:
  // Finds those that know everything of the file as it is. In the turn of the database. An index by
  // identifier that uses its file has hashes only: a walk makes it again, as all others.
  explicit MovedIndexes(const Operation& operation);

  // After the database has begun to use the other file: OpenDatabase::moves says where the records
  // are. All other indexes are built again when they are used.
  void apply(const std::shared_ptr<OpenDatabase>& database) const noexcept;

 private:
  std::vector<std::shared_ptr<TableIndex>> indexes_;
  std::vector<std::shared_ptr<TableKeys>> keys_;
};

}  // namespace qvdb::detail
