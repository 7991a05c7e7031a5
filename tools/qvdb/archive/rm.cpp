// qvdb rm: deletes records.
#include <unordered_set>

#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> records;
  bool noSync = false;
};

// Removes the other records of imported files. There are some after an import that was interrupted
// while it replaced a file; without their name they could not be recognized.
void removeDoubles(Table& table, const std::optional<ImportedFiles>& files,
                   const std::unordered_set<Id>& gone) {
  if (!files) return;
  std::unordered_set<Id> named;
  for (const Id id : gone) {
    if (files->find(id)) named.insert(id);
  }
  if (named.empty()) return;
  try {
    erase_if(table, [&](const Record& record) { return named.contains(record.id()); });
  } catch (const Error& error) {
    // Nothing can be reached after the damage, and what was asked for is done.
    if (error.reason() != Reason::chain_damaged) throw;
  }
}

// Removes the names of imported files with their records.
void forgetNames(Table& table, std::optional<ImportedFiles>& files,
                 const std::unordered_set<Id>& gone) {
  if (!files) return;
  bool hasChanged = false;
  for (size_t i = 0; i < files->list().size(); ++i) {
    const ImportedFile& file = files->list()[i];
    if (file.kind != FileKind::file || !gone.contains(file.record)) continue;
    files->remove(i);
    hasChanged = true;
  }
  if (hasChanged) table.set_data(files->bytes());
}

int run(const Options& options) {
  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  const std::vector<Record> records = findRecords(database, table, options.records);
  std::optional<ImportedFiles> files = readNames(database, table);
  std::unordered_set<Id> gone;
  for (const Record& record : records) {
    if (isInterrupted()) break;
    if (gone.insert(record.id()).second && !table.remove(record)) {
      throw noSuchRecord(database, table, record.id());
    }
  }
  removeDoubles(table, files, gone);
  forgetNames(table, files, gone);
  finishWriting(database, options.noSync);
  throwIfInterrupted();
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.arguments("RECORD", options->records, 1, kRecordHelp);
  arguments.noSync(options->noSync);
  return actionOf(options, run);
}

}  // namespace

extern const Command kRmCommand = {
    "rm",
    "delete records",
    R"(Takes one or more records out of a table. If one of them is not in the table, none is deleted.
Their bytes stay in the file until it is compacted. In a table of imported files their names are
removed too. A name can have two records, after an import that was interrupted while it replaced a
file: both are deleted.)",
    R"(qvdb rm notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb rm photos.qvd holiday beach/IMG1.jpg beach/IMG2.jpg)",
    define,
};

}  // namespace qvdb::tool
