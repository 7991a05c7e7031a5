// qvdb compact: rewrites a database without what is dead in it.
#include "qvdb/commands.h"
#include "qvdb/failure.h"
#include "qvdb/output.h"
#include "qvdb/percent_progress.h"
#include "qvdb/text.h"
#include "qvdb/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::optional<std::string> target;
  bool dryRun = false;
  bool force = false;
  bool parents = false;
};

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
  const CompactOptions how = {
      .overwrite = options.force, .dry_run = options.dryRun, .create_folders = options.parents};
  CompactReport report;
  {
    Progress progress(options.dryRun ? "reading" : "compacting", 100, nullptr);
    report = whileInUse([&] {
      return options.target ? compact(options.source, *options.target, percentOn(progress), how)
                            : compact(options.source, percentOn(progress), how);
    });
  }
  printLine(summary(report, options.dryRun));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("SOURCE", options->source, "The database file.");
  arguments.optionalArgument("TARGET", options->target,
                             "The file to make. Without it the new file takes the place of the "
                             "source.");
  arguments.flag("-n,--dry-run", options->dryRun, "Only say what would be gained.");
  arguments.force(options->force, "Replace a target that is there already.");
  arguments.parents(options->parents);
  return actionOf(options, run);
}

}  // namespace

extern const Command kCompactCommand = {
    "compact", "drop what is dead, keep everything else",
    "A database only grows: deleted records, and the old places of changed ones, stay in the file. "
    "This writes a new one with everything that is live: identifiers, times, payloads, room and "
    "order of the records, the data of tables, the version, and the permissions of the file. It "
    "is compared with the source, byte by byte where it counts, before it takes its place.\n\n"
    "Until that moment the source is untouched, whatever happens: Ctrl-C, a full disk, a loss of "
    "power. As much room is needed as the new file takes. Only a process that is killed leaves "
    "something behind: a file .qvdb-....tmp in the folder, which you may delete.\n\n"
    "A damaged database is refused; 'qvdb check' says what is wrong, and 'qvdb salvage' helps.",
    "qvdb compact notes.qvd\n"
    "qvdb compact --dry-run notes.qvd\n"
    "qvdb compact notes.qvd small.qvd",
    define};

}  // namespace qvdb::tool
