// qvdb rm: deletes records.
#include <unordered_set>

#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "selection/chosen_records.h"
#include "streams/given_time.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

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

// Removes the names of the records that are gone, and these entries. An entry of a record that is
// still there stays.
void forgetNames(Table& table, std::optional<ImportedFiles>& files,
                 const std::unordered_set<Id>& gone, const std::vector<size_t>& entries) {
  if (!files) return;
  std::unordered_set<size_t> unwanted(entries.begin(), entries.end());
  bool hasChanged = false;
  for (size_t i = 0; i < files->list().size(); ++i) {
    const ImportedFile& file = files->list()[i];
    const bool isGone = file.kind == FileKind::file && gone.contains(file.record);
    if (file.kind == FileKind::removed || (!isGone && !unwanted.contains(i))) continue;
    files->remove(i, timeNow());
    hasChanged = true;
  }
  if (hasChanged) table.set_data(files->bytes());
}

int run(const RecordChange& options) {
  Database database = openToWrite(options.file);
  Table table = findTable(database, options.table);
  Chosen chosen = chooseRecords(database, table, options.records);
  std::optional<ImportedFiles> files = readNames(database, table);
  std::unordered_set<Id> gone;
  for (const Record& record : chosen.records) {
    if (isInterrupted()) break;
    if (!table.remove(record)) throw noSuchRecord(database, table, record.id());
    gone.insert(record.id());
  }
  if (isInterrupted()) chosen.entries.clear();
  removeDoubles(table, files, gone);
  forgetNames(table, files, gone, chosen.entries);
  finishWriting(database, options.noSync);
  throwIfInterrupted();
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<RecordChange>();
  defineRecords(arguments, *options);
  return actionOf(options, run);
}

}  // namespace

extern const Command kRmCommand = {
    "rm",
    "delete records",
    R"(Takes one or more records out of a table. If one of them is not in the table, or a pattern matches
nothing, none is deleted. Their bytes stay in the file until it is compacted.

In a table of imported files their names are removed too. A folder is deleted with all that is below
it. In a pattern '*' is any text without '/', '**' any text, '?' one character, '[a-z]' one of these
and '[!a-z]' any other; '\' takes the meaning from the next character. A pattern is compared with
whole names, and a name that exists is that name, whatever is in it. 'qvdb records' with the same
arguments shows the files that would be deleted.

A name can have two records, after an import that was interrupted while it replaced a file: both are
deleted.)",
    R"(qvdb rm notes.qvd letters 0x1f5e2d3c4b5a6978
qvdb rm photos.qvd holiday beach/IMG1.jpg beach/IMG2.jpg
qvdb rm photos.qvd holiday old '**/*.tmp')",
    define,
};

}  // namespace qvdb::tool
