// qvdb repair: the library's link repair.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/percent_progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool dryRun = false;
  bool force = false;
};

// Reports how many records would be lost.
void reportLosses(const RepairPreview& preview) {
  for (const RepairedTable& table : preview.tables) {
    if (table.missed > 0) {
      printLine("table '" + escaped(table.name) +
                "': " + counted(table.missed, "record", "records") +
                " outside its chain, which repair takes for sound");
    }
    if (table.lost == 0) continue;
    printLine("table '" + escaped(table.name) + "': " + counted(table.lost, "record", "records") +
              " would be lost, " + std::to_string(table.kept) + " would stay");
  }
  if (preview.unfinished_pack) {
    printLine(
        "this is an unfinished pack, and repair would hide that; use its source, which is "
        "complete");
  }
}

// Link repair only counts records. What it takes for sound can be damaged.
void refuseFalseComfort(const Options& options, const char* what) {
  const EndsAtOnce atOnce;
  const CheckReport report = check(options.file);
  if (report.state != CheckState::damaged) return;
  throw Failure(options.file + ": " + what + ", but 'qvdb check' finds " +
                counted(report.errors, "error", "errors") +
                "; 'qvdb salvage' writes a new file without them");
}

int predict(const Options& options) {
  const EndsAtOnce atOnce;
  const RepairPreview preview = predict_repair(options.file);
  if (preview.result == 1) throw Failure(options.file + ": repair would fail: " + preview.failure);
  reportLosses(preview);
  if (preview.result == 0) refuseFalseComfort(options, "repair would change nothing");
  printLine(preview.result == 0 ? "every chain is sound; there is nothing to repair"
                                : "broken chains would be relinked");
  return kDone;
}

// Records are lost only with --force.
void refuseLosses(const Options& options, const RepairPreview& preview) {
  if (options.force) return;
  if (preview.lost > 0) {
    throw Failure(options.file + ": not repaired: " +
                  counted(preview.lost, "record would be lost", "records would be lost") +
                  "; 'qvdb salvage' keeps " + (preview.lost == 1 ? "it" : "them") +
                  " in a new file, --force repairs anyway");
  }
  if (preview.unfinished_pack) {
    throw Failure(options.file +
                  ": not repaired: it is an unfinished pack; use its source, which is complete, or "
                  "'qvdb salvage'; --force repairs anyway");
  }
}

int run(const Options& options) {
  static_cast<void>(Database::inspect(options.file));
  if (options.dryRun) return predict(options);
  const auto judge = [&](const RepairPreview& preview) {
    if (preview.result != 1) {
      reportLosses(preview);
      refuseLosses(options, preview);
    }
    return true;
  };
  const RepairOutcome outcome = withPercent("repairing", [&](const ProgressFunction& progress) {
    return repair_if(options.file, judge, progress);
  });
  refuseFalseComfort(options, outcome == RepairOutcome::sound ? "nothing was repaired"
                                                              : "broken chains were relinked");
  printLine(outcome == RepairOutcome::sound ? "every chain is sound; nothing was repaired"
                                            : "repaired: broken chains were relinked");
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.flag("-n,--dry-run", options->dryRun,
                 "Report what would be done and lost, and write nothing.");
  arguments.force(options->force, "Repair even if records would be lost.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kRepairCommand = {
    "repair",
    "relink broken chains of records, in place",
    R"(Follows the records of each table from both ends. Where the two do not agree with each other and
with the number of records, the chain is rewritten from what its beginning leads to. Payloads are
neither moved nor changed; the version becomes 100.

Records that can be found only from the end of a chain, or from neither end, are lost from it: with
one link of 1,000 records broken, that can be nearly all. Before anything is written the command
reports how many records each table would lose. If there are any, or if the file is an unfinished
pack, it stops; 'qvdb salvage' writes a new file that has them. --force repairs anyway.

Repair relies on the number of records that either end leads to, and takes some chains for sound
that are not: one with a record that was linked but never counted, for example. When 'qvdb check'
finds errors afterwards, the command says so and fails.

Ctrl-C stops; tables that were rewritten before stay rewritten.)",
    R"(qvdb repair --dry-run notes.qvd
cp notes.qvd copy.qvd && qvdb repair notes.qvd)",
    define,
    R"(0  done, or nothing to do
1  failed, or refused because records would be lost, or damage is left
2  wrong usage
3  another process has the database open)",
};

}  // namespace qvdb::tool
