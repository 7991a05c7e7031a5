// qvdb mend: completes an interrupted operation, in place.
#include "commands.h"
#include "failure.h"
#include "locate.h"
#include "output.h"
#include "text.h"
#include "waiting.h"

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

std::string aboutLeftOver(uint64_t count, const Options& options) {
  if (options.discard) {
    return counted(count, "record that may have been in its table was not removed",
                   "records that may have been in their tables were not removed") +
           "; --link links them, 'qvdb compact --force' drops them";
  }
  return counted(count, "record of an interrupted write is not in its table",
                 "records of interrupted writes are not in their tables") +
         "; --link links them, --discard removes them";
}

int run(const Options& options) {
  const CutOffWrites cutOff = cutOffOf(options);
  const MendReport report = whileInUse(
      [&] { return mend(options.file, {.cut_off = cutOff, .dry_run = options.dryRun}); });
  for (const std::string& step : report.steps) printLine(escaped(step));
  if (report.left_over > 0) printLine(aboutLeftOver(report.left_over, options));
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
                 "Link records that were written, but never linked, into their tables.");
  arguments.flag("--discard", options->discard,
                 "Count such records as deleted. At the end of the file they are cut off, and torn "
                 "blocks with them.");
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

The file is checked before, and so is what it would become: nothing is written unless the result
has no error and every record that 'qvdb salvage' would find. All other damage is refused. A
deletion that was begun is finished; 'qvdb undelete' brings its record back.

Records that were written but never linked are not changed unless --link or --discard is given.
Their writes never returned, so that each choice is correct. --discard does not remove records that
a link repair may have cut off their table.)",
    R"(qvdb mend --dry-run notes.qvd
qvdb mend notes.qvd)",
    define,
    R"(0  done, or nothing to do
1  failed, or refused: nothing was changed
2  wrong usage
3  another process has the database open)",
};

}  // namespace qvdb::tool
