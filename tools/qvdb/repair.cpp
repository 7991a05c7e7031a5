// qvdb repair: the library's link repair, as it is.
#include "qvdb/commands.h"
#include "qvdb/failure.h"
#include "qvdb/locate.h"
#include "qvdb/output.h"
#include "qvdb/percent_progress.h"
#include "qvdb/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool dryRun = false;
};

// What drops out of the chains is still in the file; nothing of it goes without a word.
void tellLosses(const Options& options, const RepairPreview& preview) {
  for (const RepairedTable& table : preview.tables) {
    if (table.lost == 0) continue;
    complain(options.file + ": table '" + table.name +
             "': " + counted(table.lost, "record that can", "records that can") +
             " still be found " + (options.dryRun ? "would drop" : "dropped") +
             " out of its chain; 'qvdb salvage' gets " + (table.lost == 1 ? "it" : "them") +
             " back");
  }
  if (preview.unfinished_pack) {
    complain(options.file + ": this is an unfinished pack; its source is the complete database");
  }
}

int predict(const Options& options, const RepairPreview& preview) {
  if (preview.result == 1) throw Failure(options.file + ": repair would fail: " + preview.failure);
  tellLosses(options, preview);
  printLine(preview.result == 0 ? "every chain is sound; there is nothing to repair"
                                : "broken chains would be relinked");
  return kDone;
}

int run(const Options& options) {
  static_cast<void>(Database::inspect(options.file));
  const RepairPreview preview = predict_repair(options.file);
  if (options.dryRun) return predict(options, preview);
  RepairOutcome outcome = RepairOutcome::sound;
  {
    Progress progress("repairing", 100, nullptr);
    outcome = repair(options.file, percentOn(progress));
  }
  tellLosses(options, preview);
  printLine(outcome == RepairOutcome::sound ? "every chain is sound; nothing was repaired"
                                            : "repaired: broken chains were relinked");
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.flag("-n,--dry-run", options->dryRun, "Only say what would be done, and what lost.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kRepairCommand = {
    "repair", "relink broken chains of records, in place",
    "Follows the records of each table from both ends. Where the two do not agree with each other "
    "and with the number of records, the chain is rewritten from what its beginning leads to. "
    "Payloads are neither moved nor changed; the version becomes 100.\n\n"
    "What can be found only from the end of a chain, or not from any end, drops out of it; a line "
    "on standard error says how many records that were. 'qvdb salvage' gets them back, best from "
    "a copy made before: --dry-run tells beforehand.\n\n"
    "Ctrl-C stops; tables that were rewritten until then stay so.",
    "qvdb repair --dry-run notes.qvd\n"
    "cp notes.qvd copy.qvd && qvdb repair notes.qvd",
    define};

}  // namespace qvdb::tool
