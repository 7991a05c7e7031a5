// qvdb renumber: the library's pack under all new identifiers, as it is.
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
    Progress progress("renumbering", 100, nullptr);
    report =
        renumber(options.source, options.target, percentOn(progress), {.overwrite = options.force});
  }
  for (const std::string& table : report.tables_without_data) {
    complain(options.target + ": table '" + table + "' has records, and so lost its data");
  }
  printLine("renumbered " + counted(report.size_before, "byte", "bytes") + " into " +
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

extern const Command kRenumberCommand = {
    "renumber", "copy a database under new identifiers",
    "Writes every table to a new file, which gets an identifier of its own, and gives its records "
    "new identifiers and times. The records of the tables QVrz_Info and QVrz_Category keep theirs; "
    "those of QVrz_Category are categories, and the identifiers of records of QVrz_Record that "
    "they list become the new ones. A database without a table QVrz_Category cannot be "
    "renumbered.\n\n"
    "Of the records of QVrz_Record the last one counts as unknown, as it always has: unless "
    "another table follows, a category that lists it makes the operation fail. A table that has "
    "records loses its table data.\n\n"
    "The target appears under its name only when it is finished. Ctrl-C leaves nothing behind.",
    "qvdb renumber notes.qvd twin.qvd", define};

}  // namespace qvdb::tool
