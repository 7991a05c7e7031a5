// Compacting a database when it is opened or closed.
#include "objects/space/compact_when.h"

#include <qvdbase/qvdb/error.hpp>

#include <new>

#include "format/layout.h"
#include "platform/host/cancellation.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

// Whether a compaction may begin. What is open is taken back by close(), and not waited for.
bool mayCompact(const OpenDatabase& state) {
  const DatabaseTurn turn(state);
  return turn.handle() != 0 && state.opener.isStillOwn() && state.bulk == nullptr &&
         state.transactions.open == nullptr;
}

bool isDue(const Database& database, const CompactWhen& when) {
  const uint64_t size = database.info().file_size;
  if (size < static_cast<uint64_t>(format::kNewFileSize) + when.dead_bytes) return false;
  const uint64_t dead = database.reclaimable_estimate();
  return dead > 0 && dead >= when.dead_bytes &&
         static_cast<double>(dead) >= when.dead_part * static_cast<double>(size);
}

}  // namespace

// A failure leaves a database that is as usable as before.
void compactIfDue(Database& database, OpenDatabase& state) {
  if (state.compactWhen.dead_part == 0 || !mayCompact(state)) return;
  const platform::Uncancelled uncancelled;
  try {
    if (isDue(database, state.compactWhen)) database.compact();
  } catch (const Error&) {
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace qvdb::detail
