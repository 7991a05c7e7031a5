// Transactions: X1 to X5. A file with open ones is checked as it is once they are completed; these
// findings say that they are not.
#include <algorithm>
#include <string>

#include "format/intent.h"
#include "recovery/check/parts.h"

using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

using intents::FoundIntent;
using intents::Pending;
using intents::RecoveryPlan;

void checkOpen(Check& check, const RecoveryPlan& plan) {
  uint64_t open = 0;
  for (const FoundIntent& intent : plan.intents) {
    const About about = {.offset = intent.position};
    if (!intent.isWhole) {
      check.information("X4", about, "The transaction at ", intent.position,
                        " was never committed: its blocks are not whole.");
    } else {
      ++open;
      if (!plan.contradicts(intent)) continue;
      check.error("X3", about, "The transaction at ", intent.position,
                  " is committed, but another program has changed a table since in which it is not "
                  "in place.");
    }
  }
  if (plan.writes.empty()) return;
  check.warning("X2", {.offset = plan.start}, counted(open, "transaction is", "transactions are"),
                " committed, but not in place yet.");
}

void checkFinished(Check& check, const RecoveryPlan& plan) {
  uint64_t count = 0;
  uint64_t bytes = 0;
  int64_t first = -1;
  const auto wasContradicted = [&](const Block& block) {
    return std::ranges::binary_search(check.survey.contradicted, block.position);
  };
  for (const Block& block : check.survey.blocks) {
    if (!check.survey.isIntent(block)) continue;
    const bool isOpen =
        std::any_of(plan.intents.begin(), plan.intents.end(),
                    [&](const FoundIntent& intent) { return intent.position == block.position; });
    if (isOpen && !plan.writes.empty()) continue;
    const EarlyBlocks* early = check.survey.earlyAt(block.position);
    if (early != nullptr && !early->isCommitted) continue;
    if (early == nullptr) ++count;
    bytes += static_cast<uint64_t>(block.end - block.position);
    if (first < 0 || block.position < first) first = block.position;
    if (isOpen || !wasContradicted(block)) continue;
    check.error("X3", inBlock(nullptr, block), "The transaction at ", block.position,
                " was not completed in a table that another program had changed.");
  }
  if (count == 0) return;
  check.information("X1", {.offset = first}, counted(count, "intent"), " of transactions, ",
                    counted(bytes, "byte"), ".");
}

void checkUncommitted(Check& check) {
  for (const EarlyBlocks& early : check.survey.early) {
    if (early.isCommitted) continue;
    check.information("X4", {.offset = early.prelude}, "The transaction at ", early.prelude,
                      " was never committed: nothing leads to the ", counted(early.blocks, "block"),
                      ", ", counted(early.range.size(), "byte"), ", that it had written.");
  }
}

}  // namespace

void checkIntents(Check& check, const RecoveryPlan& plan) {
  const About word = {.offset = format::pending::kPosition};
  if (plan.pending == Pending::damagedWord) {
    check.warning("X5", word, "The word that leads to open transactions is damaged.");
  } else if (plan.pending == Pending::open && plan.intents.empty() &&
             plan.start != check.survey.size) {
    check.warning("X5", word, "The word that leads to open transactions names ", plan.start,
                  ", where there is none.");
  }
  checkOpen(check, plan);
  checkFinished(check, plan);
  checkUncommitted(check);
}

}  // namespace qvdbase::check
