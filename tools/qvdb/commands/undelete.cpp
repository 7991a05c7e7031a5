// qvdb undelete: brings a version of a record back.
#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string source;
  std::string target;
  std::string table;
  std::string record;
  std::optional<uint64_t> at;
};

// Gives the record the name that its file had in the list of imported files, unless another file
// has it now; the list keeps its length. The record keeps its identifier either way. Returns a
// sentence about it.
std::string restoreName(std::span<std::byte> data, Id record) {
  if (ImportedFiles::versionOf(data) == ListVersion::unknown) {
    return "The list of names was made by a newer qvdb: the record has no name.";
  }
  std::optional<ImportedFiles> files = ImportedFiles::from(data);
  const auto removed = files ? files->findRemoved(record) : std::nullopt;
  if (!removed || files->find(record)) return {};
  const std::string name = files->list()[*removed].name;
  if (files->find(name)) {
    return "Another file is named '" + escaped(name) + "' now: the record has no name.";
  }
  files->restore(*removed);
  std::copy(files->bytes().begin(), files->bytes().end(), data.begin());
  return "The record is named '" + escaped(name) + "' again.";
}

int run(const Options& options) {
  std::optional<int64_t> offset;
  if (options.at) {
    if (*options.at > INT64_MAX) throw wrongUsage("--at is beyond the end of every file");
    offset = static_cast<int64_t>(*options.at);
  }
  const Id record = recordIdInUseOrNot(options.source, options.table, options.record,
                                       options.at ? Prefer::inUse : Prefer::deleted);
  std::string named;
  const SalvageReport report = whileInUse([&] {
    return undelete(options.source, options.target, options.table, record, offset,
                    [&](std::span<std::byte> data) { named = restoreName(data, record); });
  });
  for (const std::string& note : report.notes) printLine(escaped(note));
  if (report.source_in_use) printSourceInUse(report.source_writer);
  if (report.verified) {
    if (!named.empty()) printLine(named);
    return kDone;
  }
  throw Failure(options.target + ": the new file is damaged; 'qvdb check' reports how");
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("SRC", options->source, kFileHelp);
  arguments.argument("DST", options->target, kNewFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.argument("RECORD", options->record, kRecordInUseOrNotHelp);
  arguments.option("--at", "OFFSET", options->at,
                   "The version at this offset, as 'qvdb history' shows it, instead of the last.");
  return actionOf(options, run);
}

}  // namespace

extern const Command kUndeleteCommand = {
    "undelete",
    "bring a deleted record back",
    R"(Writes a new database with everything that SRC has in use, and with a deleted record: its last
version, at the end of its table, or the version that --at names. With --at a record
that is in use can be replaced by an earlier version. A record of an imported file gets its name back, unless
another file has that name now. SRC is only read.)",
    R"(qvdb history notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb undelete notes.qvd restored.qvd letters 0x1f5e2d3c4b5a6978
qvdb undelete photos.qvd restored.qvd holiday beach/IMG1.jpg
qvdb undelete --at 5082 notes.qvd restored.qvd letters 0x1f5e2d3c4b5a6978)",
    define,
};

}  // namespace qvdb::tool
