// qvdb stat: statistics of a database and its tables.
#include <algorithm>
#include <map>
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
  bool quick = false;
  bool json = false;
};

// With --quick so many records at each end of a table stand for the others.
constexpr uint64_t kSampled = 1000;

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
  uint64_t sampled = 0;  // with --quick, of a long table: the records that were looked at

  void take(const RecordInfo& record) {
    smallest = records == 0 ? record.size : std::min(smallest, record.size);
    oldest = records == 0 ? record.create_time : std::min(oldest, record.create_time);
    largest = std::max(largest, record.size);
    latest = std::max(latest, record.modify_time);
    payload += record.size;
    capacity += record.capacity;
    ++records;
  }

  // From the records that were looked at to all of them.
  void extrapolate() {
    sampled = records;
    const long double factor = static_cast<long double>(info.record_count) / sampled;
    payload = static_cast<uint64_t>(static_cast<long double>(payload) * factor);
    capacity = static_cast<uint64_t>(static_cast<long double>(capacity) * factor);
    records = info.record_count;
  }

  // The capacity of table data is not known, only its size: spare capacity counts as unused.
  void addTo(SpaceUse* space) const {
    space->records += records * kRecordBlockOverhead + capacity;
    if (dataSize.bytes) space->table_data += uint64_t{*dataSize.bytes} + kTableDataBlockOverhead;
  }
};

void sample(const Table& table, TableStatistics* statistics) {
  for (const Order order : {Order::oldest_first, Order::newest_first}) {
    uint64_t left = kSampled;
    RecordRange records = table.records({.order = order});
    for (auto record = records.begin(); left > 0 && record != records.end(); --left) {
      statistics->take(record->info());
      ++record;
    }
  }
  statistics->extrapolate();
}

