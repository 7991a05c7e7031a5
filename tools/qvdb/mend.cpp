// qvdb mend: complete in place what an interrupted operation has begun.
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
    return counted(count, "record", "records") +
           " that may have been part of a table once stay as they are; --link takes them into "
           "their "
           "tables, 'qvdb compact --force' drops them";
  }
  return counted(count, "record", "records") +
         " of writes that were cut off stay as they are; --link takes them into their tables, "
         "--discard removes them";
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
  arguments.flag("-n,--dry-run", options->dryRun, "Only say what would be done.");
  arguments.flag("--link", options->link,
                 "Take records that were written, but never linked, into their tables.");
  arguments.flag("--discard", options->discard,
                 "Count such records as deleted. At the end of the file they are cut off, and torn "
                 "blocks with them.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kMendCommand = {
    "mend",
    "complete what an interrupted operation has begun, in place",
    "A process that is killed leaves at most the step in hand undone: a record that is linked but "
    "not counted, a back link that names the place from which a record has moved, a deletion of "
    "which one link is written. Where only one completion fits all that is in the file, this "
    "writes it: a few links and the table's slot. It also finds the table data that a pack has "
    "moved.\n\n"
    "The file is checked before, and so is what it would become: nothing is written unless that "
    "has "
    "no error and every record that 'qvdb salvage' would find. All other damage is refused. A "
    "deletion that was begun is finished; 'qvdb undelete' brings its record back.\n\n"
    "Records that were written but never linked stay as they are unless --link or --discard is "
    "given. Their writes never returned, so that either is right. Where it cannot be ruled out "
    "that "
    "they were part of their table once and were cut off by a link repair, --discard leaves them.",
    "qvdb mend --dry-run notes.qvd\n"
    "qvdb mend notes.qvd",
    define,
    "0  done, or nothing to do\n"
    "1  failed, or refused: nothing was changed\n"
    "2  wrong usage"};

}  // namespace qvdb::tool
