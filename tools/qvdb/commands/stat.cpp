// qvdb stat: statistics of a database and its tables.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "format/layout.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/progress.h"
#include "streams/text.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  std::optional<std::string> table;
  bool json = false;
};

struct TableStatistics {
  TableInfo info;
  uint64_t records = 0;
  uint64_t payload = 0;
  uint64_t capacity = 0;
  uint32_t smallest = 0;
  uint32_t largest = 0;
  uint32_t oldest = 0;  // create time
  uint32_t latest = 0;  // modify time
  DataSize dataSize;

  void take(const RecordInfo& record) {
    smallest = records == 0 ? record.size : std::min(smallest, record.size);
    oldest = records == 0 ? record.create_time : std::min(oldest, record.create_time);
    largest = std::max(largest, record.size);
    latest = std::max(latest, record.modify_time);
    payload += record.size;
    capacity += record.capacity;
    ++records;
  }

  // The capacity of table data is not known, only its size: spare capacity counts as unused.
  void addTo(SpaceUse* space) const {
    space->records += records * kRecordBlockOverhead + capacity;
    if (dataSize.bytes) space->table_data += uint64_t{*dataSize.bytes} + kTableDataBlockOverhead;
  }
};

// Where the chain is damaged, of the records before the damage; the failure is then stored.
TableStatistics statisticsOf(const Database& database, const Table& table,
                             std::exception_ptr* failure) {
  TableStatistics statistics;
  statistics.info = table.info();
  statistics.dataSize = dataSizeOf(database, table);
  Progress progress("reading", statistics.info.record_count, "records");
  try {
    for (const Record& record : table.records()) {
      throwIfInterrupted();
      statistics.take(record.info());
      progress.step();
    }
  } catch (const Error& error) {
    if (error.reason() != Reason::chain_damaged) throw;
    if (!*failure) *failure = std::current_exception();
  }
  return statistics;
}

Json jsonOf(const TableStatistics& table) {
  Json json;
  json["id"] = to_string(table.info.id);
  addText(&json, "name", table.info.name);
  json["records"] = table.records;
  json["records_ever_added"] = table.info.record_write_count;
  json["payload_bytes"] = table.payload;
  json["room_bytes"] = table.capacity;
  json["smallest"] = table.records == 0 ? Json(nullptr) : Json(table.smallest);
  json["largest"] = table.records == 0 ? Json(nullptr) : Json(table.largest);
  json["first_created"] = table.records == 0 ? Json(nullptr) : Json(timeText(table.oldest));
  json["last_modified"] = table.records == 0 ? Json(nullptr) : Json(timeText(table.latest));
  json["data_size"] = table.dataSize.bytes ? Json(*table.dataSize.bytes) : Json(nullptr);
  if (!table.dataSize.isKnown) json["data_is_unreachable"] = true;
  return json;
}

void printTable(const TableStatistics& table) {
  printLine("");
  printLine("table           " + escaped(table.info.name) + "  " + to_string(table.info.id));
  printLine("  records       " + std::to_string(table.records) + " (" +
            std::to_string(table.info.record_write_count) + " were ever added)");
  if (table.records != 0) {
    printLine("  payload       " + std::to_string(table.payload) + " bytes, " +
              std::to_string(table.payload / table.records) + " on average, " +
              std::to_string(table.smallest) + " to " + std::to_string(table.largest));
    printLine("  capacity      " + std::to_string(table.capacity) + " bytes");
    printLine("  times         created from " + timeText(table.oldest) + ", modified until " +
              timeText(table.latest));
  }
  printLine("  table data    " + (!table.dataSize.isKnown ? std::string("cannot be reached")
                                  : table.dataSize.bytes
                                      ? std::to_string(*table.dataSize.bytes) + " bytes"
                                      : std::string("none")));
}

int run(const Options& options) {
  const Database database = openToRead(options.file);
  std::exception_ptr failure;
  std::vector<Table> tables;
  if (options.table) {
    tables = {findTable(database, *options.table)};
  } else {
    tables = tablesOf(database, &failure);
  }
  std::vector<TableStatistics> all;
  SpaceUse space = {.directory = kNewFileSize};
  for (const Table& table : tables) {
    all.push_back(statisticsOf(database, table, &failure));
    all.back().addTo(&space);
  }
  const uint64_t size = database.info().file_size;
  const uint64_t unused = space.unused(size);
  if (options.json) {
    Json json;
    addText(&json, "file", options.file);
    json["size"] = size;
    if (!options.table && !failure) json["unused_bytes"] = unused;
    json["tables"] = Json::array();
    for (const TableStatistics& table : all) json["tables"].push_back(jsonOf(table));
    printJson(json);
  } else {
    printLine("file            " + escaped(options.file));
    printLine("size            " + std::to_string(size) + " bytes");
    if (!options.table && !failure) {
      printLine("unused          " + std::to_string(unused) +
                " bytes of deleted and replaced contents");
    }
    for (const TableStatistics& table : all) printTable(table);
  }
  if (failure) std::rethrow_exception(failure);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.optionalArgument("TABLE", options->table,
                             "Show only this table: its name, or its identifier.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kStatCommand = {
    "stat",
    "show statistics",
    R"(Walks over all records and shows, for each table, how many there are, their sizes and times, and
how much of the file belongs to deleted or replaced contents. Of a damaged chain only the part
before the damage counts, and the status is 1. The file is only read.)",
    R"(qvdb stat notes.qvd
qvdb stat notes.qvd letters
qvdb stat --json notes.qvd)",
    define,
};

}  // namespace qvdb::tool
