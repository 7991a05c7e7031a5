// Completing what transactions have left.
#include "handle/open_intents.h"

#include <qvdbase/qvdb/error.hpp>

#include <utility>

#include "QVDbase/directory_cache.h"
#include "failure/failure.h"
#include "intents/file_io.h"
#include "intents/recovery.h"
#include "platform/handles/turns.h"

using namespace qvdb;

namespace qvdbase::handle {

bool hasOpenIntents(int16_t db) {
  const platform::Turn turn(db);
  return intents::hasPendingWord(intents::OpenReader(db));
}

void completeIntents(int16_t db, const std::filesystem::path& path, const char* operation) {
  const platform::Turn turn(db);
  if (!hasOpenIntents(db)) return;
  const intents::Recovered recovered = intents::recover(db);
  engine::dropDirectoryEntry(db);
  if (recovered.succeeded) return;
  const bool isUnread = recovered.plan.pending == intents::Pending::unreadable;
  ErrorDetails details;
  details.system_code = recovered.host;
  failure::throwError(path, operation, isUnread ? Reason::cannot_read : Reason::cannot_write,
                      "transactions that a crash has left unfinished cannot be completed: the "
                      "system reports a failure",
                      std::move(details));
}

}  // namespace qvdbase::handle
