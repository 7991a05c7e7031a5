// The plan of a recovery, from the bytes of a file.
#include <algorithm>
#include <optional>
#include <utility>

#include "format/intent.h"
#include "intents/judgement.h"
#include "intents/known_run.h"
#include "intents/recovery.h"
#include "intents/run.h"

namespace qvdbase::intents {
namespace {

FoundIntent summaryOf(const RunIntent& found) {
  FoundIntent summary;
  summary.position = found.intent.position;
  summary.blocks = found.blocks;
  summary.end = found.end;
  summary.sequence = found.intent.sequence;
  summary.slots = found.slots;
  summary.state = found.intent.state;
  return summary;
}

std::optional<format::WordBytes> readWord(const FileBytes& file) {
  format::WordBytes bytes;
  if (!file.read(format::pending::kPosition, bytes.data(), bytes.size())) return std::nullopt;
  // Bytes without a start are no word, whatever else there is: one of the packs leaves some.
  if (std::all_of(bytes.begin(), bytes.begin() + format::pending::kNonce,
                  [](unsigned char byte) { return byte == 0; })) {
    return std::nullopt;
  }
  return bytes;
}

RecoveryPlan planOf(const FileBytes& file, Judging judging, KnownRun* known) {
  RecoveryPlan plan;
  const auto bytes = readWord(file);
  if (!bytes) return plan;
  const auto header = readIntentHeader(file);
  if (!header) return plan;
  const auto word = format::decodePendingWord(*bytes, header->databaseID);
  if (!word) {
    plan.pending = Pending::damagedWord;
    return plan;
  }
  plan.pending = Pending::open;
  plan.start = word->start;
  if (known->word != *bytes) *known = {*bytes, {}};
  known->intents = readRun(file, *header, *word, std::move(known->intents));
  for (const RunIntent& found : known->intents) plan.intents.push_back(summaryOf(found));
  Judgement(file, known->intents, judging).decide(&plan);
  return plan;
}

RecoveryPlan planUnlessUnreadable(const Reader& file, Judging judging, KnownRun* known) {
  const FileBytes bytes(file);
  RecoveryPlan plan = planOf(bytes, judging, known);
  if (!bytes.hasFailed()) return plan;
  *known = {};
  RecoveryPlan none;
  none.pending = Pending::unreadable;
  return none;
}

}  // namespace

RecoveryPlan plan(const Reader& file, Judging judging) {
  KnownRun none;
  return planUnlessUnreadable(file, judging, &none);
}

RecoveryPlan planAgain(const Reader& file, KnownRun* known) {
  return planUnlessUnreadable(file, Judging::bySectors, known);
}

bool hasPendingWord(const Reader& file) {
  const FileBytes bytes(file);
  const bool isSet = readWord(bytes) && readIntentHeader(bytes);
  return isSet || bytes.hasFailed();
}

}  // namespace qvdbase::intents
