#include "recovery/mend/open_transactions.h"

#include <algorithm>
#include <cstdint>

#include "format/intent.h"
#include "recovery/survey/words.h"

using namespace qvdbase::survey;

namespace qvdbase::mend {
using intents::FoundIntent;
using intents::Pending;

std::vector<std::string> completionOf(const intents::RecoveryPlan& plan) {
  if (plan.pending == Pending::damagedWord) {
    return {"the word that leads to open transactions, which is damaged, is cleared"};
  }
  if (plan.pending != Pending::open) return {};
  const auto completed = std::ranges::count_if(plan.intents, [&](const FoundIntent& each) {
    return each.isWhole && !plan.contradicts(each);
  });
  if (!plan.writes.empty()) {
    return {joined(counted(completed, "transaction that was", "transactions that were"),
                   " committed ", completed == 1 ? "is" : "are",
                   " completed: ", counted(plan.writes.size(), "place"))};
  }
  if (completed > 0) {
    return {joined(counted(completed, "transaction that is", "transactions that are"), " in place ",
                   completed == 1 ? "counts" : "count", " as finished")};
  }
  if (!plan.intents.empty() && plan.intents.front().isWhole) return {};  // all are contradicted
  return {"the word that leads to open transactions, of which there are none, is cleared"};
}

Patch unmarked(int64_t intent) {
  return {intent + format::record::kData + format::intent::kState, {0}};
}

}  // namespace qvdbase::mend
