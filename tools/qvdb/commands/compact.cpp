// qvdb compact: rewrites a database without what is dead in it.
#include "command_line/commands.h"
#include "commands/packing.h"
#include "streams/failure.h"
#include "streams/output.h"
#include "streams/percent_progress.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::optional<std::string> target;
  bool dryRun = false;
  bool force = false;
  bool parents = false;
  std::vector<std::string> drop;
  std::vector<std::string> clear;
  std::vector<std::string> rename;
};

// From OLD=NEW. A name that holds '=' can be the new one.
std::pair<std::string, std::string> renamingOf(const std::string& text) {
  const size_t place = text.find('=');
  if (place == std::string::npos) throw wrongUsage("--rename takes OLD=NEW, not '" + text + "'");
  return {text.substr(0, place), text.substr(place + 1)};
}

CompactOptions optionsOf(const Options& options) {
  CompactOptions how = {.overwrite = options.force,
                        .dry_run = options.dryRun,
                        .force = options.force,
                        .create_folders = options.parents,
                        .drop = options.drop,
                        .clear = options.clear};
  for (const std::string& each : options.rename) how.rename.push_back(renamingOf(each));
  return how;
}

// Reports what was left out besides dead space.
void reportLosses(const Options& options, const CompactReport& report) {
  complainOfLosses(options.source, report.records_lost);
  if (report.torn_blocks > 0) {
    printLine(counted(report.torn_blocks, "torn block", "torn blocks") + " of interrupted writes " +
              (report.torn_blocks == 1 ? "is" : "are") + " left out");
  }
}

std::string summary(const CompactReport& report, bool isDryRun) {
  const bool gains = report.size_after < report.size_before;
  const std::string saved =
      gains ? counted(report.size_before - report.size_after, "byte", "bytes") : "nothing";
  return std::to_string(report.size_before) + " bytes " + (isDryRun ? "would become " : "became ") +
         std::to_string(report.size_after) + ": " + saved +
         (isDryRun ? " to gain, " : " gained, ") + counted(report.records, "record", "records") +
         " in " + counted(report.tables, "table", "tables");
}

int run(const Options& options) {
  const CompactOptions how = optionsOf(options);
  const CompactReport report =
      withPercent(options.dryRun ? "reading" : "compacting", [&](const ProgressFunction& progress) {
        return options.target ? compact(options.source, *options.target, progress, how)
                              : compact(options.source, progress, how);
      });
  reportLosses(options, report);
  printLine(summary(report, options.dryRun));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("SOURCE", options->source, "The database file.");
  arguments.optionalArgument("TARGET", options->target,
                             "The file to create. Without it the new file replaces the source.");
  arguments.flag("-n,--dry-run", options->dryRun,
                 "Report what would be gained, and write nothing.");
  arguments.option("--drop", "TABLE", options->drop,
                   "Leave this table out, with its records and data.");
  arguments.option("--clear", "TABLE", options->clear,
                   "Leave the records of this table out, and keep its data.");
  arguments.option("--rename", "OLD=NEW", options->rename, "Give this table another name.");
  arguments.force(options->force,
                  "Replace a target that exists, and compact even if records would be lost.");
  arguments.parents(options->parents);
  return actionOf(options, run);
}

}  // namespace

extern const Command kCompactCommand = {
    "compact",
    "drop what is dead, keep everything else",
    R"(A database only grows: deleted records, and the old places of changed ones, stay in the file. This
command writes a new file with everything that is live: identifiers, times, payloads, capacities
and order of the records, the data of tables, the version, and the permissions of the file. The
new file is compared with the source before it replaces it.

Until that moment the source is not changed, whatever happens: Ctrl-C, a full disk, a power
failure. The disk needs space for both files. Only a process that is killed leaves something: a
file .qvdb-....tmp in the folder, which you may delete.

The database is checked first. It is refused if it has errors, or records that 'qvdb salvage' would
find and the new file would not have; the message gives their number. Then 'qvdb mend' completes
interrupted operations, 'qvdb salvage' saves the rest, and --force leaves the rest out. A broken
chain is refused in any case.

--drop, --clear and --rename can be given many times. They take the names that the tables have in
the source.)",
    R"(qvdb compact notes.qvd
qvdb compact --dry-run notes.qvd
qvdb compact notes.qvd small.qvd
qvdb compact --drop drafts --rename letters=mail notes.qvd)",
    define,
};

}  // namespace qvdb::tool