// Where the chain is damaged, of the records before the damage; the failure is then stored.
TableStatistics statisticsOf(const Database& database, const Table& table, bool isQuick,
                             std::exception_ptr* failure) {
  TableStatistics statistics;
  statistics.info = table.info();
  statistics.dataSize = dataSizeOf(database, table);
  if (isQuick && statistics.info.record_count > 2 * kSampled) {
    sample(table, &statistics);
    return statistics;
  }
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
  if (table.sampled != 0) json["estimated_from"] = table.sampled;
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
    if (table.sampled != 0) {
      printLine("  (an estimate from " + std::to_string(table.sampled) + " records)");
    }
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

// ---- where the bytes of the file are

// What a compaction would leave: exactly, by the same pass over the file, or the reason why there
// is none.
struct Gain {
  std::optional<uint64_t> sizeAfter;
  std::string refusal;
};

Gain gainOf(const std::string& file) {
  try {
    return {compact(file, file + ".compact", {}, {.dry_run = true}).size_after, {}};
  } catch (const Error& error) {
    const Reason reason = error.reason();
    const bool isRefused = reason == Reason::damaged || reason == Reason::chain_damaged ||
                           reason == Reason::directory_damaged || reason == Reason::data_damaged ||
                           reason == Reason::in_use;
    if (!isRefused) throw;
    return {std::nullopt, error.what()};
  }
}

struct Part {
  const char* key;
  const char* name;
  std::vector<ExtentUse> uses;
};

const Part kParts[] = {
    {"directory", "directory", {ExtentUse::directory}},
    {"records", "records", {ExtentUse::record}},
    {"table_data", "table data", {ExtentUse::table_data}},
    {"superseded", "superseded", {ExtentUse::superseded}},
    {"deleted", "deleted", {ExtentUse::deleted}},
    {"intents", "intents", {ExtentUse::intent}},
    {"unlinked", "never linked", {ExtentUse::unlinked}},
    {"lost", "lost", {ExtentUse::lost}},
    {"orphans", "of lost tables", {ExtentUse::orphan}},
    {"unknown", "no block", {ExtentUse::torn, ExtentUse::unknown}},
};

// By a pass over every part of the file, as 'qvdb map' makes it.
struct Space {
  std::map<ExtentUse, uint64_t> bytes;
  uint64_t reserve = 0;  // of records and table data

  uint64_t of(const Part& part) const {
    uint64_t sum = 0;
    for (const ExtentUse use : part.uses) {
      const auto found = bytes.find(use);
      if (found != bytes.end()) sum += found->second;
    }
    return sum;
  }
};

Space spaceOf(const std::string& file) {
  Space space;
  visit_extents(file, [&](const Extent& extent) {
    space.bytes[extent.use] += static_cast<uint64_t>(extent.size);
    space.reserve += static_cast<uint64_t>(extent.reserve);
  });
  return space;
}

void addSpace(Json* json, const Space& space, const Gain& gain, uint64_t size) {
  Json parts;
  for (const Part& part : kParts) parts[part.key] = space.of(part);
  parts["reserve"] = space.reserve;
  (*json)["space"] = parts;
  Json compaction;
  if (gain.sizeAfter) {
    compaction["size_after"] = *gain.sizeAfter;
    compaction["gain"] = static_cast<int64_t>(size) - static_cast<int64_t>(*gain.sizeAfter);
  } else {
    compaction["refused"] = gain.refusal;
  }
  (*json)["compact"] = compaction;
}

void printSpace(const Space& space, const Gain& gain, uint64_t size) {
  printLine("where the bytes are");
  for (const Part& part : kParts) {
    if (space.of(part) == 0) continue;
    std::string line = "  " + std::string(part.name);
    line.resize(16, ' ');
    line += std::to_string(space.of(part));
    const bool hasReserve = part.uses.front() == ExtentUse::record && space.reserve != 0;
    if (hasReserve) line += ", with table data " + std::to_string(space.reserve) + " in reserve";
    printLine(line);
  }
  if (!gain.sizeAfter) return printLine("compact         refuses: " + escaped(gain.refusal));
  printLine("compact         would gain " + std::to_string(size - std::min(size, *gain.sizeAfter)) +
            " bytes, and leave " + std::to_string(*gain.sizeAfter));
}

struct Statistics {
  uint64_t size = 0;
  bool isOfAll = false;  // tables
  bool isWhole = false;  // of all tables, and no damage was found
  SpaceUse walked;       // what the walks over the tables add up to
  std::vector<TableStatistics> tables;
};

void printHead(const Options& options, const Statistics& all) {
  printLine("file            " + escaped(options.file));
  printLine("size            " + std::to_string(all.size) + " bytes");
  const std::string unused = std::to_string(all.walked.unused(all.size));
  if (all.isWhole && options.quick) {
    printLine("compact         would gain about " + unused +
              " bytes: an estimate; without --quick it is calculated");
  } else if (all.isWhole) {
    printLine("unused          " + unused + " bytes of deleted and replaced contents");
  }
  if (!all.isOfAll || options.quick) return;
  printSpace(spaceOf(options.file), gainOf(options.file), all.size);
}

Json jsonOf(const Options& options, const Statistics& all) {
  Json json;
  addText(&json, "file", options.file);
  json["size"] = all.size;
  if (all.isWhole) json["unused_bytes"] = all.walked.unused(all.size);
  if (all.isWhole && options.quick) json["unused_bytes_are_an_estimate"] = true;
  if (all.isOfAll && !options.quick) {
    addSpace(&json, spaceOf(options.file), gainOf(options.file), all.size);
  }
  json["tables"] = Json::array();
  for (const TableStatistics& table : all.tables) json["tables"].push_back(jsonOf(table));
  return json;
}

int run(const Options& options) {
  const EndsAtOnce atOnce;
  const Database database = openToRead(options.file);
  std::exception_ptr failure;
  std::vector<Table> tables;
  if (options.table) {
    tables = {findTable(database, *options.table)};
  } else {
    tables = tablesOf(database, &failure);
  }
  Statistics all;
  all.walked.directory = kNewFileSize;
  for (const Table& table : tables) {
    all.tables.push_back(statisticsOf(database, table, options.quick, &failure));
    all.tables.back().addTo(&all.walked);
  }
  all.size = database.info().file_size;
  all.isOfAll = !options.table;
  all.isWhole = all.isOfAll && !failure;
  if (options.json) {
    printJson(jsonOf(options, all));
  } else {
    printHead(options, all);
    for (const TableStatistics& table : all.tables) printTable(table);
  }
  if (failure) std::rethrow_exception(failure);
  return kDone;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.optionalArgument("TABLE", options->table,
                             "Show only this table: its name, or its identifier.");
  arguments.flag("--quick", options->quick,
                 "Estimate from some records of each long table, without reading the whole file.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kStatCommand = {
    "stat",
    "show statistics",
    R"(Walks over all records and shows, for each table, how many there are, their sizes and times, and
where the bytes of the file are: in use, in reserve (capacity that no payload uses), superseded by
newer versions, deleted, intents (what transactions noted), or damaged; and what 'qvdb compact' would gain, exactly, for which it
reads the file as that does. With --quick the last 1000 and the first 1000 records of a table stand for
the others, and what compact would gain is an estimate. Of a damaged chain only the part before the
damage counts, and the status is 1. The file is only read.)",
    R"(qvdb stat notes.qvd
qvdb stat notes.qvd letters
qvdb stat --quick huge.qvd
qvdb stat --json notes.qvd)",
    define,
};

}  // namespace qvdb::tool
