// qvdb::Cache: the mirror of a database's file, for the operations of this layer.
//
// A database counts the objects that hold its cache. While there are any, each operation uses the
// mirror from its beginning to its end (see Operation); platform/transfer/mirror.h has the rest.
#include <qvdbase/qvdb/cache.hpp>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include "objects/cache.h"
#include "objects/open_database.h"
#include "platform/handles/open_files.h"
#include "platform/transfer/mirror.h"

using namespace qvdbase;

namespace qvdb {

Cache Database::cache(size_t bytes) const {
  const detail::Operation operation(state_, "cache the database");
  detail::holdCache(operation, bytes);
  return Cache(state_);
}

Cache::~Cache() {
  if (database_ == nullptr) return;
  const detail::DatabaseTurn turn(*database_);
  if (--database_->cacheHolders == 0) platform::detachMirror(turn.handle());
}

size_t Cache::bytes() const noexcept {
  if (database_ == nullptr) return 0;
  const detail::DatabaseTurn turn(*database_);
  return static_cast<size_t>(platform::mirroredBytes(turn.handle()));
}

namespace detail {

void holdCache(const Operation& operation, size_t bytes) {
  const auto* file = platform::findOpenFile(operation.db());
  if (file == nullptr || file->sharing != platform::Sharing::exclusive) {
    operation.fail(Reason::bad_argument,
                   "only a database that is open exclusively can have a cache: others may write "
                   "to this one");
  }
  operation.requireOwn();
  OpenDatabase& database = operation.database();
  ++database.cacheHolders;
  database.cacheBudget = bytes;
  attachCache(database);
}

void attachCache(const OpenDatabase& database) {
  if (database.cacheHolders == 0) return;
  static_cast<void>(platform::attachMirror(database.handle, database.cacheBudget));
}

}  // namespace detail
}  // namespace qvdb
