// qvdb records: lists the records of a table.
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "archive/imported_files.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "feed/follow.h"
#include "feed/newest_records.h"
#include "feed/record_rows.h"
#include "selection/chosen_records.h"
#include "selection/name_choice.h"
#include "streams/given_time.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::vector<std::string> records;
  std::optional<uint64_t> limit;
  std::optional<uint64_t> last;
  std::optional<std::string> since;
  bool follow = false;
  bool deleted = false;
  bool json = false;
};

const std::string* nameOf(const std::optional<ImportedFiles>& files, Id record) {
  if (!files) return nullptr;
  const auto index = files->find(record);
  return index ? &files->list()[*index].name : nullptr;
}

// The end of the list that is wanted. Throws Failure for what is no time.
Newest newestOf(const Options& options) {
  Newest newest;
  newest.last = options.last;
  if (!options.since) return newest;
  newest.since = timeOfOption("--since", *options.since);
  return newest;
}

// The records that are wanted by identifier, name or pattern; nothing where all are.
using Wanted = std::optional<std::unordered_set<Id>>;

Wanted wantedOf(const Database& database, const Table& table, const Options& options) {
  if (options.records.empty()) return std::nullopt;
  std::unordered_set<Id> wanted;
  for (const Record& record : chooseSomeRecords(database, table, options.records).records) {
    wanted.insert(record.id());
  }
  return wanted;
}

template <typename Take>
void forEachRecord(const Table& table, const Options& options, const Wanted& wanted, Take take) {
  uint64_t left = options.limit.value_or(~uint64_t{0});
  if (left == 0) return;
  forEachOf(table, newestOf(options), [&](const Record& record) {
    if (wanted && !wanted->contains(record.id())) return true;
    take(record);
    return --left != 0;
  });
}

Row listed(const Record& record, const std::optional<ImportedFiles>& files) {
  return rowOf(record, nameOf(files, record.id()));
}

Json jsonWithName(const Row& row) {
  Json json = jsonOf(row);
  addName(&json, row);
  return json;
}

// The document is complete, closing brackets included, also where the records end early.
void printJsonList(const Options& options, const Table& table,
                   const std::optional<ImportedFiles>& files, const Wanted& wanted) {
  Json head;
  addText(&head, "file", options.file);
  addText(&head, "table", table.name());
  head["table_id"] = to_string(table.id());
  head["count"] = table.count();
  JsonArrayWriter writer(head, "records");
  try {
    forEachRecord(table, options, wanted,
                  [&](const Record& record) { writer.add(jsonWithName(listed(record, files))); });
  } catch (const Error& error) {
    writer.finish(escaped(error.what()));
    throw;
  } catch (const Interrupted&) {
    writer.finish("interrupted");
    throw;
  }
  writer.finish();
}

// ---- deleted records

// The name that the record's file had.
const std::string* formerName(const std::optional<ImportedFiles>& files, Id record) {
  if (!files) return nullptr;
  const auto index = files->findRemoved(record);
  return index ? &files->list()[*index].name : nameOf(files, record);
}

Row deletedRow(const FoundBlock& block, const std::optional<ImportedFiles>& files) {
  return {block.record,      block.there,       static_cast<uint64_t>(block.offset),
          block.create_time, block.modify_time, formerName(files, block.record)};
}

Json jsonOf(const FoundBlock& block, const std::optional<ImportedFiles>& files) {
  const Row row = deletedRow(block, files);
  Json json = jsonOf(row, "offset");
  json["label"] = to_string(block.label);
  addName(&json, row);
  return json;
}

// The names, if the file can be opened: deleted records are found even if it cannot.
std::optional<ImportedFiles> namesOfTable(const Options& options) {
  try {
    const Database database = openToRead(options.file);
    return readNames(database, findTable(database, options.table));
  } catch (const Error&) {
  } catch (const Failure&) {
  }
  return std::nullopt;
}

// Leaves those that are wanted by identifier, or by the name that their file had.
void choose(std::vector<FoundBlock>& blocks, const std::optional<ImportedFiles>& files,
            const Options& options) {
  std::vector<ChoosableName> names;
  for (const FoundBlock& block : blocks) {
    const std::string* name = formerName(files, block.record);
    names.push_back({name != nullptr ? std::string_view(*name) : std::string_view()});
  }
  const NameChoice choice(std::move(names));
  std::vector<bool> isWanted(blocks.size());
  for (const std::string& word : options.records) {
    const auto id = parse_id(word);
    bool isFound = false;
    for (size_t i = 0; id && i < blocks.size(); ++i) {
      if (blocks[i].record == *id) isWanted[i] = isFound = true;
    }
    if (!id) {
      for (const size_t place : choice.find(word)) isWanted[place] = isFound = true;
    }
    if (isFound) continue;
    throw Failure(options.file + ": table '" + options.table + "' has no deleted record '" + word +
                  "'; 'qvdb records --deleted' lists those that are still in the file");
  }
  size_t place = 0;
  std::erase_if(blocks, [&](const FoundBlock&) { return !isWanted[place++]; });
}

