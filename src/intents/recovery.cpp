// Carrying out the plan of a recovery.
//
// Order of writes: sync, what is missing, marks in the intents of tables that were changed by
// others, sync, word 0, sync. A crash in between leaves the word, and the next recovery finds the
// same plan. The first sync is for intents that a process has left which ended before it had synced
// them: their patches must not be on the device without them.
#include "intents/recovery.h"

#include "format/intent.h"
#include "intents/file_io.h"
#include "platform/handles/open_files.h"
#include "platform/handles/sync.h"
#include "platform/host/host_failure.h"

namespace qvdbase::intents {
namespace {

bool markContradicted(int16_t file, const FoundIntent& intent) {
  constexpr unsigned char kState = format::kIntentContradicted;
  const int64_t place = intent.position + format::record::kData + format::intent::kState;
  return intent.state == kState || writeAt(file, place, &kState, 1);
}

bool carryOut(int16_t file, const RecoveryPlan& plan) {
  if (!plan.writes.empty() && !platform::syncFileData(file)) return false;
  for (const PlannedWrite& write : plan.writes) {
    if (!writeAt(file, write.position, write.bytes.data(), write.bytes.size())) return false;
  }
  for (const FoundIntent& intent : plan.intents) {
    if (plan.contradicts(intent) && !markContradicted(file, intent)) return false;
  }
  constexpr format::WordBytes kNoWord{};
  return platform::syncFileData(file) &&
         writeAt(file, format::pending::kPosition, kNoWord.data(), kNoWord.size()) &&
         platform::syncFileData(file);
}

}  // namespace

Recovered recover(int16_t file, Judging judging) {
  const platform::Turn turn(file);
  Recovered recovered;
  recovered.plan = plan(OpenReader(file), judging);
  if (recovered.plan.pending == Pending::nothing) return recovered;
  recovered.succeeded = recovered.plan.hasWork() && carryOut(file, recovered.plan);
  if (!recovered.succeeded) recovered.host = platform::lastHostFailure();
  return recovered;
}

}  // namespace qvdbase::intents
