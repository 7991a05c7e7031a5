// qvdb pack: the library's pack, as it is.
#include "qvdb/commands.h"
#include "qvdb/failure.h"
#include "qvdb/output.h"
#include "qvdb/percent_progress.h"
#include "qvdb/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::string target;
  bool force = false;
};

int run(const Options& options) {
  PackReport report;
  {
    Progress progress("packing", 100, nullptr);
    report =
        pack(options.source, options.target, percentOn(progress), {.overwrite = options.force});
  }
  for (const std::string& table : report.tables_without_data) {
    complain(options.target + ": table '" + table +
             "' has records, and so lost its data; 'qvdb compact' keeps it");
  }
  printLine("packed " + counted(report.size_before, "byte", "bytes") + " into " +
            std::to_string(report.size_after));
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("SOURCE", options->source, "The database file. It is not changed.");
  arguments.argument("TARGET", options->target, "The file to make. Missing folders are made.");
  arguments.force(options->force, "Replace a target that is there already.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kPackCommand = {
    "pack", "copy a database without its dead parts, as the library packs",
    "Writes every table and its records to a new file: same identifiers, times, payloads and room. "
    "Deleted records and the old places of changed ones stay behind. The version becomes 100.\n\n"
    "A table that has records loses its table data: that is how this operation has always been. "
    "'qvdb compact' keeps all that is live, and is what you want unless you need exactly this.\n\n"
    "The target appears under its name only when it is finished. Ctrl-C leaves nothing behind.",
    "qvdb pack notes.qvd packed.qvd\n"
    "qvdb pack --force notes.qvd packed.qvd",
    define};

}  // namespace qvdb::tool