int listDeleted(const Options& options) {
  const EndsAtOnce atOnce;
  std::vector<FoundBlock> blocks = deleted_records(options.file, options.table);
  const auto files = namesOfTable(options);
  if (!options.records.empty()) choose(blocks, files, options);
  if (options.limit && *options.limit < blocks.size()) {
    blocks.resize(static_cast<size_t>(*options.limit));
  }
  if (options.json) {
    Json head;
    addText(&head, "file", options.file);
    addText(&head, "table", options.table);
    JsonArrayWriter writer(head, "deleted");
    for (const FoundBlock& block : blocks) writer.add(jsonOf(block, files));
    writer.finish();
    return kDone;
  }
  printHead("OFFSET", files.has_value());
  for (const FoundBlock& block : blocks) printRow(deletedRow(block, files));
  return kDone;
}

// What cannot be combined, and what is no time, is refused before anything is opened.
void requireMeaning(const Options& options) {
  if (options.deleted && (options.last || options.since || options.follow)) {
    throw wrongUsage("--deleted cannot be combined with --last, --since or --follow");
  }
  if (options.follow && !options.records.empty()) {
    throw wrongUsage("--follow lists all records that are added: leave RECORD out");
  }
  static_cast<void>(newestOf(options));
}

int run(const Options& options) {
  requireMeaning(options);
  if (options.deleted) return listDeleted(options);
  if (options.follow) {
    return followRecords(
        {options.file, options.table, newestOf(options), options.limit, options.json});
  }
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const auto files = readNames(database, table);
  const Wanted wanted = wantedOf(database, table, options);
  if (options.json) {
    printJsonList(options, table, files, wanted);
  } else {
    printHead("CAPACITY", files.has_value());
    forEachRecord(table, options, wanted,
                  [&](const Record& record) { printRow(listed(record, files)); });
  }
  return files && !files->isWhole() ? kFailed : kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.arguments("RECORD", options->records, 0, kRecordsHelp);
  arguments.option("-n,--limit", "NUMBER", options->limit, "Stop after this number of records.");
  arguments.option("--last", "NUMBER", options->last, "List only so many, those added last.");
  arguments.option("--since", "TIME", options->since,
                   "List only those at the end of the list that were created at this time (UTC) or "
                   "later: 2024-05-01T12:34:56, 2024-05-01 or @SECONDS since 1970.");
  arguments.flag("-f,--follow", options->follow,
                 "Then list each record that is added, until interrupted.");
  arguments.flag("--deleted", options->deleted,
                 "Instead list the deleted records that are still in the file.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kRecordsCommand = {
    "records",
    "list the records of a table",
    R"(Lists a table's records in their order: identifier, bytes of payload, capacity in bytes, the times
of creation and last modification (UTC) and, in a table of imported files, the file's name. The
file is only read.

With RECORDs only these are listed, in the same order. A pattern of names is compared with whole
names: '*' is any text without '/', '**' any text, '?' one character, '[a-z]' one of these and
'[!a-z]' any other; '\' takes the meaning from the next character. A name that exists is that name,
whatever is in it, and a folder means all files below it. With --last and --since those of the
records at the end are listed that are meant.

--last and --since read back from the end of the table, so that their time depends on what they
list, not on how many records there are. Both list older records first.

With --follow the command keeps running and lists the records that any process adds, without names.
It continues with the new file when another process compacts or replaces the database, and waits for
a file that was removed; if the new file has no such table, for some seconds until it is added. A
table of the same name with another identifier is listed from its beginning. Only additions are
listed, not changes, and not deletions: 'qvdb tables' shows the number of records. A record that is
deleted again before it could be listed is left out. With --json each record is an object on a line
of its own. Ctrl-C ends it with status 0.

With --deleted the last version of each deleted record is listed, with its position in the file.
'qvdb undelete' brings one back; 'qvdb history' shows its earlier versions.

Control characters in names are shown as \x and two hexadecimal digits. Where the chain of records
is damaged the list ends, with status 1 and the number of the record; a JSON list then ends with a
member "error". Where the list of names is damaged, the records whose names are lost are listed
without a name, with status 1.)",
    R"(qvdb records notes.qvd letters
qvdb records --limit 10 notes.qvd letters
qvdb records --last 10 notes.qvd letters
qvdb records --since 2024-05-01 notes.qvd letters
qvdb records --last 0 --follow --json notes.qvd letters | jq .id
qvdb records photos.qvd holiday 'beach/*.jpg'
qvdb records --deleted photos.qvd holiday
qvdb records --json notes.qvd letters | jq -r '.records[].id')",
    define,
};

}  // namespace qvdb::tool
