// qvdb records: lists the records of a table.
#include <nlohmann/json.hpp>

#include "commands.h"
#include "imported_files.h"
#include "interrupt.h"
#include "locate.h"
#include "output.h"
#include "text.h"

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::string table;
  std::optional<uint64_t> limit;
  bool deleted = false;
  bool json = false;
};

const std::string* nameOf(const std::optional<ImportedFiles>& files, Id record) {
  if (!files) return nullptr;
  const auto index = files->find(record);
  return index ? &files->list()[*index].name : nullptr;
}

// What the list shows of a record: `third` is the capacity, or the offset of a deleted one.
struct Row {
  Id id;
  uint64_t size;
  uint64_t third;
  uint32_t created;
  uint32_t modified;
  const std::string* name;  // null for none
};

void printRow(const Row& row) {
  std::string line = to_string(row.id) + column(std::to_string(row.size), 12) +
                     column(std::to_string(row.third), 12) + "  " + timeText(row.created) + "  " +
                     timeText(row.modified);
  if (row.name != nullptr) line += "  " + escaped(*row.name);
  printLine(line);
}

void printHead(const char* third, bool hasNames) {
  printLine("ID                        SIZE" + column(third, 12) +
            "  CREATED               MODIFIED" + (hasNames ? "              NAME" : ""));
}

Json jsonOf(const Row& row, const char* third) {
  Json json;
  json["id"] = to_string(row.id);
  json["size"] = row.size;
  json[third] = row.third;
  json["created"] = timeText(row.created);
  json["modified"] = timeText(row.modified);
  return json;
}

void addName(Json* json, const Row& row) {
  if (row.name != nullptr) addText(json, "name", *row.name);
}

Row rowOf(const Record& record, const std::optional<ImportedFiles>& files) {
  const RecordInfo& info = record.info();
  return {info.id,          info.size,        info.capacity,
          info.create_time, info.modify_time, nameOf(files, info.id)};
}

Json jsonOf(const Row& row) {
  Json json = jsonOf(row, "capacity");
  addName(&json, row);
  return json;
}

template <typename Take>
void forEachRecord(const Table& table, uint64_t limit, Take take) {
  if (limit == 0) return;
  uint64_t done = 0;
  for (const Record& record : table.records()) {
    throwIfInterrupted();
    take(record);
    if (++done == limit) return;
  }
}

// The document is complete, closing brackets included, also where the records end early.
void printJsonList(const Options& options, const Table& table,
                   const std::optional<ImportedFiles>& files, uint64_t limit) {
  Json head;
  addText(&head, "file", options.file);
  addText(&head, "table", table.name());
  head["table_id"] = to_string(table.id());
  head["count"] = table.count();
  JsonArrayWriter writer(head, "records");
  try {
    forEachRecord(table, limit,
                  [&](const Record& record) { writer.add(jsonOf(rowOf(record, files))); });
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

Row rowOf(const FoundBlock& block, const std::optional<ImportedFiles>& files) {
  return {block.record,      block.there,       static_cast<uint64_t>(block.offset),
          block.create_time, block.modify_time, formerName(files, block.record)};
}

Json jsonOf(const FoundBlock& block, const std::optional<ImportedFiles>& files) {
  const Row row = rowOf(block, files);
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

int listDeleted(const Options& options) {
  std::vector<FoundBlock> blocks = deleted_records(options.file, options.table);
  const auto files = namesOfTable(options);
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
  for (const FoundBlock& block : blocks) printRow(rowOf(block, files));
  return kDone;
}

int run(const Options& options) {
  if (options.deleted) return listDeleted(options);
  const Database database = openToRead(options.file);
  const Table table = findTable(database, options.table);
  const auto files = readNames(database, table);
  const uint64_t limit = options.limit.value_or(~uint64_t{0});
  if (options.json) {
    printJsonList(options, table, files, limit);
  } else {
    printHead("CAPACITY", files.has_value());
    forEachRecord(table, limit, [&](const Record& record) { printRow(rowOf(record, files)); });
  }
  return files && !files->isWhole() ? kFailed : kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.argument("TABLE", options->table, kTableHelp);
  arguments.option("-n,--limit", "NUMBER", options->limit, "Stop after this number of records.");
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

With --deleted the last version of each deleted record is listed, with its position in the file.
'qvdb undelete' brings one back; 'qvdb history' shows its earlier versions.

Control characters in names are shown as \x and two hexadecimal digits. Where the chain of records
is damaged the list ends, with status 1 and the number of the record; a JSON list then ends with a
member "error". Where the list of names is damaged, the records whose names are lost are listed
without a name, with status 1.)",
    R"(qvdb records notes.qvd letters
qvdb records --limit 10 notes.qvd letters
qvdb records --deleted photos.qvd holiday
qvdb records --json notes.qvd letters | jq -r '.records[].id')",
    define,
};

}  // namespace qvdb::tool
