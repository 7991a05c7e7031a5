// qvdb mend: completes an interrupted operation, in place.
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool dryRun = false;
  bool link = false;
  bool discard = false;
};

CutOffWrites cutOffOf(const Options& options) {
  if (options.link && options.discard) throw wrongUsage("--link and --discard exclude each other");
  if (options.link) return CutOffWrites::link;
  return options.discard ? CutOffWrites::discard : CutOffWrites::keep;
}

std::string aboutLeftOver(const MendReport& report, const Options& options) {
  if (options.discard) {
    return counted(report.left_over, "block that was in its table once was not removed",
                   "blocks that were in their tables once were not removed") +
           "; --link links them, 'qvdb compact --force' drops them";
  }
  const bool isAllData = report.left_over_data == report.left_over;
  const bool isAllRecords = report.left_over_data == 0;
  const std::string what =
      isAllData ? counted(report.left_over, "block of table data", "blocks of table data")
      : isAllRecords
          ? counted(report.left_over, "record", "records")
          : counted(report.left_over, "record or block", "records and blocks") + " of table data";
  return what +
         (report.left_over == 1 ? " of an interrupted write is not in its table"
                                : " of interrupted writes are not in their tables") +
         "; --link links them, --discard removes them";
}

int run(const Options& options) {
  const CutOffWrites cutOff = cutOffOf(options);
  const EndsAtOnce atOnce;
  const MendReport report = whileInUse(
      [&] { return mend(options.file, {.cut_off = cutOff, .dry_run = options.dryRun}); });
  for (const std::string& step : report.steps) printLine(escaped(step));
  if (report.left_over > 0) printLine(aboutLeftOver(report, options));
  if (report.steps.empty()) {
    printLine("there is nothing to mend");
  } else {
    printLine(options.dryRun ? "this would make the database sound" : "the database is sound");
  }
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.flag("-n,--dry-run", options->dryRun, "Report what would be done, and write nothing.");
  arguments.flag("--link", options->link,
                 "Link records and table data that were written, but never linked, into their "
                 "tables.");
  arguments.flag("--discard", options->discard,
                 "Count such records as deleted, and overwrite such table data with zeros. At the "
                 "end of the file they are cut off, and torn blocks with them.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kMendCommand = {
    "mend",
    "complete an interrupted operation, in place",
    R"(A process that is killed leaves at most one step unfinished: a record that is linked but not
counted, a back link to the place from which a record has moved, a deletion of which one link is
written. Where only one completion agrees with everything in the file, it is written: a few links
and the table's slot. Table data that a pack has moved is found too.

Transactions that were committed, but are not in place, are completed. Where another program has
changed a table since in such a way that one cannot be, 'qvdb check' reports X3. --link then adds
to that table what the transaction has added or changed, as far as no later version has replaced
it; --discard drops that. Records that the transaction has removed from that table stay in it.

The file is checked before, and so is the result: nothing is written unless the result has no
errors and has every record that 'qvdb salvage' would find. All other damage is refused. A deletion
that was begun is finished; 'qvdb undelete' brings its record back.

Records and table data that were written but never linked are not changed unless --link or --discard
is given. The calls that wrote them never returned, so that either choice is correct. Records that
a forced link repair has cut off from their table can look the same: --discard keeps these if one of
them is the record that was written last. --dry-run lists what would be removed.)",
    R"(qvdb mend --dry-run notes.qvd
qvdb mend notes.qvd)",
    define,
    R"(0  done, or nothing to do
1  failed, or refused: nothing was changed
2  wrong usage
3  another process has the database open)",
};

}  // namespace qvdb::tool
