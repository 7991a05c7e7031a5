// qvdb undelete: bring a version of a record back.
#include "commands.h"
#include "imported_files.h"
#include "locate.h"
#include "output.h"
#include "text.h"
#include "waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::string target;
  std::string table;
  std::string record;
  std::optional<uint64_t> at;
};

// The name that the record's file had in the table of imported files, unless another file has it
// now. The record keeps its identifier either way.
void restoreName(const Options& options, Id record) {
  Database database = Database::open(options.target, Mode::exclusive);
  std::optional<Table> table = database.find_table(options.table);
  if (!table && parse_id(options.table)) table = database.find_table(*parse_id(options.table));
  if (!table) return;
  std::optional<ImportedFiles> files = ImportedFiles::of(*table);
  const auto removed = files ? files->findRemoved(record) : std::nullopt;
  if (!removed || files->find(record)) return;
  const std::string name = files->list()[*removed].name;
  if (files->find(name)) {
    printLine("Another file is named '" + escaped(name) + "' now: the record has no name.");
    return;
  }
  files->restore(*removed);
  table->set_data(files->bytes());
  database.sync();
  printLine("The record is named '" + escaped(name) + "' again.");
}

int run(const Options& options) {
  std::optional<int64_t> offset;
  if (options.at) {
    if (*options.at > INT64_MAX) throw wrongUsage("--at is beyond the end of every file");
    offset = static_cast<int64_t>(*options.at);
  }
  const Id record = recordIdInUseOrNot(options.source, options.table, options.record,
                                       options.at ? Prefer::inUse : Prefer::deleted);
  const SalvageReport report = whileInUse(
      [&] { return undelete(options.source, options.target, options.table, record, offset); });
  for (const std::string& note : report.notes) printLine(escaped(note));
  if (report.source_in_use) printLine(kSourceInUse);
  if (report.verified) {
    restoreName(options, record);
    return kDone;
  }
  throw Failure(options.target + ": the new file is not as it should be; 'qvdb check' tells more");
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("SRC", options->source, kFileHelp);
  arguments.argument("DST", options->target, "The new file. Nothing may be there yet.");
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.argument("RECORD", options->record, kRecordInUseOrNotHelp);
  arguments.option("--at", "OFFSET", options->at,
                   "The version at this offset, as 'qvdb history' shows it, instead of the last.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kUndeleteCommand = {
    "undelete", "bring a deleted record back",
    "Writes a new database with everything that SRC has in use, and with a deleted record: its "
    "last "
    "version, at the end of its table, or the version that --at names. A record that is in use can "
    "be given an earlier version with --at, which takes its place. A record of an imported file "
    "gets its name back, unless another file has that name now. SRC is only read.",
    "qvdb history notes.qvd letters 0x1f5e2d3c4b5a6978\n"
    "qvdb undelete notes.qvd restored.qvd letters 0x1f5e2d3c4b5a6978\n"
    "qvdb undelete photos.qvd restored.qvd holiday beach/IMG1.jpg\n"
    "qvdb undelete --at 5082 notes.qvd restored.qvd letters 0x1f5e2d3c4b5a6978",
    define};

}  // namespace qvdb::tool
